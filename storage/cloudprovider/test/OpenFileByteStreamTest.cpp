#include "OpenFileByteStream.hpp"
#include "StoreTest.hpp"
#include "TestBuffers.hpp"

#include <limits>

namespace storage::cloudprovider
{

namespace
{

using clients::Operation;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr auto append = fsp::ByteStreamWritePosition::Append;
constexpr auto atOffset = fsp::ByteStreamWritePosition::AtOffset;

/// The file "k", 12 bytes in parts of 4 unless a test says otherwise.
class OpenFileByteStreamTest : public StoreTest
{
protected:
    void openFile(const std::vector<std::string>& contents, std::uint64_t partSize = 4)
    {
        parts = std::make_shared<OpenPartManager>(context(partSize));
        if (!contents.empty())
        {
            putParts("k", contents);
            parts->initPreserveExisting(true);
        }
        stream = openStream(atOffset);
        store->takeCalls();
    }

    fsp::ByteStreamPtr openStream(fsp::ByteStreamWritePosition position) const
    {
        return std::make_unique<OpenFileByteStream>(parts, position);
    }

    std::string read(std::streamsize count) const
    {
        std::string bytes(static_cast<std::size_t>(count), '?');
        const std::streamsize result = stream->read(bytes.data(), count);
        return result < 0 ? "end" : bytes.substr(0, static_cast<std::size_t>(result));
    }

    std::shared_ptr<OpenPartManager> parts;
    fsp::ByteStreamPtr stream;
};

TEST_F(OpenFileByteStreamTest, ReadsAcrossPartsAndFindsTheEnd)
{
    openFile({"0123", "4567", "89ab"});
    EXPECT_EQ(read(0), "");
    EXPECT_THAT(store->takeCalls(), IsEmpty()) << "nothing is opened for nothing";
    EXPECT_EQ(read(6), "012345");
    EXPECT_THAT(store->takeCalls(), ElementsAre("getObjectRange 'k' 0 3", "getObjectRange 'k' 4 7"));
    EXPECT_EQ(read(100), "6789ab") << "short at the end";
    EXPECT_EQ(read(1), "end");
    EXPECT_EQ(read(0), "end");
    EXPECT_EQ(stream->write("x", 1), -1) << "the end is known until a seek";
    EXPECT_EQ(stream->seek(-2, std::ios_base::end), 10);
    EXPECT_EQ(read(1), "a");
    EXPECT_EQ(stream->write("B", 1), 1);
    EXPECT_EQ(read(1), "end");
    EXPECT_EQ(stream->seek(0, std::ios_base::cur), 12);
    EXPECT_EQ(stream->write("c", 1), 1) << "a seek forgets the end, wherever it goes";
    stream->close();
    EXPECT_EQ(store->get("k"), "0123456789aBc");
}

TEST_F(OpenFileByteStreamTest, WritesAcrossPartsAndOverGaps)
{
    openFile({});
    EXPECT_EQ(stream->write("", 0), 0);
    EXPECT_EQ(stream->write("012345", 6), 6);
    EXPECT_EQ(stream->seek(9, std::ios_base::beg), 9);
    EXPECT_EQ(stream->write("9", 1), 1);
    EXPECT_EQ(stream->seek(1, std::ios_base::beg), 1);
    EXPECT_EQ(stream->write("XYZUV", 5), 5);
    EXPECT_EQ(parts->getFileSize(), 10);
    EXPECT_EQ(read(100), std::string("\0\0\0"
                                     "9",
                             4));
    stream->close();
    EXPECT_EQ(store->get("k"), std::string("0XYZUV\0\0\0"
                                           "9",
                                   10));
}

TEST_F(OpenFileByteStreamTest, AppendsAtTheEndWhereverItStands)
{
    openFile({"0123", "45"});
    const fsp::ByteStreamPtr appender = openStream(append);
    EXPECT_EQ(appender->seek(0, std::ios_base::beg), 0);
    EXPECT_EQ(appender->write("6", 1), 1);
    EXPECT_EQ(appender->seek(0, std::ios_base::cur), 7) << "the end of the part";
    stream->seek(0, std::ios_base::end);
    EXPECT_EQ(stream->write("7", 1), 1);
    EXPECT_EQ(appender->write("89", 2), 2) << "behind what the other stream wrote";
    EXPECT_EQ(appender->seek(0, std::ios_base::cur), 10);
    appender->seek(1, std::ios_base::beg);
    EXPECT_EQ(appender->write("abcdef", 6), 6);
    appender->close();
    stream->close();
    EXPECT_EQ(store->get("k"), "0123456789abcdef");
}

TEST_F(OpenFileByteStreamTest, AppendsBehindWhatOthersWroteIntoThePartInUse)
{
    openFile({}, 100);
    const fsp::ByteStreamPtr appender = openStream(append);
    appender->write("01", 2);
    stream->seek(0, std::ios_base::end);
    stream->write("23", 2);
    EXPECT_EQ(appender->write("45", 2), 2);
    EXPECT_EQ(appender->seek(0, std::ios_base::cur), 6);
    EXPECT_EQ(stream->seek(0, std::ios_base::cur), 4);
    EXPECT_EQ(read(9), "45");
}

struct SeekRow
{
    const char* name;
    fsp::stream_offset start;
    fsp::stream_offset offset;
    std::ios_base::seekdir way;
    std::streamoff position;
};

class SeekTest : public OpenFileByteStreamTest, public ::testing::WithParamInterface<SeekRow>
{
};

TEST_P(SeekTest, LandsWhereAsked)
{
    openFile({"0123", "4567", "89ab"});
    stream->seek(GetParam().start, std::ios_base::beg);
    const std::streampos position = stream->seek(GetParam().offset, GetParam().way);
    EXPECT_EQ(std::streamoff(position), GetParam().position);
    EXPECT_EQ(std::mbsinit(&static_cast<const std::mbstate_t&>(position.state())), 1);
    EXPECT_EQ(read(1), GetParam().position < 12 ? std::string(1, "0123456789ab"[GetParam().position]) : "end");
}

INSTANTIATE_TEST_SUITE_P(Offsets, SeekTest,
    ::testing::Values(SeekRow{"backBeforeTheStart", 5, -10, std::ios_base::cur, 0},
        SeekRow{"backToTheStart", 10, -10, std::ios_base::cur, 0}, SeekRow{"back", 11, -10, std::ios_base::cur, 1},
        SeekRow{"end", 3, 0, std::ios_base::end, 12}, SeekRow{"beyond", 3, 1000, std::ios_base::end, 1012},
        SeekRow{"backFromEnd", 0, -12, std::ios_base::end, 0}, SeekRow{"backFromEnd1", 0, -11, std::ios_base::end, 1},
        SeekRow{"begin", 7, 2, std::ios_base::beg, 2}, SeekRow{"beforeBegin", 7, -1, std::ios_base::beg, 0},
        SeekRow{"lowestButOne", 7, -std::numeric_limits<fsp::stream_offset>::max(), std::ios_base::cur, 0},
        SeekRow{"forward", 3, 4, std::ios_base::cur, 7}, SeekRow{"stay", 3, 0, std::ios_base::cur, 3}),
    RowName());

TEST_F(OpenFileByteStreamTest, SeeksKeepThePartTheyStayIn)
{
    openFile({"0123", "4567"});
    EXPECT_EQ(read(1), "0");
    stream->seek(3, std::ios_base::beg);
    getLogger().setEnabledSeverities(2);
    const auto partsClosed = [&]
    {
        return std::ranges::count_if(
            log.take(2), [](const std::string& record) { return record.find("::closePart(") != std::string::npos; });
    };
    EXPECT_EQ(read(1), "3");
    stream->seek(0, std::ios_base::beg);
    EXPECT_EQ(partsClosed(), 0);
    stream->seek(4, std::ios_base::beg);
    EXPECT_EQ(partsClosed(), 1);
    EXPECT_EQ(outcome([&] { stream->seek(std::numeric_limits<fsp::stream_offset>::min(), std::ios_base::cur); }),
        "ByteStreamSeekFailure 9");
}

TEST_F(OpenFileByteStreamTest, CloseRunsToItsEndAndReportsTheFirstFailure)
{
    BufferFaults faults;
    parts = std::make_shared<OpenPartManager>(context(4, 0, std::make_unique<TestBufferFactory>(faults)));
    stream = openStream(atOffset);
    stream->write("x", 1);
    faults.onClose = std::make_exception_ptr(PermissionDeniedException("first", "first"));
    fail(Operation::PutObject, 0, std::make_exception_ptr(ResourceInUseException("second")));
    EXPECT_EQ(outcome([&] { stream->close(); }), "ByteStreamCloseFailure 2 (first)");
    EXPECT_EQ(store->callSnapshot()[Operation::PutObject].calls, 1) << "the flush was tried all the same";
    EXPECT_EQ(parts.use_count(), 1);
    EXPECT_EQ(outcome([&] { stream->close(); }), "done");
    for (const auto& [act, refusal] :
        std::vector<std::pair<std::function<void()>, std::string>>{{[&] { read(1); }, "ByteStreamReadFailure 9"},
            {[&] { stream->write("x", 1); }, "ByteStreamWriteFailure 9"},
            {[&] { stream->seek(0, std::ios_base::end); }, "ByteStreamSeekFailure 9"}})
    {
        EXPECT_EQ(outcome(act), refusal + " (the stream is closed)");
    }
    parts.reset();
}

TEST_F(OpenFileByteStreamTest, DestructionClosesAndSwallows)
{
    openFile({});
    stream->write("x", 1);
    fail(Operation::PutObject, 1);
    log.take(0);
    stream.reset();
    EXPECT_THAT(log.take(16), testing::Contains(testing::ContainsRegex("^Exception caught: (.|\n)*UnknownError")));
    EXPECT_FALSE(store->get("k"));
    stream = openStream(atOffset);
    stream.reset();
    EXPECT_EQ(store->get("k"), "x") << "the part is still new, and the next last stream writes it";
}

TEST_F(OpenFileByteStreamTest, WritesReportEarlierUploadsThatStillFail)
{
    openFile({});
    fail(Operation::UploadPart, 0, std::make_exception_ptr(PermissionDeniedException("no", "why")));
    EXPECT_EQ(stream->write("012345678", 9), 9) << "the upload of part 1 fails, which is only logged";
    EXPECT_THAT(log.take(16), testing::SizeIs(1));
    EXPECT_EQ(outcome([&] { stream->write("9", 1); }), "ByteStreamWriteFailure 2 (why)");
    EXPECT_EQ(stream->seek(0, std::ios_base::cur), 9);
    store->faults().clearFaults();
    EXPECT_EQ(stream->write("9", 1), 1);
    stream->close();
    EXPECT_EQ(store->get("k"), "0123456789");
}

TEST_F(OpenFileByteStreamTest, LogsItsCallsAndTheirResults)
{
    openFile({"0123"});
    getLogger().setEnabledSeverities(2);
    const auto hasRecords = [&](const std::string& signature, const std::string& arguments, const std::string& result)
    {
        const std::string place = " .storage/cloudprovider/src/OpenFileByteStream[^/]*[0-9]+[^/ ]*";
        const Lines records = log.take(2);
        EXPECT_THAT(records.front(), testing::StartsWith(signature));
        EXPECT_THAT(records.front(), testing::ContainsRegex(place + arguments + "$"));
        EXPECT_THAT(records.back(), testing::EndsWith(result));
    };
    read(3);
    hasRecords("virtual std::streamsize storage::cloudprovider::OpenFileByteStream::doRead(char *, std::streamsize)",
        " n=3", "bytesRead=3");
    stream->write("xyz", 3);
    hasRecords("virtual std::streamsize storage::cloudprovider::OpenFileByteStream::doWrite(const char *, "
               "std::streamsize)",
        " n=3", "bytesWritten=3");
    stream->seek(-1, std::ios_base::cur);
    hasRecords("virtual std::streampos storage::cloudprovider::OpenFileByteStream::doSeek(const stream_offset, const "
               "std::ios_base::seekdir)",
        " off=-1 way=1", "m_fileOffset=5");
    stream->close();
    hasRecords("virtual void storage::cloudprovider::OpenFileByteStream::doClose()", "", "");
}

} // namespace

} // namespace storage::cloudprovider
