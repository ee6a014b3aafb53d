#include "OpenFileByteStream.hpp"
#include "StoreTest.hpp"
#include "TestBuffers.hpp"

#include <storage/cloudprovider/CloudProvider.hpp>

#include <fmt/format.h>

namespace storage::cloudprovider
{

namespace
{

struct Translation
{
    const char* name;
    std::exception_ptr thrown;
    std::string translated; // code and detail
};

/// Two failures in one: the type that is asked for first decides.
template <typename First, typename Second>
struct Both : First, Second
{
    Both()
        : First("one", "first")
        , Second("two", "second")
    {
    }
};

template <typename T>
struct Worded : T // gives the exceptions with fixed texts the constructor of the others
{
    Worded(const char* /*text*/, const char* detail)
        : T(detail)
    {
    }
};

struct FrameworkAndCloud : fsp::Exception, ResourceNotFoundException
{
    FrameworkAndCloud()
        : fsp::Exception(fsp::ErrorCode(77, "own"), storage::cloudprovider::iri("elsewhere"))
    {
    }
};

template <typename First, typename Second>
std::exception_ptr both()
{
    return std::make_exception_ptr(Both<First, Second>());
}

using NotFound = Worded<ResourceNotFoundException>;
using AlreadyExists = Worded<ResourceAlreadyExistsException>;
using NotEmpty = Worded<FolderNotEmptyException>;
using InUse = Worded<ResourceInUseException>;
using Unsupported = Worded<UnsupportedOperationException>;

const std::vector<Translation>& translations()
{
    static const std::vector<Translation> rows{
        {"notFound", std::make_exception_ptr(ResourceNotFoundException("why")), "4 (why)"},
        {"alreadyExists", std::make_exception_ptr(ResourceAlreadyExistsException("why")), "3 (why)"},
        {"credentials", std::make_exception_ptr(InvalidCredentialsException("text", "why")), "2 (why)"},
        {"location", std::make_exception_ptr(InvalidLocationException("text", "why")), "1 (why)"},
        {"permission", std::make_exception_ptr(PermissionDeniedException("text", "why")), "2 (why)"},
        {"notEmpty", std::make_exception_ptr(FolderNotEmptyException("why")), "0 (why)"},
        {"inUse", std::make_exception_ptr(ResourceInUseException("why")), "6 (why)"},
        {"unsupported", std::make_exception_ptr(UnsupportedOperationException("why")), "11 (why)"},
        {"noDetail", std::make_exception_ptr(PermissionDeniedException("text")), "2"},
        {"unknown", std::make_exception_ptr(UnknownErrorException("text", "why")), "9"},
        {"cloudBase", std::make_exception_ptr(CloudException("text", "why")), "9"},
        {"standard", std::make_exception_ptr(std::runtime_error("text")), "9"},
        {"noException", std::make_exception_ptr(42), "9"},
        {"notFoundFirst", both<NotFound, AlreadyExists>(), "4 (first)"},
        {"alreadyExistsSecond", both<InvalidCredentialsException, AlreadyExists>(), "3 (second)"},
        {"credentialsThird", both<InvalidLocationException, InvalidCredentialsException>(), "2 (second)"},
        {"locationFourth", both<PermissionDeniedException, InvalidLocationException>(), "1 (second)"},
        {"permissionFifth", both<NotEmpty, PermissionDeniedException>(), "2 (second)"},
        {"notEmptySixth", both<InUse, NotEmpty>(), "0 (second)"},
        {"inUseSeventh", both<Unsupported, InUse>(), "6 (second)"},
        {"unsupportedEighth", both<UnknownErrorException, Unsupported>(), "11 (second)"},
        {"framework", std::make_exception_ptr(fsp::Exception(fsp::ErrorCode(77, "own"), iri("elsewhere"))), ""},
        {"frameworkBeforeAll", std::make_exception_ptr(FrameworkAndCloud()), ""},
    };
    return rows;
}

class ErrorTranslationTest : public StoreTest, public ::testing::WithParamInterface<Translation>
{
protected:
    /// What must come out of a boundary: a framework exception comes out unchanged.
    static std::string expected(const std::string& format)
    {
        return GetParam().translated.empty() ? "77 (own) cloud://store/elsewhere"
                                             : fmt::format(fmt::runtime(format), GetParam().translated);
    }
};

TEST_P(ErrorTranslationTest, AtTheProvider)
{
    const auto provider = buildCloudProvider(store, FolderPolicy::MarkerObjects, false);
    fail(clients::Operation::GetObjectInfo, 0, GetParam().thrown);
    EXPECT_EQ(outcome([&] { provider->fileExists(iri("x/./a")); }), expected("{} cloud://store/x/./a"));
    EXPECT_THAT(log.take(16), testing::ElementsAre(testing::StartsWith("Exception caught: ")));

    store->put("f/a", "");
    store->setPageSize(1);
    fail(clients::Operation::ListObjects, 1, GetParam().thrown);
    EXPECT_EQ(outcome([&] { provider->listFiles(iri("f")); }), expected("{} cloud://store/f"));
}

TEST_P(ErrorTranslationTest, AtTheStream)
{
    store->put("k", "stored");
    BufferFaults faults;
    const auto openStream = [&]
    {
        const auto parts =
            std::make_shared<OpenPartManager>(context(8, 0, std::make_unique<TestBufferFactory>(faults)));
        parts->initPreserveExisting(true);
        return std::make_unique<OpenFileByteStream>(parts, fsp::ByteStreamWritePosition::AtOffset);
    };
    char byte = 'x';
    {
        const fsp::ByteStreamPtr stream = openStream();
        faults.onBuild = GetParam().thrown;
        EXPECT_EQ(outcome([&] { stream->read(&byte, 1); }), expected("ByteStreamReadFailure {}"));
        EXPECT_EQ(outcome([&] { stream->write(&byte, 1); }), expected("ByteStreamWriteFailure {}"));
    }
    faults = {};
    const fsp::ByteStreamPtr stream = openStream();
    stream->read(&byte, 1);
    faults.onClose = GetParam().thrown;
    EXPECT_EQ(outcome([&] { stream->seek(100, std::ios_base::beg); }), expected("ByteStreamSeekFailure {}"));
    faults = {};
    stream->seek(0, std::ios_base::beg);
    stream->write(&byte, 1);
    fail(clients::Operation::PutObject, 0, GetParam().thrown);
    EXPECT_EQ(outcome([&] { stream->close(); }), expected("ByteStreamCloseFailure {}"));
    EXPECT_EQ(outcome([&] { stream->close(); }), "done") << "closed all the same";
}

INSTANTIATE_TEST_SUITE_P(Types, ErrorTranslationTest, ::testing::ValuesIn(translations()), RowName());

TEST(CloudExceptionsTest, HaveFixedTextsOrTheirClients)
{
    const std::tuple<CloudException, const char*, std::optional<std::string>> rows[] = {
        {ResourceAlreadyExistsException(), "Cloud Resource already exists", std::nullopt},
        {ResourceNotFoundException("d"), "Cloud Resource not found", "d"},
        {UnsupportedOperationException(), "Unsupported Cloud operation", std::nullopt},
        {ResourceInUseException("d"), "Resource is in use", "d"},
        {FolderNotEmptyException(), "Cloud Folder was not empty", std::nullopt},
        {InvalidCredentialsException("a", "d"), "a", "d"}, {InvalidLocationException("b"), "b", std::nullopt},
        {PermissionDeniedException("c", "d"), "c", "d"}, {UnknownErrorException("e"), "e", std::nullopt}};
    for (const auto& [exception, text, detail] : rows)
    {
        EXPECT_STREQ(exception.what(), text);
        EXPECT_EQ(exception.detail(), detail) << text;
    }
}

} // namespace

} // namespace storage::cloudprovider
