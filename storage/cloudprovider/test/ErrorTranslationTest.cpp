#include "StoreTest.hpp"

namespace storage::cloudprovider
{

namespace
{

using ErrorTranslationTest = StoreTest;

/// Two failures in one: the type that is asked for first decides.
struct CredentialsAndLocation : InvalidLocationException, InvalidCredentialsException
{
    CredentialsAndLocation()
        : InvalidLocationException("text", "first")
        , InvalidCredentialsException("text", "second")
    {
    }
};

TEST_F(ErrorTranslationTest, HoldsAtTheProviderAndAtTheStream)
{
    store->put("k", "stored");
    const std::pair<std::exception_ptr, const char*> rows[] = {
        {std::make_exception_ptr(ResourceNotFoundException("a")), "NotFound: a"},
        {std::make_exception_ptr(ResourceAlreadyExistsException("a")), "AlreadyExists: a"},
        {std::make_exception_ptr(CredentialsAndLocation()), "PermissionDenied: second"},
        {std::make_exception_ptr(InvalidLocationException("text", "a")), "InvalidLocation: a"},
        {std::make_exception_ptr(PermissionDeniedException("text")), "PermissionDenied"},
        {std::make_exception_ptr(FolderNotEmptyException("a")), "FolderNotEmpty: a"},
        {std::make_exception_ptr(ResourceInUseException("a")), "InUse: a"},
        {std::make_exception_ptr(UnsupportedOperationException("a")), "Unsupported: a"},
        {std::make_exception_ptr(UnknownErrorException("text", "a")), "Unknown"},
        {std::make_exception_ptr(42), "Unknown"}};
    for (const auto& [thrown, expected] : rows)
    {
        const auto expect = [&, expected = std::string(expected), thrown = thrown](
                                Operation failing, const char* failure, const auto& action)
        {
            fail(failing, 1, thrown);
            takeLog(0);
            EXPECT_EQ(outcome(action), failure + expected);
            EXPECT_THAT(takeLog(16), testing::Contains(testing::StartsWith("Exception caught: ")));
        };
        char byte = 'x';
        const auto stream = provider->openStream(iriOf("k"), editing);
        expect(Operation::GetObjectRange, "ByteStreamReadFailure: ", [&] { stream->read(&byte, 1); });
        expect(Operation::GetObjectRange, "ByteStreamWriteFailure: ", [&] { stream->write(&byte, 1); });
        stream->write(&byte, 1);
        expect(Operation::PutObject, "ByteStreamCloseFailure: ", [&] { stream->close(); });
        const auto atTheProvider = [&]
        {
            try
            {
                provider->fileExists(iriOf("x/./a"));
            }
            catch (const fsp::Exception& exception)
            {
                EXPECT_EQ(exception.iri().toUtf8(), "mem://test/x/./a");
                throw fsp::ByteStreamReadFailure(exception.errorCode());
            }
        };
        expect(Operation::GetObjectInfo, "ByteStreamReadFailure: ", atTheProvider);
    }
    fail(Operation::GetObjectRange, 1, std::make_exception_ptr(fsp::Exception(fsp::ErrorCode(77, "own"), iriOf("x"))));
    const auto read = [&] { provider->openReadOnlyStream(iriOf("k"))->read(nullptr, 1); };
    EXPECT_EQ(outcome(read), "ErrorCode 77: mem://test/x: own") << "the framework's own comes out unchanged";
}

TEST(CloudExceptionsTest, HaveFixedTextsOrTheirClients)
{
    EXPECT_STREQ(ResourceAlreadyExistsException().what(), "Cloud Resource already exists");
    EXPECT_STREQ(ResourceNotFoundException("d").what(), "Cloud Resource not found");
    EXPECT_STREQ(UnsupportedOperationException().what(), "Unsupported Cloud operation");
    EXPECT_STREQ(ResourceInUseException("d").what(), "Resource is in use");
    EXPECT_STREQ(FolderNotEmptyException().what(), "Cloud Folder was not empty");
    EXPECT_STREQ(PermissionDeniedException("c", "d").what(), "c");
    EXPECT_EQ(PermissionDeniedException("c").detail(), std::nullopt);
}

} // namespace

} // namespace storage::cloudprovider
