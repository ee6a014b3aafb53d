#include "SmallProvider.hpp"

#include <foundation/storage/provider/GenericByteStreamDevice.hpp>

#include <gtest/gtest.h>

#include <boost/iostreams/copy.hpp>

#include <sstream>
#include <string>

namespace
{

using fsp::ErrorCode;

constexpr fsp::ByteStreamOpenOptions keepAll{fsp::ByteStreamReadAccess::Allowed, fsp::ByteStreamCreate::MustExist,
    fsp::ByteStreamTruncate::Keep, fsp::ByteStreamWritePosition::AtOffset};

std::shared_ptr<fsp::ByteStream> streamOn(std::string& file, bool failing = false)
{
    return std::make_shared<SmallStream>(&file, keepAll, failing);
}

TEST(GenericByteStreamDeviceTest, CopiesShareOneStreamThatSeeksAndCloses)
{
    std::string file = "abcdef";
    fsp::GenericByteStreamDevice device(streamOn(file));
    fsp::GenericByteStreamDevice other = device;
    char two[2] = {};
    EXPECT_EQ(device.seek(2, std::ios_base::beg), 2);
    EXPECT_EQ(other.read(two, 2), 2);
    EXPECT_EQ(std::string(two, 2), "cd");
    EXPECT_EQ(device.write("XY", 2), 2);
    EXPECT_EQ(other.read(two, 2), -1);
    EXPECT_EQ(file, "abcdef") << "not closed yet";
    other.close();
    EXPECT_EQ(file, "abcdXY");
}

TEST(GenericByteStreamDeviceTest, ServesBoostCopiesAndLeavesNoByteOut)
{
    const std::string content(10'000, 'c');
    std::string source = content;
    std::string destination;
    const auto copy = [&](bool failing)
    {
        boost::iostreams::copy(fsp::GenericByteStreamDevice(streamOn(source)),
            fsp::GenericByteStreamDevice(streamOn(destination, failing)), 4096);
    };
    copy(false);
    EXPECT_EQ(destination, content) << "written in short pieces, and closed";
    EXPECT_THROW(copy(true), fsp::ByteStreamWriteFailure) << "refused bytes are a failure";
}

template <class Failure>
void expectFailure(const std::string& name)
{
    const Failure failure(ErrorCode(ErrorCode::InUse, "a\ncause"));
    const std::ios_base::failure& standard = failure;
    EXPECT_EQ(standard.what(), name + ": InUse: a cause");
    EXPECT_STREQ(Failure(ErrorCode::NotFound).what(), (name + ": NotFound").c_str());
    EXPECT_EQ(standard.code(), std::error_code(1, std::iostream_category()));
    EXPECT_EQ(failure.reason().detail(), "a\ncause");
}

TEST(ByteStreamFailureTest, AreStandardStreamFailuresWithAReason)
{
    expectFailure<fsp::ByteStreamReadFailure>("ByteStreamReadFailure");
    expectFailure<fsp::ByteStreamWriteFailure>("ByteStreamWriteFailure");
    expectFailure<fsp::ByteStreamSeekFailure>("ByteStreamSeekFailure");
    expectFailure<fsp::ByteStreamCloseFailure>("ByteStreamCloseFailure");
}

template <class Value>
std::string printed(const Value& value)
{
    std::ostringstream stream;
    stream << value;
    return stream.str();
}

TEST(PrintingTest, NamesWhatPeopleRead)
{
    EXPECT_EQ(printed(keepAll), "{readAccess=Allowed, create=MustExist, truncate=Keep, writePosition=AtOffset}");
    EXPECT_EQ(printed(fsp::ByteStreamOpenOptions{fsp::ByteStreamReadAccess(7)}),
        "{readAccess=7, create=IfMissing, truncate=Discard, writePosition=Append}");

    const std::pair<ErrorCode, std::string> codes[] = {{ErrorCode(0), "FolderNotEmpty"},
        {ErrorCode(1), "InvalidLocation"}, {ErrorCode(2), "PermissionDenied"}, {ErrorCode(3), "AlreadyExists"},
        {ErrorCode(4), "NotFound"}, {ErrorCode(5), "ErrorCode 5"}, {ErrorCode(6), "InUse"},
        {ErrorCode(9, "text"), "Unknown: text"}, {ErrorCode(11), "Unsupported"}};
    for (const auto& [code, text] : codes)
    {
        EXPECT_EQ(printed(code), text);
    }

    const fsp::StorageIRI iri(u"x://h/a b");
    const fsp::Exception exception(ErrorCode(ErrorCode::NotFound, "no\nbucket"), iri);
    EXPECT_STREQ(exception.what(), "NotFound: x://h/a%20b: no bucket");
}

} // namespace
