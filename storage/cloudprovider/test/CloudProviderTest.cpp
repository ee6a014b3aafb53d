#include "StoreTest.hpp"

#include <storage/cloudprovider/OpenFileManager.hpp>

#include <foundation/interrupt/utInterruptState.hpp>
#include <foundation/usm/Context.hpp>

// What a tree of files cannot see of the provider: what it asks of the store, open files, and failures on the way.

namespace storage::cloudprovider
{

namespace
{

using Provider = fsp::IProvider;

constexpr auto markers = FolderPolicy::MarkerObjects;
constexpr auto prefixes = FolderPolicy::KeyPrefixes;

class CloudProviderTest : public StoreTest
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
};

struct CallRow
{
    const char* name;
    FolderPolicy policy;
    std::function<void(const Provider&)> call;
    std::string calls; // of the store
    const char* outcome = "done";
};

/// What a row does on a path.
template <typename Result>
std::function<void(const Provider&)> call(Result (Provider::*operation)(const fsp::StorageIRI&) const, const char* path)
{
    return [=](const Provider& provider) { static_cast<void>((provider.*operation)(iriOf(path))); };
}

using Transfer = void (Provider::*)(
    const fsp::StorageIRI&, const fsp::StorageIRI&, const fsp::ReplacementPolicy&) const;

std::function<void(const Provider&)> call(Transfer transfer, const char* from, const char* to, std::uint32_t policy)
{
    return [=](const Provider& provider)
    { (provider.*transfer)(iriOf(from), iriOf(to), fsp::ReplacementPolicy{policy}); };
}

class CallTest : public CloudProviderTest, public testing::WithParamInterface<CallRow>
{
};

TEST_P(CallTest, AsksNoMoreThanItMust)
{
    const auto asked = buildCloudProvider(faults, GetParam().policy, false);
    EXPECT_EQ(faults->takeCalls(), "") << "a provider is built without a word to the store";
    EXPECT_EQ(outcome([&] { GetParam().call(*asked); }), GetParam().outcome);
    EXPECT_EQ(faults->takeCalls(), GetParam().calls);
}

const std::string transfer = "getObjectParts file; validateObjectName b; getObjectRange file 0 0; putObject b";

INSTANTIATE_TEST_SUITE_P(Calls, CallTest,
    testing::Values(
        CallRow{"createFile", markers, call(&Provider::createFile, "no/a"), "getObjectInfo no/a; putObject no/a"},
        CallRow{"createFolder", markers, call(&Provider::createFolder, "only/e"),
            "listObjects only/ '' 1; getObjectInfo only/e; getObjectInfo only/e/; putObject only/e/"},
        CallRow{"otherPolicy", FolderPolicy{7}, call(&Provider::createFolder, "d"), "", "Unsupported: mem://test/d"},
        CallRow{"rootIsNoFile", markers, call(&Provider::fileExists, ""), ""},
        CallRow{"fileExists", markers, call(&Provider::fileExists, "./file"), "getObjectInfo file"},
        CallRow{"folderExists", prefixes, call(&Provider::folderExists, "implied/"), "listObjects implied/ '' 1"},
        CallRow{"marked", markers, call(&Provider::getFolderAttributes, "marked"), "getObjectInfo marked/"},
        CallRow{"root", markers, call(&Provider::getFolderAttributes, ""), "listObjects  '' 1"},
        CallRow{"moveFolder", markers, call(&Provider::moveFolder, "only", "e", 0), "", "Unsupported: mem://test/only"},
        CallRow{"setTime", markers, [](const Provider& p) { p.setLastModified(iriOf("a"), {}); }, "",
            "Unsupported: mem://test/a"},
        CallRow{"setWritable", markers, [](const Provider& p) { p.setWritable(iriOf("a"), true); }, "",
            "Unsupported: mem://test/a"},
        CallRow{"removeFolder", markers, call(&Provider::removeFolder, "only"),
            "listObjects only/ '/' -1; deleteObject only/"},
        CallRow{"removeTree", prefixes, call(&Provider::removeFolderRecursively, "marked"),
            "listObjects marked/ '' -1; deleteObject marked/; deleteObject marked/x"},
        CallRow{"move", markers, call(&Provider::moveFile, "file", "b", 0),
            "getObjectInfo b; listObjects b/ '' 1; " + transfer + "; deleteObject file"},
        CallRow{"moveOntoItself", markers, call(&Provider::moveFile, "file", "././/file", 1),
            "listObjects file/ '' 1; getObjectInfo file"},
        CallRow{"copy", markers, call(&Provider::copyFile, "file", "b", 5), "getObjectInfo b; " + transfer},
        CallRow{"list", markers, call(&Provider::listAll, "marked"), "listObjects marked/ '/' -1"},
        CallRow{"listTree", markers, call(&Provider::listAllRecursive, "marked"), "listObjects marked/ '' -1"}),
    [](const auto& row) { return row.param.name; });

TEST_F(CloudProviderTest, RefusesMalformedIrisAndOtherPoliciesAtOnce)
{
    const auto copy = [&] { provider->copyFile(iriOf("file"), fsp::StorageIRI(u"no iri"), {}); };
    EXPECT_EQ(codeOf(copy), fsp::ErrorCode::InvalidLocation.value());
    EXPECT_EQ(move("file", "b", 2), "Unsupported: mem://test/file");
    EXPECT_EQ(faults->takeCalls(), "");
}

TEST_F(CloudProviderTest, FailedTransfersNameTheSideThatFailed)
{
    fail(Operation::PutObject, 0, refused);
    EXPECT_EQ(move("file", "b"), "Unknown: mem://test/b");
    EXPECT_THAT(move("gone", "b"), testing::StartsWith("NotFound: mem://test/gone"));
    faults->clearFaults();
    fail(Operation::DeleteObject, 0, refused);
    EXPECT_EQ(move("file", "b"), "PermissionDenied: mem://test/file: why");
}

TEST_F(CloudProviderTest, OpenFilesAreNeitherRemovedNorMoved)
{
    auto stream = provider->openReadOnlyStream(iriOf("file"));
    faults->takeCalls();
    EXPECT_EQ(outcome([&] { provider->removeFile(iriOf("file")); }), "InUse: mem://test/file");
    EXPECT_EQ(move("file", "b", 6), "InUse: mem://test/file") << "before the policy is looked at";
    EXPECT_EQ(faults->takeCalls(), "");
    EXPECT_EQ(move("implied/x", "file"), "InUse: mem://test/file") << "the only copy would be in that stream's hands";

    const auto openOnRemoval = [&](Operation operation)
    {
        if (operation == Operation::DeleteObject)
        {
            faults->onCall = {};
            stream = provider->openStream(iriOf("marked"), {});
        }
    };
    faults->onCall = openOnRemoval;
    const auto removeTree = [&] { provider->removeFolderRecursively(iriOf("marked")); };
    EXPECT_EQ(outcome(removeTree), "InUse: mem://test/marked") << "its own IRI is asked about before each removal";
    EXPECT_THAT(store->keys(), testing::ElementsAre("file", "implied/x", "marked/x", "only/"));
    stream = provider->openReadOnlyStream(iriOf("marked/x"));
    EXPECT_EQ(outcome(removeTree), "done") << "streams on entries do not count";
}

TEST_F(CloudProviderTest, LongRemovalsCanBeInterruptedBetweenPages)
{
    store->setPageSize(1);
    utInterruptState::RequestInterrupt();
    const auto removeTree = [&] { provider->removeFolderRecursively(iriOf("marked")); };
    {
        const foundation::usm::ContextScope context;
        EXPECT_EQ(outcome(removeTree), "Unknown: mem://test/marked");
        EXPECT_EQ(faults->takeCalls(), "listObjects marked/ '' -1");
    }
    EXPECT_EQ(outcome(removeTree), "done") << "without the context nobody asks";
    utInterruptState::ClearInterrupt();
}

} // namespace

} // namespace storage::cloudprovider
