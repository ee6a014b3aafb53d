#include "MemoryRemoteStore.hpp"
#include "ProviderTest.hpp"

#include <storage/clients/local/LocalClient.hpp>
#include <storage/clients/remote/RemoteClient.hpp>

#include <numeric>
#include <set>

#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>

// Scenarios on one file, each step also done on a plain string, while calls of the store fail or the disk is full.
// After each close, the object has its old or its new bytes, and a change that is missing was reported. Nothing is left
// behind. Random scenarios print their seed; MODEL_SEED=n runs the rows "random" with that seed.

// Weak, because the thread sanitizer has its own operators, which then count nothing.
[[gnu::weak]] void* operator new(std::size_t size)
{
    std::size_t& left = storage::cloudprovider::allocationsLeft;
    void* const memory = left != 0 && --left == 0 ? nullptr : std::malloc(size);
    return memory != nullptr ? memory : throw std::bad_alloc();
}

[[gnu::weak]] void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept
{
    return std::malloc(size);
}

[[gnu::weak]] void operator delete(void* memory) noexcept
{
    std::free(memory);
}

[[gnu::weak]] void operator delete(void* memory, std::size_t /*size*/) noexcept
{
    std::free(memory);
}

namespace storage::cloudprovider
{

namespace
{

using Moment = clients::Fault::Moment;
using Contents = std::optional<std::string>; // nothing: no object

class FileModelTest;

/// What the provider uses.
enum class Stack
{
    Memory,
    Local, // the durable store
    Remote // the client for distant stores, which works on threads of its own
};

struct Scenario
{
    const char* name;
    void (FileModelTest::*script)();
    std::vector<std::size_t> parts{};  // of the file before, in units; empty: it does not exist
    std::vector<std::size_t> source{}; // of the file that is moved or copied, likewise
    Stack stack = Stack::Memory;
    unsigned seed = 1; // of a random script; 0: see Random
};

/// A durable store in a folder that is removed with it. It keeps parts of more than 12 bytes in files.
CloudClientSharedPtr makeLocalStore()
{
    const auto folder = std::make_shared<PrivateFolder>();
    return {new clients::LocalClient(folder->path.string(), {.maxInlineSize = 12}),
        [folder](const CloudClient* client) { delete client; }};
}

/// The client for distant stores, with memory for two parts in each direction.
CloudClientSharedPtr makeRemoteStore()
{
    const auto bucket = std::make_shared<clients::test::MemoryBucket>();
    bucket->abilities.minPartSize = 8;
    bucket->abilities.maxParts = 20;
    return std::make_shared<clients::RemoteClient>(
        bucket->connect(), clients::RemoteSettings{.transfers = 3, .memory = 80, .partSize = 16});
}

CloudClientSharedPtr makeStore(Stack stack)
{
    return stack == Stack::Local ? makeLocalStore() : stack == Stack::Remote ? makeRemoteStore() : nullptr;
}

class FileModelTest : public ProviderTest, public testing::WithParamInterface<Scenario>
{
public:
    FileModelTest()
        : ProviderTest(makeStore(GetParam().stack))
    {
    }

    void patchGapAppend()
    {
        Stream stream = open(editing);
        Stream tail = open(appending);
        write(stream, 10 * m_unit, numberedBytes(20 * m_unit, 100)); // in two parts
        write(stream, m_content.size() + 40 * m_unit, numberedBytes(3 * m_unit, 200));
        write(tail, 0, numberedBytes(20 * m_unit, 50));
        read(stream, 0, m_content.size() + 1);
        close(tail);
        close(stream);
    }

    void patch()
    {
        Stream stream = open(editing);
        write(stream, 3 * m_unit, numberedBytes(2 * m_unit, 100));
        close(stream);
    }

    void move() { transfer(&fsp::IProvider::moveFile); }
    void copy() { transfer(&fsp::IProvider::copyFile); }
    void copyAtomically() { transfer(&fsp::IProvider::copyFileAtomic); }
    void empty() { resize(0); }
    void extend() { resize(m_stored->size() + 25 * m_unit); }

    void random()
    {
        Random random(m_seed);
        const std::size_t partSize = random.between(1, 20);
        setSizes(partSize, random.oneIn(2) ? 0 : random.below(4 * partSize));
        const auto pick = [&](std::size_t odds) { return random.oneIn(odds) ? 0U : 1U; };
        std::vector<Stream> streams;
        for (int i = 0; i < 40 || !streams.empty(); ++i)
        {
            const std::size_t choice = i < 40 ? random.below(12) : 1;
            if (streams.empty() || (choice == 0 && streams.size() < 4))
            {
                if (streams.empty() && random.oneIn(2)) // the store changes behind the provider's back
                {
                    std::vector<std::size_t> parts{random.below(2 * partSize), random.between(1, 2 * partSize)};
                    parts.resize(random.below(3), 1 + partSize / 2);
                    std::reverse(parts.begin(), parts.end()); // only the last part may be empty
                    m_stored = prepare("file", parts, random.below(250));
                }
                const fsp::ByteStreamOpenOptions options{fsp::ByteStreamReadAccess{pick(4)},
                    fsp::ByteStreamCreate{pick(2)}, fsp::ByteStreamTruncate{pick(4)},
                    fsp::ByteStreamWritePosition{pick(3)}};
                outcome([&, isReadOnly = random.oneIn(4)] { streams.push_back(open(options, isReadOnly)); });
                continue;
            }
            std::swap(streams[random.below(streams.size())], streams.back());
            const std::size_t offset = random.below(m_content.size() + 3) + (random.oneIn(8) ? 3 * partSize : 0);
            const std::size_t size = random.below(3 * partSize + 3);
            if (choice < 2)
            {
                close(streams.back(), random.oneIn(3), random.oneIn(4));
                streams.pop_back();
            }
            else
            {
                choice < 7 ? read(streams.back(), offset, size) : write(streams.back(), offset, random.bytes(size));
            }
        }
    }

protected:
    struct Stream
    {
        std::shared_ptr<fsp::ByteStream> stream;
        bool reads = true;
        bool writes = true;
        bool appends = false;
    };

    /// Run the script on fresh objects, while the planned calls fail, and check what it leaves.
    void runOnce(const std::vector<clients::Fault>& planned)
    {
        setSizes(16 * m_unit, 0);
        m_stored = prepare("file", GetParam().parts, 0);
        const Contents source = prepare("source", GetParam().source, 77);
        m_hasFaults = !planned.empty();
        m_faultedRuns += planned.empty() ? 0 : 1;
        m_expected.reset();
        m_streams = 0;
        m_failures.clear();
        m_calls.clear();
        faults->takeCalls();
        std::mutex mutex;
        const auto hook = [&](Operation operation, const std::string&)
        {
            const std::lock_guard lock(mutex);
            m_calls.push_back(operation);
        };
        faults->setHook(hook);
        std::for_each(planned.begin(), planned.end(), [&](const clients::Fault& fault) { faults->inject(fault); });
        m_provider = buildCloudProvider(faults, FolderPolicy::MarkerObjects, true);
        outcome([&] { (this->*GetParam().script)(); });
        m_provider.reset();
        EXPECT_EQ(faults.use_count(), 2) << "an object keeps the client";
        faults->setHook({});
        faults->clearFaults();
        if (m_expected)
        {
            checkReplacement(source);
        }
        EXPECT_THAT(m_failures, testing::Each(testing::AnyOf("Unknown", "std"))); // std::bad_alloc
        EXPECT_TRUE(is_empty(temp.path)) << "temporary files are left";
        // An upload stays if its id was lost or if it could not be aborted.
        EXPECT_TRUE(faults->hasFailed(Operation::CreateMultipartUpload) ||
                    faults->hasFailed(Operation::AbortMultipartUpload) || openUploads().empty());
        faults->endUploads();
        for (const clients::PendingUpload& upload : openUploads())
        {
            faults->inner().abortMultipartUpload(upload.key, upload.uploadId);
        }
    }

    void TearDown() override { RecordProperty("faultedRuns", m_faultedRuns); } // for bench/campaigns/sweep.py

    std::size_t m_unit = 1; // bytes; a part of a scripted scenario has 16 units
    unsigned m_seed = Random(GetParam().seed).seed;
    std::vector<Operation> m_calls;      // of a run
    std::vector<std::string> m_failures; // why steps of it failed
    int m_faultedRuns = 0;
    std::size_t m_allocationsLeft = 0; // of a run, see allocationsLeft

private:
    Contents prepare(const std::string& key, std::vector<std::size_t> sizes, std::size_t firstByte)
    {
        faults->inner().deleteObject(key);
        if (!sizes.empty())
        {
            std::for_each(sizes.begin(), sizes.end(), [&](std::size_t& size) { size *= m_unit; });
            const std::string bytes =
                numberedBytes(std::accumulate(sizes.begin(), sizes.end(), std::size_t{0}), firstByte);
            // A distant store cuts objects by a rule of its own.
            GetParam().stack == Stack::Remote ? clients::conformance::put(faults->inner(), key, bytes)
                                              : putParts(key, bytes, sizes);
        }
        return stored(key);
    }

    /// Run a step, which may be the one that gets no memory. @return whether it succeeded
    bool attempt(const std::function<void()>& step, const std::string& expected = "done")
    {
        allocationsLeft = m_allocationsLeft;
        const std::string reason = reasonOf(step);
        m_allocationsLeft = std::exchange(allocationsLeft, 0);
        if (reason != expected)
        {
            m_failures.push_back(reason);
        }
        return reason == "done";
    }

    /// @throws std::runtime_error if the file cannot be opened
    Stream open(const fsp::ByteStreamOpenOptions& options, bool isReadOnly = false)
    {
        const bool mustExist = isReadOnly || options.create == fsp::ByteStreamCreate::MustExist;
        const bool isFound = !mustExist || m_streams != 0 || m_stored;
        Stream opened{nullptr, isReadOnly || options.readAccess != fsp::ByteStreamReadAccess::None, !isReadOnly,
            !isReadOnly && options.writePosition == fsp::ByteStreamWritePosition::Append};
        const auto open = [&]
        {
            opened.stream = isReadOnly ? m_provider->openReadOnlyStream(iriOf("file"))
                                       : m_provider->openStream(iriOf("file"), options);
        };
        if (!attempt(open, isFound ? "done" : "NotFound"))
        {
            throw std::runtime_error("not opened");
        }
        if (m_streams++ == 0) // a file that is open is never truncated
        {
            m_changed = !m_stored || !(isReadOnly || options.truncate == fsp::ByteStreamTruncate::Keep);
            m_content = m_changed ? "" : *m_stored;
            m_tag = faults->inner().getObjectInfo("file").tag;
            m_writers = 0;
        }
        m_writers += opened.writes ? 1 : 0;
        return opened;
    }

    /// Write to the file and to `m_content`, which gets only what the stream has written if the write fails.
    void write(const Stream& stream, std::size_t offset, const std::string& bytes)
    {
        const std::size_t start = stream.appends ? m_content.size() : offset;
        std::size_t first = ~std::size_t{0}; // stays if the seek fails
        const auto writeBytes = [&]
        {
            first =
                static_cast<std::size_t>(stream.stream->seek(static_cast<std::streamoff>(start), std::ios_base::beg));
            storage::cloudprovider::write(*stream.stream, bytes);
        };
        const bool isWritten = attempt(writeBytes, stream.writes ? "done" : "PermissionDenied");
        const auto position = static_cast<std::size_t>(stream.stream->seek(0, std::ios_base::cur));
        const std::size_t written = first == start ? position - start : 0;
        // The stream is asked only after a failure, because it leaves the part, which sends it.
        const auto size = isWritten ? (written != 0 ? start + written : 0)
                                    : static_cast<std::size_t>(stream.stream->seek(0, std::ios_base::end));
        m_changed = m_changed || written != 0 || size > m_content.size();
        m_content.resize(std::max(m_content.size(), size), '\0');
        m_content.replace(std::min(start, m_content.size()), written, bytes, 0, written);
        EXPECT_EQ(stored("file"), m_stored) << "visible before the last close";
    }

    void read(const Stream& stream, std::size_t offset, std::size_t size)
    {
        std::string bytes = m_content.substr(std::min(offset, m_content.size()), size);
        const std::string expected = bytes;
        attempt([&] { bytes = readAt(*stream.stream, offset, size); }, stream.reads ? "done" : "PermissionDenied");
        EXPECT_EQ(bytes, expected);
    }

    void close(Stream& stream, bool destroys = false, bool abandons = false)
    {
        if (abandons)
        {
            const bool isDropped = stream.writes && m_streams == 1 && m_writers == 1;
            stream.stream->abandon();
            m_changed = m_changed && !isDropped;
            EXPECT_EQ(reasonOf([&] { m_provider->openReadOnlyStream(iriOf("file")); }), isDropped ? "InUse" : "done");
        }
        const bool done = attempt([&] { destroys ? stream.stream.reset() : stream.stream->close(); });
        if (--m_streams == 0)
        {
            const Contents expected = m_changed ? m_content : m_stored;
            const Contents now = stored("file");
            EXPECT_THAT(now, testing::AnyOf(expected, m_stored)) << "neither the old object nor the new one";
            // A destructor reports no failures, and neither does a flush that cannot open its upload.
            const bool isReported =
                !done || (destroys && m_hasFaults) || faults->hasFailed(Operation::CreateMultipartUpload);
            EXPECT_TRUE(isReported || now == expected) << "the failure was not reported";
            const std::string tag = faults->inner().getObjectInfo("file").tag;
            EXPECT_TRUE(m_changed || tag == m_tag) << "written although nothing changed";
            m_stored = now;
        }
    }

    void transfer(void (fsp::IProvider::*operation)(
        const fsp::StorageIRI&, const fsp::StorageIRI&, const fsp::ReplacementPolicy&) const)
    {
        m_expected = stored("source");
        attempt([&] { ((*m_provider).*operation)(iriOf("source"), iriOf("file"), fsp::ReplacementPolicy::Replace); });
    }

    void resize(std::size_t size)
    {
        m_expected = m_stored;
        m_expected->resize(size, '\0');
        attempt([&] { m_provider->truncateToSize(iriOf("file"), size); });
    }

    void checkReplacement(const Contents& source)
    {
        const Contents file = stored("file");
        const bool moves = GetParam().script == &FileModelTest::move;
        const bool isMoved = moves && !stored("source");
        EXPECT_THAT(file, testing::AnyOf(m_stored, m_expected)) << "neither the old contents nor the new ones";
        EXPECT_TRUE(isMoved ? file == source : stored("source") == source) << "the source is lost";
        EXPECT_TRUE(!m_failures.empty() || (file == m_expected && isMoved == moves)) << "the failure was not reported";
    }

    std::shared_ptr<fsp::IProvider> m_provider;
    bool m_hasFaults = false;
    std::size_t m_streams = 0;
    std::size_t m_writers = 0; // streams that may write, opened since there was none
    bool m_changed = false;
    std::string m_content; // as the streams see it
    Contents m_stored;     // what the store holds
    Contents m_expected;   // what a script that replaces the file wants to be stored
    std::string m_tag;     // of the object when the first stream was opened
};

TEST_P(FileModelTest, SurvivesTheFailureOfEveryCall)
{
    for (const Moment moment : {Moment::BeforeEffect, Moment::AfterEffect})
    {
        for (std::size_t n = 1; n == 1 || n <= m_calls.size() + 1; ++n)
        {
            runOnce({{.call = n, .moment = moment}});
            ASSERT_FALSE(HasFailure()) << "call " << n << " of " << testing::PrintToString(m_calls);
        }
        EXPECT_THAT(m_failures, IsEmpty()) << "failed although no call did";
    }
}

TEST_P(FileModelTest, SurvivesAnOperationThatFailsForAWhile)
{
    runOnce({});
    const std::set<Operation> operations(m_calls.begin(), m_calls.end());
    for (const Operation failing : operations)
    {
        std::vector<clients::Fault> planned;
        for (std::size_t n = 1; n <= 20; ++n)
        {
            planned.push_back({.operation = failing, .call = n});
            runOnce(planned);
            ASSERT_FALSE(HasFailure()) << "the first " << n << " calls of " << name(failing);
        }
    }
}

using LittleMemoryTest = FileModelTest; // not over clients that allocate on threads of their own

TEST_P(LittleMemoryTest, SurvivesTheFailureOfEveryAllocation)
{
    std::size_t n = 1;
    for (; m_allocationsLeft == 0; ++n)
    {
        m_allocationsLeft = n;
        runOnce({});
        ASSERT_FALSE(HasFailure()) << "allocation " << n;
    }
    if (n == 2)
    {
        GTEST_SKIP() << "this program cannot replace operator new";
    }
}

using RandomFileTest = FileModelTest;

TEST_P(RandomFileTest, BehavesLikeAString)
{
    Random random(m_seed);
    for (int i = 0; i < 60; ++i, ++m_seed)
    {
        SCOPED_TRACE("seed " + std::to_string(m_seed));
        runOnce({});
        EXPECT_THAT(m_failures, IsEmpty());
        for (std::size_t fault = 0; fault < 3 && !m_calls.empty(); ++fault)
        {
            const Operation failing = m_calls[random.below(m_calls.size())];
            runOnce({{.operation = failing, .call = random.below(5)},
                {.call = random.between(1, m_calls.size()), .moment = Moment{static_cast<int>(random.below(2))}}});
            ASSERT_FALSE(HasFailure()) << testing::PrintToString(m_calls);
        }
    }
}

using FullDiskTest = FileModelTest; // not over the local store, which a child process must not inherit

TEST_P(FullDiskTest, LeavesTheOldObjectOrTheNewOne)
{
    constexpr int skipped = 77;
    const pid_t child = fork();
    if (child == 0) // which alone sees the small disks
    {
        alarm(180);
        m_unit = 1024;
        const bool mayMount = unshare(geteuid() == 0 ? CLONE_NEWNS : CLONE_NEWUSER | CLONE_NEWNS) == 0 &&
                              mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
        unsigned pages = 0;
        do
        {
            const std::string size = "size=" + std::to_string(4096 * ++pages);
            EXPECT_TRUE(!mayMount || mount("tmpfs", temp.path.c_str(), "tmpfs", 0, size.c_str()) == 0);
            runOnce({});
            EXPECT_TRUE(!mayMount || umount(temp.path.c_str()) == 0);
        } while (!m_failures.empty() && !HasFailure());
        EXPECT_TRUE(!mayMount || pages > 1) << "one page is enough for everything";
        _exit(HasFailure() ? 1 : mayMount ? 0 : skipped);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    if (WIFEXITED(status) && WEXITSTATUS(status) == skipped)
    {
        GTEST_SKIP() << "no right to mount a small disk";
    }
    EXPECT_EQ(status, 0) << "failed, or killed by a signal";
}

using Model = FileModelTest;
const auto rowName = [](const auto& row) { return row.param.name; };
const auto scenarios =
    testing::Values(Scenario{"newFile", &Model::patchGapAppend}, Scenario{"newSmallFile", &Model::patch},
        Scenario{"fileOfManyParts", &Model::patchGapAppend, {16, 10, 12}}, Scenario{"smallFile", &Model::patch, {7}},
        Scenario{"partOfTwo", &Model::patch, {16, 7}}, Scenario{"move", &Model::move, {7}, {16, 16, 13}},
        Scenario{"moveOfTwoParts", &Model::move, {7}, {16, 7}}, Scenario{"copy", &Model::copy, {20}, {16, 16, 13}},
        Scenario{"copyAtomically", &Model::copyAtomically, {7}, {16, 7}}, Scenario{"extend", &Model::extend, {7}},
        Scenario{"extendManyParts", &Model::extend, {16, 16, 3}});
INSTANTIATE_TEST_SUITE_P(Scenarios, FileModelTest, scenarios, rowName);
INSTANTIATE_TEST_SUITE_P(Scenarios, FullDiskTest, scenarios, rowName);
INSTANTIATE_TEST_SUITE_P(Scenarios, LittleMemoryTest, scenarios, rowName);
INSTANTIATE_TEST_SUITE_P(Stacks, FileModelTest,
    testing::Values(Scenario{"fileOfManyPartsLocal", &Model::patchGapAppend, {16, 10, 12}, {}, Stack::Local},
        Scenario{"empty", &Model::empty, {16, 7}}, Scenario{"moveLocal", &Model::move, {7}, {16, 7}, Stack::Local},
        Scenario{"copyAtomicallyLocal", &Model::copyAtomically, {20}, {16, 7}, Stack::Local},
        Scenario{"extendRemote", &Model::extend, {16, 16, 3}, {}, Stack::Remote},
        Scenario{"newFileRemote", &Model::patchGapAppend, {}, {}, Stack::Remote},
        Scenario{"fileOfManyPartsRemote", &Model::patchGapAppend, {16, 10, 12}, {}, Stack::Remote},
        Scenario{"moveRemote", &Model::move, {7}, {16, 16, 16, 13}, Stack::Remote}),
    rowName);
INSTANTIATE_TEST_SUITE_P(Seeds, RandomFileTest,
    testing::Values(Scenario{"fixed", &Model::random}, Scenario{"random", &Model::random, {}, {}, Stack::Memory, 0},
        Scenario{"randomLocal", &Model::random, {}, {}, Stack::Local, 0},
        Scenario{"randomRemote", &Model::random, {}, {}, Stack::Remote, 0}),
    rowName);

} // namespace

} // namespace storage::cloudprovider
