#include "ProviderText.hpp"
#include "StoreTest.hpp"

#include <storage/cloudprovider/CloudProvider.hpp>

namespace storage::cloudprovider
{

namespace
{

using testing::ElementsAre;
using Provider = fsp::IProvider;
using Page = std::vector<ObjectEntry>;
using Listing = fsp::FolderEntryIteratorPtr (Provider::*)(const fsp::StorageIRI&) const;

/// A page of these keys; the n-th of a page has size n and time 10 n.
Page page(const std::vector<std::string>& keys)
{
    Page entries;
    for (const std::string& key : keys)
    {
        const auto number = static_cast<long long>(entries.size() + 1);
        entries.push_back({key, static_cast<std::uint64_t>(number), utils::long2Ptime(10'000 * number)});
    }
    return entries;
}

struct ListingRow
{
    const char* name;
    Listing list;
    const char* folder;
    std::vector<Page> pages;
    std::string expected; // see text(FolderEntryIteratorPtr)
    Lines calls;
};

class CloudEntryIteratorTest : public StoreTest, public ::testing::WithParamInterface<ListingRow>
{
protected:
    const std::shared_ptr<Provider> provider = buildCloudProvider(store, FolderPolicy::KeyPrefixes, false);
};

TEST_P(CloudEntryIteratorTest, YieldsWhatThePagesMean)
{
    const ListingRow& row = GetParam();
    store->put("marked/", "");
    store->pages = row.pages;
    EXPECT_EQ(outcome([&] { return text((*provider.*row.list)(iri(row.folder))); }), row.expected);
    EXPECT_EQ(store->takeCalls(), row.calls);
}

const Lines flat{"listObjects 'f/' '/' -1"};
const Lines flatTwice{"listObjects 'f/' '/' -1", "listObjects 'f/' '/' -1"};
const Lines flatThrice{"listObjects 'f/' '/' -1", "listObjects 'f/' '/' -1", "listObjects 'f/' '/' -1"};
const Lines deep{"listObjects 'f/' '' -1"};
const Lines deepTwice{"listObjects 'f/' '' -1", "listObjects 'f/' '' -1"};

INSTANTIATE_TEST_SUITE_P(Pages, CloudEntryIteratorTest,
    ::testing::Values(ListingRow{"flatAll", &Provider::listAll, "f", {page({"f/a", "f/b/"})}, "a[1]@10 b/@20", flat},
        ListingRow{"flatFiles", &Provider::listFiles, "f", {page({"f/a", "f/b/"})}, "a[1]@10", flat},
        ListingRow{"flatFolders", &Provider::listFolders, "f/", {page({"f/a", "f/b/"})}, "b/@20", flat},
        ListingRow{"filesAmongFolders", &Provider::listFiles, "f", {page({"f/b/", "f/c/"})}, "", flat},
        ListingRow{"foldersAmongFiles", &Provider::listFolders, "f", {page({"f/b", "f/c"})}, "", flat},
        ListingRow{"folderTwice", &Provider::listAll, "f", {page({"f/b/"}), page({"f/b/"})}, "b/@10 b/@10", flatTwice},
        ListingRow{"oneSlashOnly", &Provider::listAll, "f", {page({"f/b//"})}, "b//@10", flat},
        ListingRow{"markerPage", &Provider::listAll, "f", {page({"f/"}), page({"f/a"})}, "a[1]@10", flatTwice},
        ListingRow{"emptyPageBetween", &Provider::listAll, "f", {page({"f/a"}), {}, page({"f/b", "f/c"})},
            "a[1]@10 b[1]@10 c[2]@20", flatThrice},
        ListingRow{"filteredPages", &Provider::listFiles, "f", {page({"f/a/"}), page({"f/b/"}), page({"f/c"})},
            "c[1]@10", flatThrice},
        ListingRow{"unicode", &Provider::listAll, "f", {page({"f/\xC3\xA9 %"})}, "\xC3\xA9 %[1]@10", flat},
        ListingRow{"missing", &Provider::listAll, "no", {{}}, "4 cloud://store/no",
            {"listObjects 'no/' '/' -1", "getObjectInfo 'no/'"}},
        ListingRow{"missingDeep", &Provider::listAllRecursive, "no", {{}}, "4 cloud://store/no",
            {"listObjects 'no/' '' -1", "getObjectInfo 'no/'"}},
        ListingRow{"markedButEmpty", &Provider::listAll, "marked", {{}}, "",
            {"listObjects 'marked/' '/' -1", "getObjectInfo 'marked/'"}},
        ListingRow{"emptyFirstPage", &Provider::listAll, "marked", {{}, {}, page({"marked/a"})}, "a[1]@10",
            {"listObjects 'marked/' '/' -1", "getObjectInfo 'marked/'", "listObjects 'marked/' '/' -1",
                "listObjects 'marked/' '/' -1"}},
        ListingRow{"emptyRoot", &Provider::listAll, "", {{}}, "", {"listObjects '' '/' -1", "getObjectInfo ''"}},
        ListingRow{
            "emptyRootDeep", &Provider::listAllRecursive, "", {{}}, "", {"listObjects '' '' -1", "getObjectInfo ''"}},
        ListingRow{"deepImplied", &Provider::listAllRecursive, "f", {page({"f/a/b/c.txt"})},
            "a/@now a/b/@now a/b/c.txt[1]@10", deep},
        ListingRow{"deepMarkerAfterwards", &Provider::listAllRecursive, "f", {page({"f/x/1", "f/x/2", "f/x/"})},
            "x/@now x/1[1]@10 x/2[2]@20", deep},
        ListingRow{"deepMarkerFirst", &Provider::listAllRecursive, "f", {page({"f/x/", "f/x/1", "f/x/y/"})},
            "x/@10 x/1[2]@20 x/y/@30", deep},
        ListingRow{"deepMarkerAlone", &Provider::listAllRecursive, "f", {page({"f/a/"})}, "a/@10", deep},
        ListingRow{"deepMarkerInImplied", &Provider::listAllRecursive, "f", {page({"f/a/b/", "f/a/"})},
            "a/@now a/b/@10", deep},
        ListingRow{"deepSeenAcrossPages", &Provider::listAllRecursive, "f", {page({"f/a/1"}), page({"f/a/", "f/a/1"})},
            "a/@now a/1[1]@10 a/1[2]@20", deepTwice},
        ListingRow{
            "deepOwnMarker", &Provider::listAllRecursive, "f", {page({"f/"}), page({"f/1"})}, "1[1]@10", deepTwice}),
    RowName());

TEST_F(CloudEntryIteratorTest, ClonesGoOnByThemselves)
{
    store->pages = {page({"f/a/1", "f/a/2"}), page({"f/a/", "f/b/3"}), page({"f/b/4"})};
    for (const Listing list : {&Provider::listAll, &Provider::listAllRecursive})
    {
        const fsp::FolderEntryIteratorPtr source = (*provider.*list)(iri("f"));
        source->next();
        fsp::FolderEntryIteratorPtr clone = source->clone();
        EXPECT_EQ(clone->getCurrent(), source->getCurrent());
        const std::string rest = text(source->clone());
        EXPECT_EQ(text(std::move(clone)), rest) << "although the other clone has reached the end";
        EXPECT_EQ(text(source->clone()), rest);
        EXPECT_EQ(rest, list == &Provider::listAll ? "a/2[2]@20 a/@10 b/3[2]@20 b/4[1]@10"
                                                   : "a/1[1]@10 a/2[2]@20 b/@now b/3[2]@20 b/4[1]@10");
    }
}

TEST_F(CloudEntryIteratorTest, FailureWhileAdvancingComesAfterTheEntryTaken)
{
    store->pages = {page({"f/a"}), page({"f/b", "f/\xFF"}), page({"f/c"})};
    const fsp::FolderEntryIteratorPtr listing = provider->listAll(iri("f"));
    fail(clients::Operation::ListObjects, 1, std::make_exception_ptr(PermissionDeniedException("text", "why")));
    const fsp::FolderEntryIteratorPtr second = listing->clone();
    EXPECT_EQ(outcome([&] { listing->next(); }), "2 (why) cloud://store/f");
    EXPECT_EQ(text(listing->getCurrent()), "a[1]@10");
    EXPECT_FALSE(listing->hasNext());

    EXPECT_EQ(outcome([&] { second->next(); }), "9 cloud://store/f") << "a name that is no UTF-8";
    EXPECT_EQ(text(second->getCurrent()), "a[1]@10");
    EXPECT_EQ(text(second->clone()), "b[1]@10 c[1]@10") << "what the page held before the failure, and what follows";
}

} // namespace

} // namespace storage::cloudprovider
