#include "LocalStore.hpp"

#include <storage/cloudprovider/CloudExceptions.hpp>
#include <storage/cloudprovider/OpenFileManager.hpp>

#include <gmock/gmock.h>

#include <array>
#include <deque>
#include <numeric>
#include <optional>

// Random operations on the contents of files, each done on a plain string as well. A failure prints the seed and what
// was done last; MODEL_SEED=n runs the row "random" with that seed.

namespace storage::cloudprovider
{

namespace
{

struct ModelFile
{
    const std::string key;
    std::optional<std::string> stored{}; // what the store holds
    std::vector<std::size_t> layout{};   // sizes of its parts, or of those that the open file began with
    std::string tag{};                   // empty: the next one is new
    std::string content{};               // while open
    unsigned streams = 0;
    bool changed = false;
};

struct ModelStream
{
    fsp::ByteStreamPtr stream;
    ModelFile* file = nullptr;
    std::size_t position = 0;
    bool atEnd = false;
    bool reads = true;
    bool writes = true;
    bool appends = false;
};

struct ModelRow
{
    unsigned seed;
    bool local = false; // over the durable store
};

class ModelTest : public FileTest, public testing::WithParamInterface<ModelRow>
{
protected:
    ModelTest()
        : FileTest(GetParam().local ? makeLocalStore() : nullptr)
    {
    }

    void TearDown() override
    {
        if (HasFailure())
        {
            std::cerr << "seed " << m_random.seed << ", part size " << m_partSize << ", after\n";
            for (const std::string& step : m_steps)
            {
                std::cerr << "  " << step << '\n';
            }
        }
    }

    template <typename... Text>
    void note(const Text&... text)
    {
        std::ostringstream line;
        (line << ... << text);
        m_steps.push_back(line.str());
        if (m_steps.size() > 25)
        {
            m_steps.pop_front();
        }
    }

    ModelFile& anyFile() { return m_files[m_random.below(m_files.size())]; }

    /// Begin as the part that covers the last byte allows: parts that are stored keep their boundaries, the last one
    /// grows as far as it can, and whole new ones follow.
    std::vector<std::size_t> grownLayout(std::vector<std::size_t> layout, std::size_t size) const
    {
        std::size_t capacity = m_partSize;
        if (!layout.empty())
        {
            capacity = std::max(capacity, layout.back());
            layout.pop_back();
        }
        std::size_t left = size - std::accumulate(layout.begin(), layout.end(), std::size_t{0});
        do
        {
            layout.push_back(std::min(left, capacity));
            left -= layout.back();
            capacity = m_partSize;
        } while (left != 0);
        return layout;
    }

    static void beginEditing(ModelFile& file, bool keep)
    {
        if (file.streams++ == 0) // a file that is open is never truncated
        {
            keep = keep && file.stored;
            file.changed = !keep;
            file.content = keep ? *file.stored : "";
            file.layout = keep ? file.layout : std::vector<std::size_t>();
        }
    }

    static void overlay(ModelFile& file, std::size_t offset, const std::string& bytes)
    {
        file.content.resize(std::max(file.content.size(), offset + bytes.size()), '\0');
        file.content.replace(offset, bytes.size(), bytes);
        file.changed = true;
    }

    void endEditing(ModelFile& file)
    {
        if (--file.streams == 0 && file.changed)
        {
            file.stored = file.content;
            file.layout = grownLayout(file.layout, file.content.size());
            file.tag.clear();
        }
        compareStored(file);
    }

    void compareStored(ModelFile& file)
    {
        if (file.streams != 0)
        {
            return;
        }
        EXPECT_FALSE(globalOpenFileManager().isOpen(iriOf(file.key)));
        EXPECT_EQ(stored(file.key), file.stored) << file.key;
        if (file.stored)
        {
            EXPECT_EQ(partSizes(file.key), file.layout) << file.key;
            const std::string tag = faults->inner().getObjectInfo(file.key).tag;
            EXPECT_TRUE(file.tag.empty() || tag == file.tag) << file.key << " was written although nothing changed";
            file.tag = tag;
        }
        if (m_streams.empty())
        {
            EXPECT_THAT(openUploads(), testing::IsEmpty());
            EXPECT_TRUE(temp.isEmpty());
        }
    }

    void openStream()
    {
        ModelFile& file = anyFile();
        const bool readOnly = m_random.oneIn(4);
        const auto pick = [&](std::size_t odds) { return m_random.oneIn(odds) ? 0U : 1U; };
        const fsp::ByteStreamOpenOptions options{fsp::ByteStreamReadAccess{pick(4)}, fsp::ByteStreamCreate{pick(2)},
            fsp::ByteStreamTruncate{pick(4)}, fsp::ByteStreamWritePosition{pick(3)}};
        note("open ", file.key, readOnly ? " read-only, not " : " ", options);
        const bool mustExist = readOnly || options.create == fsp::ByteStreamCreate::MustExist;
        const bool found = !mustExist || file.streams != 0 || file.stored.has_value();
        ModelStream opened{nullptr, &file};
        const auto open = [&]
        {
            opened.stream = readOnly ? provider->openReadOnlyStream(iriOf(file.key))
                                     : provider->openStream(iriOf(file.key), options);
        };
        ASSERT_EQ(codeOf(open), found ? succeeds : fsp::ErrorCode::NotFound.value());
        if (found)
        {
            beginEditing(file, readOnly || options.truncate == fsp::ByteStreamTruncate::Keep);
            opened.reads = readOnly || options.readAccess == fsp::ByteStreamReadAccess::Allowed;
            opened.writes = !readOnly;
            opened.appends = !readOnly && options.writePosition == fsp::ByteStreamWritePosition::Append;
            m_streams.push_back(std::move(opened));
        }
    }

    void closeStream()
    {
        std::swap(m_streams[m_random.below(m_streams.size())], m_streams.back());
        ModelStream closed = std::move(m_streams.back());
        m_streams.pop_back();
        ModelFile& file = *closed.file;
        note("close ", file.key, ", streams left ", file.streams - 1);
        std::string detail;
        // A destroyed stream is a closed one, only that it cannot tell what went wrong.
        const bool destroys = !m_faulty && m_random.oneIn(3);
        const int code = codeOf([&] { destroys ? closed.stream.reset() : closed.stream->close(); }, &detail);
        if (m_faulty && detail == injected && file.streams == 1)
        {
            note("the close failed as it was made to");
            file.streams = 0;
            file.layout = file.stored ? partSizes(file.key) : std::vector<std::size_t>();
            compareStored(file);
            return;
        }
        ASSERT_EQ(code, succeeds);
        endEditing(file);
    }

    void read(ModelStream& stream)
    {
        const std::size_t size = m_random.below(3 * m_partSize + 3);
        note("read ", stream.file->key, " at ", stream.position, '+', size);
        const std::string& content = stream.file->content;
        std::string expected;
        if (!stream.atEnd && stream.position < content.size())
        {
            expected = content.substr(stream.position, size);
        }
        std::string bytes(size, '?');
        std::streamsize count = 0;
        const int code = codeOf([&] { count = stream.stream->read(bytes.data(), static_cast<std::streamsize>(size)); });
        ASSERT_EQ(code, stream.reads ? succeeds : fsp::ErrorCode::PermissionDenied.value());
        if (stream.reads)
        {
            stream.atEnd = stream.atEnd || expected.size() < size;
            stream.position += expected.size();
            ASSERT_EQ(count, stream.atEnd && expected.empty() ? -1 : static_cast<std::streamsize>(expected.size()));
            bytes.resize(expected.size());
            ASSERT_EQ(bytes, expected);
        }
    }

    void write(ModelStream& stream)
    {
        const std::string bytes = m_random.bytes(m_random.below(3 * m_partSize + 3));
        note("write ", stream.file->key, " at ", stream.position, '+', bytes.size());
        std::streamsize count = 0;
        std::string detail;
        const int code = codeOf([&] { count = cloudprovider::write(*stream.stream, bytes); }, &detail);
        if (m_faulty && detail == injected)
        {
            return; // an earlier upload was repeated and failed again, before anything was written
        }
        ASSERT_EQ(code, stream.writes ? succeeds : fsp::ErrorCode::PermissionDenied.value());
        if (stream.writes)
        {
            // Whoever has found the end writes nothing more until a seek.
            ASSERT_EQ(count, stream.atEnd ? -1 : static_cast<std::streamsize>(bytes.size()));
        }
        if (count > 0)
        {
            const std::size_t offset = stream.appends ? stream.file->content.size() : stream.position;
            overlay(*stream.file, offset, bytes);
            stream.position = offset + bytes.size();
        }
    }

    void seek(ModelStream& stream)
    {
        const auto size = static_cast<std::int64_t>(stream.file->content.size());
        const auto way = std::array{std::ios_base::beg, std::ios_base::cur, std::ios_base::end}[m_random.below(3)];
        const std::int64_t base = way == std::ios_base::beg   ? 0
                                  : way == std::ios_base::cur ? static_cast<std::int64_t>(stream.position)
                                                              : size;
        // Anywhere in the file, a little before its start or behind its end, and now and then far behind.
        const auto target = static_cast<std::int64_t>(m_random.below(static_cast<std::size_t>(size) + 8)) - 3 +
                            (m_random.oneIn(8) ? static_cast<std::int64_t>(4 * m_partSize) : 0);
        note("seek ", stream.file->key, " way ", way, " by ", target - base);
        stream.position = static_cast<std::size_t>(std::max<std::int64_t>(target, 0));
        stream.atEnd = false;
        ASSERT_EQ(static_cast<std::size_t>(stream.stream->seek(target - base, way)), stream.position);
    }

    void copyFile()
    {
        ModelFile& from = anyFile();
        ModelFile& to = anyFile();
        note("copy ", from.key, " to ", to.key);
        const bool found = from.stored || (from.streams != 0 && &from != &to);
        ASSERT_EQ(codeOf([&] { provider->copyFile(iriOf(from.key), iriOf(to.key), fsp::ReplacementPolicy::Replace); }),
            found ? succeeds : fsp::ErrorCode::NotFound.value());
        if (found && &from != &to)
        {
            // A file that is open is read and written as its other streams see it.
            const std::string content = from.streams != 0 ? from.content : *from.stored;
            beginEditing(to, false);
            if (!content.empty())
            {
                overlay(to, 0, content);
            }
            endEditing(to);
        }
    }

    void changeBehindTheProvider()
    {
        ModelFile& file = anyFile();
        const int code = codeOf([&] { provider->removeFile(iriOf(file.key)); });
        ASSERT_EQ(code, file.streams != 0 ? fsp::ErrorCode::InUse.value() : succeeds);
        if (code != succeeds)
        {
            return;
        }
        note("remove ", file.key);
        file.stored.reset();
        file.tag.clear();
        if (!m_random.oneIn(4))
        {
            faults->clearFaults(); // what follows is no business of the provider's
            file.layout.assign(m_random.between(1, 4), 0);
            for (std::size_t& size : file.layout)
            {
                size = m_random.between(&size == &file.layout.back() ? 0 : 1, 2 * m_partSize + 1);
            }
            file.stored = m_random.bytes(std::accumulate(file.layout.begin(), file.layout.end(), std::size_t{0}));
            putParts(file.key, *file.stored, file.layout);
            note("store ", file.key, " in parts of ", testing::PrintToString(file.layout));
        }
    }

    void step()
    {
        if (m_faulty && m_random.oneIn(12))
        {
            faults->inject({.operation = clients::Operation::UploadPart,
                .call = m_random.between(1, 3),
                .moment = clients::Fault::Moment{static_cast<int>(m_random.below(2))},
                .failure = std::make_exception_ptr(ResourceInUseException(injected))});
        }
        const std::size_t choice = m_random.below(100);
        if (m_streams.empty() || (choice < 8 && m_streams.size() < 6))
        {
            openStream();
        }
        else if (choice < 22)
        {
            choice < 12 ? changeBehindTheProvider() : choice < 14 && !m_faulty ? copyFile() : closeStream();
        }
        else
        {
            ModelStream& stream = m_streams[m_random.below(m_streams.size())];
            choice < 48 ? read(stream) : choice < 74 ? write(stream) : seek(stream);
            if (!HasFatalFailure() && !stream.atEnd && m_random.oneIn(2)) // at the end, asking would change it
            {
                ASSERT_EQ(static_cast<std::size_t>(stream.stream->seek(0, std::ios_base::cur)), stream.position);
            }
        }
    }

    static constexpr const char* injected = "injected";

    Random m_random{GetParam().seed};
    std::size_t m_partSize = 0;
    bool m_faulty = false; // uploads fail now and then, and nothing may come of it
    std::array<ModelFile, 3> m_files{{{.key = "f0"}, {.key = "f1"}, {.key = "f2"}}};
    std::vector<ModelStream> m_streams;
    std::deque<std::string> m_steps; // the last ones
};

TEST_P(ModelTest, FilesHoldWhatAPlainStringWould)
{
    const Watchdog watchdog("the model of files, seed " + std::to_string(m_random.seed));
    for (int round = 0; round < 8; ++round)
    {
        m_partSize = m_random.oneIn(2) ? m_random.between(1, 8) : m_random.between(9, 64);
        m_faulty = round % 2 == 1;
        setSizes(m_partSize, m_random.oneIn(2) ? 0 : m_random.below(4 * m_partSize));
        for (int i = 0; i < 400 || !m_streams.empty(); ++i)
        {
            ASSERT_NO_FATAL_FAILURE(i < 400 ? step() : closeStream());
            ASSERT_FALSE(HasNonfatalFailure());
        }
        faults->clearFaults();
    }
}

INSTANTIATE_TEST_SUITE_P(Seeds, ModelTest,
    testing::Values(
        ModelRow{0}, ModelRow{1}, ModelRow{2}, ModelRow{3}, ModelRow{4}, ModelRow{5}, ModelRow{6}, ModelRow{0, true}),
    [](const auto& row) { return seedName(row.param.seed) + (row.param.local ? "Local" : ""); });

// What the model has found.

using ModelFindsTest = FileTest;

TEST_F(ModelFindsTest, AFirstPartOfOneByteCanBeRead)
{
    // The range of its only byte is the one that asks for a whole object.
    putParts("file", "0123456789", {1, 9});
    const auto stream = provider->openReadOnlyStream(iriOf("file"));
    std::string bytes(10, '?');
    EXPECT_EQ(stream->read(bytes.data(), 10), 10);
    EXPECT_EQ(bytes, "0123456789");
}

} // namespace

} // namespace storage::cloudprovider
