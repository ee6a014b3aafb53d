#include "ProviderTest.hpp"

#include <foundation/core/except/InterruptedException.hpp>
#include <foundation/interrupt/utInterruptState.hpp>
#include <foundation/usm/Context.hpp>

// What the models of files and trees do not show: calls of the store, open files, failures, log records.

namespace storage::cloudprovider
{

namespace
{

using testing::HasSubstr;
using testing::StartsWith;

class CloudProviderTest : public ProviderTest
{
protected:
    CloudProviderTest()
    {
        for (const std::string key : {"file", "marked/", "marked/x", "only/", "implied/x"})
        {
            store->put(key, key.back() == '/' ? "" : "abc");
        }
    }

    std::string move(const char* from, const char* to, std::uint32_t policy = 1)
    {
        return outcome([&] { provider->moveFile(iriOf(from), iriOf(to), fsp::ReplacementPolicy{policy}); });
    }

    std::string removeTree(const char* path)
    {
        return outcome([&] { provider->removeFolderRecursively(iriOf(path)); });
    }
};

TEST_F(CloudProviderTest, MakesNoMoreCallsThanItNeeds)
{
    const auto expect = [&](const auto& operation, const std::string& calls, const std::string& expected = "done")
    {
        EXPECT_EQ(outcome(operation), expected) << calls;
        EXPECT_EQ(faults->takeCalls(), calls);
    };
    const auto iri = iriOf("file");
    const auto open = [&](std::uint32_t create, std::uint32_t truncate) {
        provider->openStream(iri, {{}, fsp::ByteStreamCreate{create}, fsp::ByteStreamTruncate{truncate}});
    };
    expect([&] { provider->createFolder(iriOf("only/e")); },
        "listObjects only/ '' 1; getObjectInfo only/e; getObjectInfo only/e/; putObject only/e/");
    expect([&] { provider->fileExists(iriOf("")); }, "");
    expect([&] { provider->folderExists(iriOf("implied/")); }, "listObjects implied/ '' 1");
    expect([&] { provider->getFolderAttributes(iriOf("marked")); }, "getObjectInfo marked/");
    expect([&] { provider->listAll(iriOf("implied")); }, "listObjects implied/ '/' -1");
    expect([&] { provider->listAllRecursive(iriOf("implied")); }, "listObjects implied/ '' -1");
    expect([&] { removeTree("marked"); }, "listObjects marked/ '' -1; deleteObject marked/; deleteObject marked/x");
    expect([&] { provider->moveFolder(iri, iriOf("e"), {}); }, "", "Unsupported: mem://test/file");
    expect([&] { provider->setLastModified(iri, {}); }, "", "Unsupported: mem://test/file");
    expect([&] { provider->setWritable(iri, true); }, "", "Unsupported: mem://test/file");
    const auto only = iriOf("only/");
    const std::string invalid = "InvalidLocation: mem://test/only/: the name of a file cannot end in \"/\"";
    expect([&] { provider->createFile(only); }, "", invalid);
    expect([&] { provider->removeFile(only); }, "", invalid);
    expect([&] { provider->openStream(only, {}); }, "", invalid);
    expect([&] { provider->openReadOnlyStream(only); }, "", invalid);
    expect([&] { provider->moveFile(iri, only, {}); }, "", invalid);
    expect([&] { provider->copyFile(iri, only, {}); }, "", invalid);
    expect([&] { provider->getFileAttributes(only); }, "", "NotFound: mem://test/only/");
    expect([&] { provider->existsExtended(only); }, "listObjects only/ '' 1");
    expect([&] { move("file", "././/file"); }, "listObjects file/ '' 1; getObjectInfo file");
    expect([&] { move("file", "b"); },
        "listObjects b/ '' 1; getObjectParts file; validateObjectName b; getObjectRange file 0 0; putObject b; "
        "deleteObject file");
    store->put("file", "abc");
    expect([&] { open(0, 1); }, "getObjectParts file");
    expect([&] { open(1, 0); }, "getObjectInfo file; putObject file");
    expect([&] { open(2, 2); }, "validateObjectName file; putObject file");
}

TEST_F(CloudProviderTest, FailedTransfersNameTheFileThatFailed)
{
    EXPECT_EQ(move("file", "b", 2), "Unsupported: mem://test/file");
    EXPECT_THAT(move("gone", "b"), StartsWith("NotFound: mem://test/gone"));
    fail(Operation::PutObject, 1);
    EXPECT_EQ(move("file", "b"), "Unknown: mem://test/b") << "a failure of a stream";
    fail(Operation::DeleteObject, 1);
    EXPECT_EQ(move("file", "b"), "PermissionDenied: mem://test/file: why");
    const auto copyAtomically = [&](std::uint32_t policy)
    { return outcome([&] { provider->copyFileAtomic(iriOf("file"), iriOf("b"), fsp::ReplacementPolicy{policy}); }); };
    EXPECT_EQ(copyAtomically(0), "AlreadyExists: mem://test/b");
    EXPECT_THAT(copyAtomically(2), StartsWith("Unsupported: mem://test/b"));
    fail(Operation::GetObjectRange, 1);
    EXPECT_EQ(copyAtomically(1), "PermissionDenied: mem://test/file: why");
    fail(Operation::PutObject, 1);
    EXPECT_EQ(copyAtomically(1), "PermissionDenied: mem://test/b: why");
    const auto copy = [&] { provider->copyFile(iriOf("file"), fsp::StorageIRI(u"no iri"), {}); };
    EXPECT_THAT(outcome(copy), StartsWith("InvalidLocation: no%20iri"));
}

TEST_F(CloudProviderTest, OpenFilesAreNeitherRemovedNorMoved)
{
    auto stream = provider->openReadOnlyStream(iriOf("file"));
    EXPECT_EQ(outcome([&] { provider->removeFile(iriOf("file")); }), "InUse: mem://test/file");
    EXPECT_EQ(move("file", "b", 6), "InUse: mem://test/file") << "checked before the policy";
    EXPECT_EQ(move("implied/x", "file"), "InUse: mem://test/file");
    const auto openOnRemoval = [&](Operation operation, const std::string&)
    {
        if (operation == Operation::DeleteObject)
        {
            stream = provider->openStream(iriOf("marked"), {});
        }
    };
    faults->setHook(openOnRemoval);
    EXPECT_EQ(removeTree("marked"), "InUse: mem://test/marked") << "checked before each removal";
    faults->setHook({});
    EXPECT_THAT(store->keys(), testing::ElementsAre("file", "implied/x", "marked/x", "only/"));
    stream = provider->openReadOnlyStream(iriOf("marked/x"));
    EXPECT_EQ(removeTree("marked"), "done") << "streams on entries do not count";
}

TEST_F(CloudProviderTest, LongRemovalsCanBeInterruptedBetweenPages)
{
    store->setPageSize(1);
    utInterruptState::RequestInterrupt();
    {
        const foundation::usm::ContextScope context;
        static_cast<void>(foundation::usm::ContextScope()); // leaves the outer one active
        EXPECT_EQ(removeTree("marked"), "Unknown: mem://test/marked");
        EXPECT_EQ(faults->takeCalls(), "listObjects marked/ '' -1");
    }
    EXPECT_EQ(removeTree("marked"), "done") << "without the context there is no check";
    EXPECT_THROW(utInterruptState::ThrowIfInterruptPending(), foundation::core::except::InterruptedException);
    utInterruptState::ClearInterrupt();
    EXPECT_NO_THROW(utInterruptState::ThrowIfInterruptPending());
}

TEST_F(CloudProviderTest, AFailedFetchDoesNotLoseTheEntryTaken)
{
    store->setPageSize(1);
    store->put("marked/\xC3\xA9", "");
    const auto marked = iriOf("marked");
    for (const bool isFiltered : {false, true})
    {
        fail(Operation::ListObjects, 3);
        const auto listing = isFiltered ? provider->listAllWildcards(marked, u"x") : provider->listAll(marked);
        EXPECT_EQ(outcome([&] { listing->next(); }), "PermissionDenied: mem://test/marked: why");
        EXPECT_EQ(listing->getCurrent().name(), u"x");
        EXPECT_FALSE(listing->hasNext());
    }
}

TEST_F(CloudProviderTest, TranslatesFailures)
{
    const std::pair<std::exception_ptr, const char*> rows[] = {
        {std::make_exception_ptr(ResourceNotFoundException("a")), "NotFound: mem://test/x: a"},
        {std::make_exception_ptr(ResourceAlreadyExistsException("a")), "AlreadyExists: mem://test/x: a"},
        {std::make_exception_ptr(InvalidCredentialsException("text", "a")), "PermissionDenied: mem://test/x: a"},
        {std::make_exception_ptr(InvalidLocationException("text", "a")), "InvalidLocation: mem://test/x: a"},
        {std::make_exception_ptr(PermissionDeniedException("text")), "PermissionDenied: mem://test/x"},
        {std::make_exception_ptr(FolderNotEmptyException("a")), "FolderNotEmpty: mem://test/x: a"},
        {std::make_exception_ptr(ResourceInUseException("a")), "InUse: mem://test/x: a"},
        {std::make_exception_ptr(UnsupportedOperationException("a")), "Unsupported: mem://test/x: a"},
        {std::make_exception_ptr(UnknownErrorException("text", "a")), "Unknown: mem://test/x"},
        {std::make_exception_ptr(42), "Unknown: mem://test/x"},
        {std::make_exception_ptr(fsp::Exception(fsp::ErrorCode(77, "own"), iriOf("y"))),
            "ErrorCode 77: mem://test/y: own"}};
    for (const auto& [thrown, expected] : rows)
    {
        fail(Operation::GetObjectInfo, 1, thrown);
        EXPECT_EQ(outcome([&] { provider->fileExists(iriOf("x")); }), expected);
    }
    const auto stream = provider->openReadOnlyStream(iriOf("file"));
    fail(Operation::GetObjectRange, 1, std::get<0>(rows[std::size(rows) - 1]));
    EXPECT_EQ(outcome([&] { readAt(*stream, 0, 1); }), "ErrorCode 77: mem://test/y: own");
}

TEST_F(CloudProviderTest, LogsEntriesAndFailures)
{
    struct Grouping : std::numpunct<char>
    {
        std::string do_grouping() const override { return "\1"; }
    };
    const std::locale former = std::locale::global(std::locale(std::locale::classic(), new Grouping));
    setLog(2);
    setSizes(2, 0);
    outcome([&] { provider->openReadOnlyStream(iriOf("file"))->seek(12'345, std::ios_base::beg); });
    move("file", "b");
    std::locale::global(former);
    const std::vector<std::string> records = takeLog();
    for (const char* const part : {"virtual void storage::cloudprovider::CloudProvider::doMoveFile(const StorageIRI &, "
                                   "const StorageIRI &, const fsp::ReplacementPolicy &) const (src/CloudProvider:",
             ") old_iri=mem://test/file",
             " iri=mem://test/b options={readAccess=None, create=IfMissing, truncate=Discard, ", " off=12345 way=",
             " fileOffset=0 createIfNonExistent=1", " partIndex=0", " bytesRead=3", " bytesWritten=3",
             "m_info=PartInfo{Index=0,Offset=0,Size=3,Tag=\"", "m_localDataVersion=CLOUD", "m_localDataVersion=NEW",
             "OpenPartBuffer::setOpenBuffer(BufferPtr) (storage", "OpenPartBuffer::setTag(std::string) (storage"})
    {
        EXPECT_THAT(records, testing::Contains(HasSubstr(part)));
    }
    setLog(16);
    fail(Operation::GetObjectInfo, 1);
    outcome([&] { provider->fileExists(iriOf("a")); });
    EXPECT_THAT(takeLog(), testing::ElementsAre(testing::AllOf(StartsWith("Exception caught: "),
                               HasSubstr("storage::cloudprovider::PermissionDeniedException"), HasSubstr("refused"))));
    setLog(~0U);
    foundation::log::setSink([](auto&&...) { throw 1; });
    testing::internal::CaptureStderr();
    EXPECT_EQ(move("b", "c"), "done");
    EXPECT_THAT(move("b", "c"), StartsWith("NotFound: mem://test/b"));
    EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("unregisterByteStream() (storage"));
}

TEST(StaticStreamDeathTest, ClosesAtTheEndOfTheProcess)
{
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_EXIT(
        {
            static fsp::ByteStreamPtr stream; // the logger is constructed later
            const auto store = std::make_shared<clients::MemoryClient>();
            stream = buildCloudProvider(store, FolderPolicy::MarkerObjects, false)->openStream(iriOf("x"), editing);
            getLogger().setEnabledSeverities(2);
            std::exit(0);
        },
        testing::ExitedWithCode(0), "storage::cloudprovider detail: .*OpenFileByteStream::doClose");
}

} // namespace

} // namespace storage::cloudprovider
