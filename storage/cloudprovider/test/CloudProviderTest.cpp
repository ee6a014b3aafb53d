#include "ProviderText.hpp"
#include "StoreTest.hpp"

#include <storage/cloudprovider/CloudProvider.hpp>
#include <storage/cloudprovider/OpenFileManager.hpp>

#include <foundation/interrupt/utInterruptState.hpp>
#include <foundation/usm/Context.hpp>

#include <functional>

namespace storage::cloudprovider
{

namespace
{

using clients::Operation;
using testing::ElementsAre;
using testing::IsEmpty;
using Provider = fsp::IProvider;

constexpr auto markers = FolderPolicy::MarkerObjects;
constexpr auto prefixes = FolderPolicy::KeyPrefixes;

/// A call of a provider, and what its entry record begins and ends with.
struct Action
{
    std::function<std::string(const Provider&)> run;
    std::string signature;
    std::string argument;
};

fsp::StorageIRI argument(const char* path)
{
    return iri(path);
}

fsp::ReplacementPolicy argument(unsigned value)
{
    return fsp::ReplacementPolicy{value};
}

template <typename T>
T argument(const T& value)
{
    return value;
}

template <auto operation, typename... Arguments>
Action action(const std::string& result, std::string name, const char* path, Arguments... arguments)
{
    const auto run = [=](const Provider& provider)
    {
        return outcome(
            [&]
            {
                const auto call = [&] { return (provider.*operation)(iri(path), argument(arguments)...); };
                if constexpr (std::is_void_v<decltype(call())>)
                {
                    call();
                    return "done";
                }
                else
                {
                    return text(call());
                }
            });
    };
    const bool moves = name.starts_with("move");
    name[0] = static_cast<char>(std::toupper(name[0]));
    return {run, "virtual " + result + " storage::cloudprovider::CloudProvider::do" + name + "(const StorageIRI &",
        (moves ? " old_iri=" : " iri=") + iri(path).toUtf8()};
}

// Paths stand for IRIs and numbers for replacement policies.
#define OPERATION(result, name)                                                                                        \
    const auto name = [](auto... arguments) { return action<&Provider::name>(#result, #name, arguments...); }

OPERATION(void, createFile);
OPERATION(void, createFolder);
OPERATION(bool, fileExists);
OPERATION(bool, folderExists);
OPERATION(void, removeFile);
OPERATION(void, moveFile);
OPERATION(void, removeFolder);
OPERATION(void, removeFolderRecursively);
OPERATION(void, moveFolder);
OPERATION(fsp::FileAttributes, getFileAttributes);
OPERATION(fsp::FolderAttributes, getFolderAttributes);
OPERATION(fsp::ByteStreamPtr, openStream);
OPERATION(fsp::ByteStreamPtr, openReadOnlyStream);
OPERATION(fsp::FolderEntryIteratorPtr, listAll);
OPERATION(fsp::FolderEntryIteratorPtr, listFiles);
OPERATION(fsp::FolderEntryIteratorPtr, listFolders);
OPERATION(fsp::FolderEntryIteratorPtr, listAllRecursive);
OPERATION(void, copyFile);
OPERATION(void, setLastModified);
OPERATION(void, setWritable);

std::string join(const std::vector<std::string>& texts, const char* between)
{
    std::string all;
    for (const std::string& one : texts)
    {
        all += (all.empty() ? "" : between) + one;
    }
    return all;
}

class CloudProviderTest : public StoreTest
{
protected:
    std::shared_ptr<Provider> build(FolderPolicy folders, bool checkFolderOnCopy = false)
    {
        return buildCloudProvider(store, folders, checkFolderOnCopy);
    }

    /// Store these objects, by keys between blanks; a file holds its key.
    void put(const std::string& keys)
    {
        std::istringstream in(keys);
        for (std::string key; in >> key;)
        {
            store->put(key, utils::hasTrailingSlash(key) ? "" : key);
        }
    }

    std::string keys() const { return join(store->keys(), " "); }
};

struct ProviderRow
{
    const char* name;
    FolderPolicy policy;
    const char* objects; // keys in the store
    Action action;
    std::string outcome;
    std::string calls;
    const char* objectsAfter = nullptr; // null: as before
    bool checkFolderOnCopy = false;
};

class CloudProviderTableTest : public CloudProviderTest, public ::testing::WithParamInterface<ProviderRow>
{
};

TEST_P(CloudProviderTableTest, AnswersAsksTheStoreAndLogs)
{
    const ProviderRow& row = GetParam();
    put(row.objects);
    const auto provider = build(row.policy, row.checkFolderOnCopy);
    EXPECT_THAT(store->takeCalls(), IsEmpty());
    getLogger().setEnabledSeverities(2);
    EXPECT_EQ(row.action.run(*provider), row.outcome);
    EXPECT_EQ(join(store->takeCalls(), "; "), row.calls);
    EXPECT_EQ(keys(), row.objectsAfter != nullptr ? row.objectsAfter : row.objects);
    const Lines records = log.take(2);
    EXPECT_THAT(records.front(),
        testing::AllOf(testing::StartsWith(row.action.signature), testing::EndsWith(row.action.argument),
            testing::ContainsRegex(" const .src/CloudProvider[^/]*[0-9]+[^/]* (old_)?iri=")));
    const bool isRefused = row.action.signature.find("doMoveFolder") != std::string::npos ||
                           row.action.signature.find("doSet") != std::string::npos;
    EXPECT_EQ(isRefused, records.size() == 1) << "what no store has is refused at once";
    EXPECT_TRUE(isRefused || records.at(1).starts_with("fsp::StorageIRI storage::cloudprovider::(anonymous namespace)::"
                                                       "getResolvedIRI(const fsp::StorageIRI &)"));
}

INSTANTIATE_TEST_SUITE_P(Metadata, CloudProviderTableTest,
    ::testing::Values(ProviderRow{"createFile", markers, "", createFile("no/a"), "done",
                          "getObjectInfo 'no/a'; putObject 'no/a' 0", "no/a"},
        ProviderRow{"createFileThatExists", markers, "a", createFile("a"), "3 cloud://store/a", "getObjectInfo 'a'"},
        ProviderRow{"createFolderInRoot", markers, "", createFolder("d"), "done",
            "listObjects '' '' 1; getObjectInfo 'd'; getObjectInfo 'd/'; putObject 'd/' 0", "d/"},
        ProviderRow{"createFolderInFolder", markers, "d/", createFolder("d/e"), "done",
            "listObjects 'd/' '' 1; getObjectInfo 'd/e'; getObjectInfo 'd/e/'; putObject 'd/e/' 0", "d/ d/e/"},
        ProviderRow{"createFolderWithoutParent", markers, "d", createFolder("d/e"), "4 cloud://store/d/e",
            "listObjects 'd/' '' 1"},
        ProviderRow{"createFolderOverFile", markers, "d", createFolder("d"), "3 cloud://store/d",
            "listObjects '' '' 1; getObjectInfo 'd'"},
        ProviderRow{"createFolderThatExists", markers, "d/", createFolder("d"), "3 cloud://store/d",
            "listObjects '' '' 1; getObjectInfo 'd'; getObjectInfo 'd/'"},
        ProviderRow{"createFolderWithPrefixes", prefixes, "", createFolder("no/d"), "11 cloud://store/no/d", ""},
        ProviderRow{"createFolderWithOtherPolicy", FolderPolicy{7}, "", createFolder("d"), "11 cloud://store/d", ""},
        ProviderRow{"rootIsNoFile", markers, "a", fileExists(""), "false", ""},
        ProviderRow{"fileExists", markers, "a", fileExists("./a"), "true", "getObjectInfo 'a'"},
        ProviderRow{"folderIsNoFile", prefixes, "a/b", fileExists("a"), "false", "getObjectInfo 'a'"},
        ProviderRow{"emptyRootExists", markers, "", folderExists(""), "true", "listObjects '' '' 1"},
        ProviderRow{"markedFolderExists", markers, "d/", folderExists("d"), "true", "listObjects 'd/' '' 1"},
        ProviderRow{"impliedFolderExists", prefixes, "d/e", folderExists("d/"), "true", "listObjects 'd/' '' 1"},
        ProviderRow{"fileIsNoFolder", markers, "d", folderExists("d"), "false", "listObjects 'd/' '' 1"},
        ProviderRow{"fileAttributes", prefixes, "abc", getFileAttributes("abc"), "[3]@5", "getObjectInfo 'abc'"},
        ProviderRow{
            "fileAttributesOfNothing", markers, "", getFileAttributes("a"), "4 cloud://store/a", "getObjectInfo 'a'"},
        ProviderRow{"fileAttributesOfRoot", markers, "", getFileAttributes(""), "4 cloud://store/", ""},
        ProviderRow{"folderAttributes", markers, "d/", getFolderAttributes("d"), "@5", "getObjectInfo 'd/'"},
        ProviderRow{"folderAttributesWithoutMarker", markers, "d/a", getFolderAttributes("d"), "@-",
            "getObjectInfo 'd/'; listObjects 'd/' '' 1"},
        ProviderRow{"folderAttributesWithPrefixes", prefixes, "d/ d/a", getFolderAttributes("d"), "@-",
            "listObjects 'd/' '' 1"},
        ProviderRow{"folderAttributesOfNothing", prefixes, "d", getFolderAttributes("d"), "4 cloud://store/d",
            "listObjects 'd/' '' 1"},
        ProviderRow{"folderAttributesOfRoot", prefixes, "", getFolderAttributes(""), "@-", "listObjects '' '' 1"},
        ProviderRow{"moveFolder", markers, "d/", moveFolder("d", "e", 0U), "11 cloud://store/d", ""},
        ProviderRow{
            "setLastModified", markers, "a", setLastModified("a", utils::long2Ptime(0)), "11 cloud://store/a", ""},
        ProviderRow{"setWritable", markers, "a", setWritable("a", true), "11 cloud://store/a", ""},
        ProviderRow{"openStream", markers, "d/", openStream("d/a", fsp::ByteStreamOpenOptions{}), "stream",
            "validateObjectName 'a'; putObject 'd/a' 0", "d/ d/a"},
        ProviderRow{"openReadOnlyStream", markers, "a", openReadOnlyStream("a"), "stream", "getObjectParts 'a'"},
        ProviderRow{"listAll", markers, "a b/c", listAll(""), "a[1]@5 b/@-", "listObjects '' '/' -1"},
        ProviderRow{"listFiles", markers, "a b/c", listFiles(""), "a[1]@5", "listObjects '' '/' -1"},
        ProviderRow{"listFolders", markers, "a b/c", listFolders(""), "b/@-", "listObjects '' '/' -1"},
        ProviderRow{"listAllRecursive", markers, "a b/c", listAllRecursive(""), "a[1]@5 b/@now b/c[3]@5",
            "listObjects '' '' -1"}),
    RowName());

INSTANTIATE_TEST_SUITE_P(Removal, CloudProviderTableTest,
    ::testing::Values(ProviderRow{"file", markers, "a a/b", removeFile("a"), "done", "deleteObject 'a'", "a/b"},
        ProviderRow{"missingFile", markers, "", removeFile("a"), "done", "deleteObject 'a'"},
        ProviderRow{"emptyFolder", markers, "d d/", removeFolder("d"), "done",
            "listObjects 'd/' '/' -1; deleteObject 'd/'", "d"},
        ProviderRow{"missingFolder", markers, "d", removeFolder("d"), "4 cloud://store/d", "listObjects 'd/' '/' -1"},
        ProviderRow{"folderWithMarkerAndFile", markers, "d/ d/a", removeFolder("d"), "0 cloud://store/d",
            "listObjects 'd/' '/' -1"},
        ProviderRow{
            "folderWithFile", markers, "d/a", removeFolder("d"), "0 cloud://store/d", "listObjects 'd/' '/' -1"},
        ProviderRow{
            "folderWithPrefixes", prefixes, "d/", removeFolder("d"), "0 cloud://store/d", "listObjects 'd/' '/' -1"},
        ProviderRow{"missingFolderWithPrefixes", prefixes, "", removeFolder("d"), "4 cloud://store/d",
            "listObjects 'd/' '/' -1"},
        ProviderRow{"tree", prefixes, "d d/ d/a d/e/ dx", removeFolderRecursively("d"), "done",
            "listObjects 'd/' '' -1; deleteObject 'd/'; deleteObject 'd/a'; deleteObject 'd/e/'", "d dx"},
        ProviderRow{
            "missingTree", markers, "d", removeFolderRecursively("d"), "4 cloud://store/d", "listObjects 'd/' '' -1"}),
    RowName());

const std::string readAndPut = "getObjectParts 'a'; validateObjectName 'b'; getObjectRange 'a' 0 0; putObject 'b' 1";

INSTANTIATE_TEST_SUITE_P(Move, CloudProviderTableTest,
    ::testing::Values(ProviderRow{"ifFree", markers, "a", moveFile("a", "b", 0U), "done",
                          "getObjectInfo 'b'; listObjects 'b/' '' 1; " + readAndPut + "; deleteObject 'a'", "b"},
        ProviderRow{"refused", markers, "a b", moveFile("a", "b", 0U), "3 cloud://store/b", "getObjectInfo 'b'"},
        ProviderRow{"replacing", markers, "a b", moveFile("a", "b", 1U), "done",
            "listObjects 'b/' '' 1; " + readAndPut + "; deleteObject 'a'", "b"},
        ProviderRow{"policy2", markers, "a", moveFile("a", "b", 2U), "11 cloud://store/a", ""},
        ProviderRow{"policy4", markers, "a", moveFile("a", "b", 4U), "11 cloud://store/a", ""},
        ProviderRow{"policy0OntoFolder", markers, "a b/", moveFile("a", "b", 0U), "3 cloud://store/b",
            "getObjectInfo 'b'; listObjects 'b/' '' 1"},
        ProviderRow{"policy1OntoFolder", prefixes, "a b/c", moveFile("a", "b", 1U), "3 cloud://store/b",
            "listObjects 'b/' '' 1"},
        ProviderRow{
            "ontoItselfRefused", markers, "a", moveFile("a", "a", 0U), "3 cloud://store/a", "getObjectInfo 'a'"},
        ProviderRow{
            "ontoItself", markers, "a", moveFile("a", "a", 1U), "done", "listObjects 'a/' '' 1; getObjectInfo 'a'"},
        ProviderRow{"ontoOtherSpelling", markers, "d/a", moveFile("d/a", "d//./a", 1U), "done",
            "listObjects 'd/a/' '' 1; getObjectInfo 'd/a'"}),
    RowName());

INSTANTIATE_TEST_SUITE_P(Copy, CloudProviderTableTest,
    ::testing::Values(
        ProviderRow{"ifFree", markers, "a", copyFile("a", "b", 0U), "done", "getObjectInfo 'b'; " + readAndPut, "a b"},
        ProviderRow{"policy0", markers, "a b", copyFile("a", "b", 0U), "3 cloud://store/b", "getObjectInfo 'b'"},
        ProviderRow{"policy4", markers, "a b", copyFile("a", "b", 4U), "3 cloud://store/b", "getObjectInfo 'b'"},
        ProviderRow{"policy1", markers, "a b", copyFile("a", "b", 1U), "done", "getObjectInfo 'b'; " + readAndPut},
        ProviderRow{"policy2", markers, "a b", copyFile("a", "b", 2U), "done", "getObjectInfo 'b'; " + readAndPut},
        ProviderRow{"policy5", markers, "a b", copyFile("a", "b", 5U), "done", "getObjectInfo 'b'; " + readAndPut},
        ProviderRow{"policy6", markers, "a b", copyFile("a", "b", 6U), "done", "getObjectInfo 'b'; " + readAndPut},
        ProviderRow{"ontoFolder", markers, "a b/", copyFile("a", "b", 0U), "done", "getObjectInfo 'b'; " + readAndPut,
            "a b b/"},
        ProviderRow{"ontoFolderChecked", prefixes, "a b/", copyFile("a", "b", 1U), "3 cloud://store/b",
            "getObjectInfo 'b'; listObjects 'b/' '' 1", nullptr, true},
        ProviderRow{
            "ontoItself", markers, "a", copyFile("a", "/./a", 1U), "done", "getObjectInfo 'a'; getObjectInfo 'a'"}),
    RowName());

TEST_F(CloudProviderTest, KnowsTheReplacementPoliciesOfMove)
{
    const auto provider = build(markers);
    for (const std::uint32_t value : {0U, 1U, 2U, 4U, 5U, 6U, ~0U})
    {
        EXPECT_EQ(provider->supportsReplacementPolicy(argument(value)), value < 2) << value;
    }
}

TEST_F(CloudProviderTest, RootHasNoTimeWithMarkersEither)
{
    EXPECT_EQ(getFolderAttributes("").run(*build(markers)), "@-");
}

TEST_F(CloudProviderTest, MalformedIrisReachNoStore)
{
    const fsp::StorageIRI malformed(u"no iri");
    EXPECT_EQ(outcome([&] { build(markers)->fileExists(malformed); }).substr(0, 1), "1") << "the framework's own code";
    EXPECT_EQ(outcome([&] { build(markers)->copyFile(iri("a"), malformed, argument(1U)); }).substr(0, 1), "1");
    EXPECT_THAT(store->takeCalls(), IsEmpty());
}

TEST_F(CloudProviderTest, CopiesLongFilesWholeAndOverLongerOnes)
{
    const ScopedVariable partSize("ZV_CLOUD_PART_SIZE_OVERRIDE", "5000");
    std::string content;
    for (int i = 0; i < 4000; ++i)
    {
        content += std::to_string(i);
    }
    store->put("a", content);
    store->put("b", content + content);
    const auto provider = build(markers);
    EXPECT_EQ(copyFile("a", "b", 1U).run(*provider), "done");
    EXPECT_EQ(store->get("b"), content) << "what was longer is gone";
    EXPECT_EQ(moveFile("b", "c", 1U).run(*provider), "done");
    EXPECT_EQ(store->get("c"), content);
    EXPECT_EQ(keys(), "a c");
}

TEST_F(CloudProviderTest, OpensTheDestinationsOfMoveAndCopyAsRequired)
{
    put("a");
    const auto provider = build(markers);
    getLogger().setEnabledSeverities(2);
    const auto optionsOf = [&](const Action& transfer, fsp::ByteStreamReadAccess readAccess)
    {
        transfer.run(*provider);
        std::ostringstream options;
        options << " options="
                << fsp::ByteStreamOpenOptions{readAccess, fsp::ByteStreamCreate{0}, fsp::ByteStreamTruncate{0},
                       fsp::ByteStreamWritePosition{1}};
        EXPECT_THAT(log.take(2), testing::Contains(testing::HasSubstr(options.str())));
    };
    optionsOf(copyFile("a", "b", 1U), fsp::ByteStreamReadAccess{1});
    optionsOf(moveFile("a", "c", 1U), fsp::ByteStreamReadAccess{0});
}

TEST_F(CloudProviderTest, FailedDestinationKeepsTheSource)
{
    put("a");
    fail(Operation::PutObject, 0, std::make_exception_ptr(PermissionDeniedException("full", "why")));
    EXPECT_EQ(moveFile("a", "b", 1U).run(*build(markers)), "9 cloud://store/b");
    EXPECT_EQ(copyFile("a", "b", 1U).run(*build(markers)), "9 cloud://store/b");
    EXPECT_EQ(store->get("a"), "a");
    EXPECT_THAT(moveFile("gone", "b", 1U).run(*build(markers)), testing::StartsWith("4 "));
    EXPECT_EQ(keys(), "a");

    store->faults().clearFaults();
    fail(Operation::DeleteObject, 0, std::make_exception_ptr(PermissionDeniedException("no", "why")));
    EXPECT_EQ(moveFile("a", "b", 1U).run(*build(markers)), "2 (why) cloud://store/a");
    EXPECT_EQ(keys(), "a b") << "both remain";
}

TEST_F(CloudProviderTest, NothingIsMovedWithoutAnUpload)
{
    const ScopedVariable partSize("ZV_CLOUD_PART_SIZE_OVERRIDE", "4");
    fail(Operation::CreateMultipartUpload, 0, std::make_exception_ptr(PermissionDeniedException("refused")));
    for (const char* const file : {"five5", "eight678", "nine56789", "thirteen90123"}) // as long as they say
    {
        put(file);
        EXPECT_EQ(moveFile(file, "b", 1U).run(*build(markers)), "9 cloud://store/b") << file;
        EXPECT_EQ(copyFile(file, "b", 1U).run(*build(markers)), "9 cloud://store/b") << file;
        EXPECT_EQ(store->get(file), file) << "a flush without an upload ends quietly";
    }
}

TEST_F(CloudProviderTest, OpenFilesAreNeitherRemovedNorMoved)
{
    put("a d/a d/b");
    const auto provider = build(markers);
    {
        const fsp::ByteStreamPtr stream = provider->openReadOnlyStream(iri("a"));
        store->takeCalls();
        EXPECT_EQ(removeFile("a").run(*provider), "6 cloud://store/a");
        EXPECT_EQ(moveFile("a", "b", 6U).run(*provider), "6 cloud://store/a") << "before the policy is looked at";
        EXPECT_THAT(store->takeCalls(), IsEmpty());
        EXPECT_EQ(moveFile("d/a", "a", 1U).run(*provider), "6 cloud://store/a")
            << "the only copy would be in the hands of the stream that is open there";
    }
    EXPECT_EQ(keys(), "a d/a d/b");
    const Action removeTree = removeFolderRecursively("d");
    fsp::ByteStreamPtr stream;
    store->faults().setHook(
        [&](Operation operation, const std::string&)
        {
            if (operation == Operation::DeleteObject && !stream)
            {
                stream = provider->openStream(iri("d"), {});
            }
        });
    EXPECT_EQ(removeTree.run(*provider), "6 cloud://store/d")
        << "the folder's own IRI is asked about before each removal";
    store->faults().setHook({});
    EXPECT_EQ(keys(), "a d/b") << "what was removed stays removed";
    EXPECT_EQ(removeTree.run(*provider), "6 cloud://store/d");
    stream.reset(); // an untouched new file is written when it is closed
    EXPECT_EQ(keys(), "a d d/b");

    stream = provider->openReadOnlyStream(iri("d/b"));
    EXPECT_EQ(removeTree.run(*provider), "done") << "streams on entries do not count";
}

TEST_F(CloudProviderTest, LongRemovalsCanBeInterruptedBetweenPages)
{
    put("d/a d/b");
    store->setPageSize(1);
    const Action remove = removeFolderRecursively("d");
    utInterruptState::RequestInterrupt();
    {
        const foundation::usm::ContextScope context;
        EXPECT_EQ(remove.run(*build(markers)), "9 cloud://store/d");
        EXPECT_THAT(store->takeCalls(), ElementsAre("listObjects 'd/' '' -1"));
    }
    EXPECT_EQ(remove.run(*build(markers)), "done") << "without the context nobody asks";
    utInterruptState::ClearInterrupt();
    EXPECT_EQ(keys(), "");
}

} // namespace

} // namespace storage::cloudprovider
