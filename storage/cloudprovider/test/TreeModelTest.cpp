#include "FileTestSupport.hpp"

#include <gmock/gmock.h>

#include <map>
#include <tuple>

// Random operations on a tree of files and folders, each done on a std::map of keys as well, while others change the
// store. A failure prints the seed; MODEL_SEED=n runs the rows "random" with that seed.

namespace storage::cloudprovider
{

namespace
{

constexpr int notEmpty = 0;
constexpr int alreadyExists = 3;
constexpr int notFound = 4;
constexpr int unsupported = 11;

/// Entries as text: "a" has no size and is a folder, "a 3" is a file of three bytes.
std::vector<std::string> restOf(fsp::IFolderEntryIterator& iterator, std::size_t most = 1000)
{
    std::vector<std::string> entries;
    while (iterator.hasNext() && entries.size() < most)
    {
        iterator.next();
        const fsp::FolderEntry entry = iterator.getCurrent();
        const std::string size = entry.isFolder() ? "" : " " + std::to_string(entry.fileAttributes().size().value());
        entries.push_back(std::string(entry.name().begin(), entry.name().end()) + size);
    }
    return entries;
}

class TreeModelTest : public FileTest, public testing::WithParamInterface<std::tuple<unsigned, FolderPolicy>>
{
protected:
    TreeModelTest() { setSizes(8, 16); }

    std::string randomPath()
    {
        std::string path(1, static_cast<char>('a' + m_random.below(3)));
        for (std::size_t depth = m_random.below(3); depth != 0; --depth)
        {
            path += std::string("/") + static_cast<char>('a' + m_random.below(3));
        }
        return path;
    }

    // What the model knows.

    bool has(const std::string& key) const { return m_objects.contains(key); }

    std::vector<std::string> keysBelow(const std::string& folder) const
    {
        std::vector<std::string> keys;
        for (auto at = m_objects.lower_bound(folder); at != m_objects.end() && at->first.starts_with(folder); ++at)
        {
            keys.push_back(at->first);
        }
        return keys;
    }

    /// A question about a folder looks at one page, and an empty one says no.
    bool folderSeen(const std::string& path) const { return !m_emptyPages && !keysBelow(path + "/").empty(); }

    /// What lies below a folder's key: every folder once, before the first thing in it.
    std::vector<std::string> entriesBelow(const std::string& folder, bool recursive, bool files, bool folders) const
    {
        std::vector<std::string> entries;
        std::set<std::string> seen;
        for (const std::string& key : keysBelow(folder))
        {
            const std::string name = key.substr(folder.size());
            const std::size_t first = name.find('/');
            for (std::size_t end = first; end != std::string::npos; end = name.find('/', end + 1))
            {
                if ((recursive || end == first) && seen.insert(name.substr(0, end)).second && folders)
                {
                    entries.push_back(name.substr(0, end));
                }
            }
            if (files && !name.empty() && name.back() != '/' && (recursive || first == std::string::npos))
            {
                entries.push_back(name + " " + std::to_string(m_objects.at(key).size()));
            }
        }
        return entries;
    }

    // Operations on both.

    void create()
    {
        const std::string path = randomPath();
        if (m_random.oneIn(2))
        {
            ASSERT_EQ(codeOf([&] { m_tree->createFile(iriOf(path)); }), has(path) ? alreadyExists : succeeds) << path;
            m_objects.try_emplace(path);
            return;
        }
        const std::size_t cut = path.rfind('/');
        const bool parentSeen = cut == std::string::npos || folderSeen(path.substr(0, cut));
        const int code = m_policy != FolderPolicy::MarkerObjects ? unsupported
                         : !parentSeen                           ? notFound
                         : has(path) || has(path + "/")          ? alreadyExists
                                                                 : succeeds;
        ASSERT_EQ(codeOf([&] { m_tree->createFolder(iriOf(path)); }), code) << path;
        if (code == succeeds)
        {
            m_objects[path + "/"];
        }
    }

    void remove()
    {
        const std::string path = randomPath();
        const fsp::StorageIRI iri = iriOf(path);
        std::vector<std::string> removed = keysBelow(path + "/");
        int code = removed.empty() ? notFound : succeeds;
        const std::size_t choice = m_random.below(3);
        if (choice == 0)
        {
            removed = {path};
            code = succeeds;
        }
        else if (choice == 1 && code == succeeds)
        {
            const bool onlyMarker = removed == std::vector{path + "/"};
            code = onlyMarker && m_policy == FolderPolicy::MarkerObjects ? succeeds : notEmpty;
        }
        const auto operation = [&]
        {
            choice == 0   ? m_tree->removeFile(iri)
            : choice == 1 ? m_tree->removeFolder(iri)
                          : m_tree->removeFolderRecursively(iri);
        };
        ASSERT_EQ(codeOf(operation), code) << path << " kind " << choice;
        for (const std::string& key : removed)
        {
            code == succeeds ? m_objects.erase(key) : 0;
        }
    }

    void moveOrCopy()
    {
        const std::string from = randomPath();
        const std::string to = randomPath();
        const auto policy = static_cast<std::uint32_t>(m_random.below(6));
        const bool moves = m_random.oneIn(2);
        const bool refused = moves ? (policy == 0 && has(to)) || folderSeen(to)
                                   : ((policy == 0 || policy == 4) && has(to)) || (m_checksFolders && folderSeen(to));
        const int code = moves && policy > 1 ? unsupported : refused ? alreadyExists : has(from) ? succeeds : notFound;
        const auto operation = [&]
        {
            moves ? m_tree->moveFile(iriOf(from), iriOf(to), fsp::ReplacementPolicy{policy})
                  : m_tree->copyFile(iriOf(from), iriOf(to), fsp::ReplacementPolicy{policy});
        };
        ASSERT_EQ(codeOf(operation), code) << (moves ? "mv " : "cp ") << from << ' ' << to << " policy " << policy;
        if (code == succeeds && from != to)
        {
            m_objects[to] = m_objects[from];
            moves ? m_objects.erase(from) : 0;
        }
    }

    void describe()
    {
        const std::string path = randomPath();
        const fsp::StorageIRI iri = iriOf(path);
        ASSERT_EQ(m_tree->fileExists(iri), has(path)) << path;
        ASSERT_EQ(m_tree->folderExists(iri), folderSeen(path)) << path;
        std::size_t size = 0;
        ASSERT_EQ(
            codeOf([&] { size = m_tree->getFileAttributes(iri).size().value(); }), has(path) ? succeeds : notFound);
        ASSERT_EQ(size, has(path) ? m_objects.at(path).size() : 0) << path;
        const bool marked = m_policy == FolderPolicy::MarkerObjects && has(path + "/");
        boost::posix_time::ptime time;
        ASSERT_EQ(codeOf([&] { time = m_tree->getFolderAttributes(iri).lastModified(); }),
            marked || folderSeen(path) ? succeeds : notFound)
            << path;
        ASSERT_EQ(time, marked ? store->getObjectInfo(path + "/").lastModified : boost::posix_time::ptime()) << path;
    }

    void list()
    {
        const std::string path = m_random.oneIn(4) ? "" : randomPath();
        const std::string folder = path.empty() ? "" : path + "/";
        const std::size_t kind = m_random.below(4); // all, files, folders, recursive
        SCOPED_TRACE("listing \"" + folder + "\" of kind " + std::to_string(kind));
        // An empty first page means that there is no such folder, unless it has a marker. The root is always there.
        const bool found = path.empty() || folderSeen(path) || has(folder);
        fsp::FolderEntryIteratorPtr iterator;
        const auto operation = [&]
        {
            iterator = kind == 0   ? m_tree->listAll(iriOf(path))
                       : kind == 1 ? m_tree->listFiles(iriOf(path))
                       : kind == 2 ? m_tree->listFolders(iriOf(path))
                                   : m_tree->listAllRecursive(iriOf(path));
        };
        ASSERT_EQ(codeOf(operation), found ? succeeds : notFound);
        if (found)
        {
            std::vector<std::string> entries = restOf(*iterator, m_random.below(4));
            const fsp::FolderEntryIteratorPtr clone = iterator->clone();
            const std::vector<std::string> rest = restOf(*iterator);
            ASSERT_EQ(restOf(*clone), rest) << "a clone goes on from the same place";
            entries.insert(entries.end(), rest.begin(), rest.end());
            ASSERT_EQ(entries, entriesBelow(folder, kind == 3, kind != 2, kind != 1));
        }
    }

    void changeBehindTheProvider()
    {
        const std::string key = randomPath() + (m_random.oneIn(3) ? "/" : "");
        if (m_random.oneIn(2))
        {
            store->remove(key);
            m_objects.erase(key);
            return;
        }
        m_objects[key] = m_random.bytes(key.back() == '/' ? 0 : m_random.below(40));
        store->put(key, m_objects[key]);
    }

    void compare() const
    {
        std::map<std::string, std::string> stored;
        for (const std::string& key : store->keys())
        {
            stored[key] = store->get(key).value_or("");
        }
        ASSERT_EQ(stored, m_objects);
    }

    Random m_random{std::get<0>(GetParam())};
    const FolderPolicy m_policy = std::get<1>(GetParam());
    const bool m_checksFolders = m_random.oneIn(2);
    const std::shared_ptr<CloudProvider> m_tree = buildCloudProvider(faults, m_policy, m_checksFolders);
    std::map<std::string, std::string> m_objects; // the model
    bool m_emptyPages = false;
};

TEST_P(TreeModelTest, TreesAreWhatAMapOfKeysWouldBe)
{
    const Watchdog watchdog("the model of trees, seed " + std::to_string(m_random.seed));
    for (int i = 0; i < 1500; ++i)
    {
        SCOPED_TRACE("seed " + std::to_string(m_random.seed) + ", step " + std::to_string(i));
        m_emptyPages = m_random.oneIn(8);
        faults->setEmptyPages(m_emptyPages ? static_cast<unsigned>(m_random.between(1, 3)) : 0);
        store->setPageSize(m_random.between(1, 5));
        const std::size_t choice = m_random.below(10);
        ASSERT_NO_FATAL_FAILURE(choice < 2   ? create()
                                : choice < 3 ? remove()
                                : choice < 5 ? moveOrCopy()
                                : choice < 6 ? describe()
                                : choice < 9 ? list()
                                             : changeBehindTheProvider());
        ASSERT_NO_FATAL_FAILURE(compare());
    }
    EXPECT_THAT(store->openUploads(), testing::IsEmpty());
    EXPECT_TRUE(temp.isEmpty());
}

INSTANTIATE_TEST_SUITE_P(Seeds, TreeModelTest,
    testing::Combine(testing::Range(0U, 4U), testing::Values(FolderPolicy::MarkerObjects, FolderPolicy::KeyPrefixes)),
    [](const auto& row)
    {
        const bool markers = std::get<1>(row.param) == FolderPolicy::MarkerObjects;
        return seedName(std::get<0>(row.param)) + (markers ? "MarkerObjects" : "KeyPrefixes");
    });

} // namespace

} // namespace storage::cloudprovider
