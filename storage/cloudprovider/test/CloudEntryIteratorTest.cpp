#include "StoreTest.hpp"

#include <fl/i18n.hpp>

// Pages that a sorted store never sends.

namespace storage::cloudprovider
{

namespace
{

class CloudEntryIteratorTest : public StoreTest
{
protected:
    /// Let the store list these keys, page by page; the n-th of a page has size n and time n.
    void setPages(const std::vector<std::vector<std::string>>& pages)
    {
        store->put("f/", "");
        faults->pages.clear();
        for (const auto& keys : pages)
        {
            auto& page = faults->pages.emplace_back();
            for (const std::string& key : keys)
            {
                page.push_back({key, page.size() + 1, utils::long2Ptime(1000 * static_cast<int>(page.size() + 1))});
            }
        }
    }

    /// The entries still to come: "name[size]" or "name@time".
    static std::string rest(const fsp::FolderEntryIteratorPtr& listing)
    {
        std::string all;
        while (listing->hasNext())
        {
            listing->next();
            const fsp::FolderEntry entry = listing->getCurrent();
            all += (all.empty() ? "" : " ") + fl::i18n::ustring_to_utf8(entry.name());
            if (entry.isFolder())
            {
                const auto age = entry.folderAttributes().lastModified() - utils::long2Ptime(0);
                all += age.hours() == 0 ? "@" + std::to_string(age.total_seconds()) : "@now";
                continue;
            }
            all += "[" + std::to_string(entry.fileAttributes().size().value()) + "]";
        }
        return all;
    }
};

TEST_F(CloudEntryIteratorTest, YieldsWhatThePagesMean)
{
    struct Row
    {
        bool recursive;
        std::vector<std::vector<std::string>> pages;
        const char* expected;
    };
    for (const Row& row : std::vector<Row>{{false, {{"f/b/"}, {"f/b/"}}, "b@1 b@1"}, {false, {{"f/b//"}}, "b/@1"},
             {false, {{"f/\xC3\xA9 %"}}, "\xC3\xA9 %[1]"}, {true, {{"f/x/1", "f/x/2", "f/x/"}}, "x@now x/1[1] x/2[2]"},
             {true, {{"f/x/", "f/x/1", "f/x/y/"}}, "x@1 x/1[2] x/y@3"}, {true, {{"f/a/b/", "f/a/"}}, "a@now a/b@1"},
             {true, {{"f/a/1"}, {"f/a/", "f/a/2"}}, "a@now a/1[1] a/2[2]"}})
    {
        setPages(row.pages);
        EXPECT_EQ(
            rest(row.recursive ? provider->listAllRecursive(iriOf("f")) : provider->listAll(iriOf("f"))), row.expected);
    }
}

TEST_F(CloudEntryIteratorTest, FailureWhileAdvancingComesAfterTheEntryTaken)
{
    setPages({{"f/a"}, {"f/b", "f/\xFF"}, {"f/c"}});
    const fsp::FolderEntryIteratorPtr first = provider->listAll(iriOf("f"));
    const fsp::FolderEntryIteratorPtr second = first->clone();
    fail(Operation::ListObjects, 1, refused);
    EXPECT_EQ(outcome([&] { first->next(); }), "PermissionDenied: mem://test/f: why");
    EXPECT_EQ(first->getCurrent().name(), u"a");
    EXPECT_FALSE(first->hasNext());
    EXPECT_EQ(outcome([&] { second->next(); }), "Unknown: mem://test/f") << "a name that is no UTF-8";
    EXPECT_EQ(rest(second->clone()), "b[1] c[1]") << "what the page held before the failure, and what follows";
}

} // namespace

} // namespace storage::cloudprovider
