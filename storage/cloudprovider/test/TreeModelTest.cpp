#include "ProviderTest.hpp"

#include <array>
#include <map>
#include <set>

// Random operations on a tree of files and folders, each also done on a std::map of keys, while the store changes
// behind the provider's back. A failure prints the seed; MODEL_SEED=n runs the row 0 with that seed.

namespace storage::cloudprovider
{

namespace
{

/// The next entries as text: "a" is a folder, "a/" one with the time of its marker, "a 3" a file of three bytes.
std::vector<std::string> takeEntries(fsp::IFolderEntryIterator& iterator, std::size_t max = 1000)
{
    std::vector<std::string> entries;
    while (iterator.hasNext() && entries.size() < max)
    {
        iterator.next();
        const fsp::FolderEntry entry = iterator.getCurrent();
        const bool isMarked = entry.isFolder() && entry.folderAttributes().lastModified() == utils::long2Ptime(5000);
        const std::string size = entry.isFolder() ? "" : " " + std::to_string(entry.fileAttributes().size().value());
        entries.push_back(std::string(entry.name().begin(), entry.name().end()) + (isMarked ? "/" : size));
    }
    return entries;
}

class TreeModelTest : public ProviderTest, public testing::WithParamInterface<unsigned>
{
protected:
    std::string randomPath()
    {
        std::string path(1, static_cast<char>('a' + m_random.below(3)));
        for (std::size_t depth = m_random.below(3); depth != 0; --depth)
        {
            path += std::string("/") + static_cast<char>('a' + m_random.below(3));
        }
        return path;
    }

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

    bool folderSeen(const std::string& path) const { return !keysBelow(path + "/").empty(); }

    /// What a listing returns: every folder once, before the first entry in it.
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
                    const bool isMarked = has(key.substr(0, folder.size() + end + 1));
                    entries.push_back(name.substr(0, isMarked ? end + 1 : end));
                }
            }
            if (files && !name.empty() && name.back() != '/' && (recursive || first == std::string::npos))
            {
                entries.push_back(name + " " + std::to_string(m_objects.at(key).size()));
            }
        }
        return entries;
    }

    void create()
    {
        const std::string path = randomPath();
        const std::size_t cut = path.rfind('/');
        const bool parentSeen = cut == std::string::npos || folderSeen(path.substr(0, cut));
        const bool isFile = m_random.oneIn(2);
        const std::string reason = isFile                         ? has(path) ? "AlreadyExists" : "done"
                                   : !m_hasMarkers                ? "Unsupported"
                                   : !parentSeen                  ? "NotFound"
                                   : has(path) || has(path + "/") ? "AlreadyExists"
                                                                  : "done";
        const auto operation = [&] { isFile ? m_tree->createFile(iriOf(path)) : m_tree->createFolder(iriOf(path)); };
        ASSERT_EQ(reasonOf(operation), reason) << path;
        if (reason == "done")
        {
            m_objects[isFile ? path : path + "/"] = "";
        }
    }

    void remove()
    {
        const std::string path = randomPath();
        const fsp::StorageIRI iri = iriOf(path);
        const std::size_t kind = m_random.below(3); // file, folder, folder recursively
        const std::vector<std::string> removed = kind == 0 ? std::vector{path} : keysBelow(path + "/");
        const bool isEmptyFolder = m_hasMarkers && removed == std::vector{path + "/"};
        const std::string reason = removed.empty()               ? "NotFound"
                                   : kind == 1 && !isEmptyFolder ? "FolderNotEmpty"
                                                                 : "done";
        const auto operation = [&] {
            kind == 0   ? m_tree->removeFile(iri)
            : kind == 1 ? m_tree->removeFolder(iri)
                        : m_tree->removeFolderRecursively(iri);
        };
        ASSERT_EQ(reasonOf(operation), reason) << path << " kind " << kind;
        for (const std::string& key : removed)
        {
            reason == "done" ? m_objects.erase(key) : 0;
        }
    }

    void moveOrCopy()
    {
        const std::string from = randomPath();
        const std::string to = randomPath();
        const auto policy = static_cast<std::uint32_t>(m_random.below(6));
        const std::size_t kind = m_random.below(3); // move, copy, copy atomically
        const bool isRefused = (policy == 0 && has(to)) || (kind == 0 && folderSeen(to)) ||
                               (kind == 1 && ((policy == 4 && has(to)) || (m_checksFolders && folderSeen(to))));
        const std::string reason = kind != 1 && policy > 1 ? "Unsupported"
                                   : isRefused             ? "AlreadyExists"
                                   : has(from)             ? "done"
                                                           : "NotFound";
        const auto transfer =
            std::array{&fsp::IProvider::moveFile, &fsp::IProvider::copyFile, &fsp::IProvider::copyFileAtomic}.at(kind);
        const auto operation = [&] { ((*m_tree).*transfer)(iriOf(from), iriOf(to), fsp::ReplacementPolicy{policy}); };
        ASSERT_EQ(reasonOf(operation), reason) << from << " to " << to << " kind " << kind << " policy " << policy;
        if (reason == "done" && from != to)
        {
            m_objects[to] = m_objects[from];
            kind == 0 ? m_objects.erase(from) : 0;
        }
    }

    void describe()
    {
        const std::string path = randomPath();
        const fsp::StorageIRI iri = iriOf(path);
        ASSERT_EQ(m_tree->fileExists(iri), has(path)) << path;
        ASSERT_EQ(m_tree->folderExists(iri), folderSeen(path)) << path;
        std::size_t size = 0;
        const auto describeFile = [&] { size = m_tree->getFileAttributes(iri).size().value(); };
        ASSERT_EQ(reasonOf(describeFile), has(path) ? "done" : "NotFound");
        ASSERT_EQ(size, has(path) ? m_objects.at(path).size() : 0) << path;
        const bool isMarked = m_hasMarkers && has(path + "/");
        boost::posix_time::ptime time;
        const auto describeFolder = [&] { time = m_tree->getFolderAttributes(iri).lastModified(); };
        ASSERT_EQ(reasonOf(describeFolder), isMarked || folderSeen(path) ? "done" : "NotFound") << path;
        ASSERT_EQ(time, isMarked ? utils::long2Ptime(5000) : boost::posix_time::ptime()) << path;
        using fsp::ResourceKind;
        const ResourceKind kind = has(path)          ? ResourceKind::File
                                  : folderSeen(path) ? ResourceKind::Folder
                                                     : ResourceKind::None;
        ASSERT_EQ(m_tree->exists(iri), kind != ResourceKind::None) << path;
        ASSERT_EQ(m_tree->existsExtended(iri), kind) << path;
        fsp::ExtendedAttributes expected{kind, std::nullopt, time, true};
        if (has(path))
        {
            expected = {kind, size, utils::long2Ptime(5000), true};
        }
        const auto describeAny = [&] { EXPECT_EQ(m_tree->getExtendedAttributes(iri), expected) << path; };
        ASSERT_EQ(reasonOf(describeAny), kind == ResourceKind::None ? "NotFound" : "done") << path;
    }

    void list()
    {
        const std::string path = m_random.oneIn(4) ? "" : randomPath();
        const std::string folder = path.empty() ? "" : path + "/";
        const std::size_t kind = m_random.below(4); // all, files, folders, recursive
        SCOPED_TRACE("listing \"" + folder + "\" of kind " + std::to_string(kind));
        const bool found = path.empty() || folderSeen(path);
        fsp::FolderEntryIteratorPtr iterator;
        const auto operation = [&]
        {
            iterator = kind == 0   ? m_tree->listAll(iriOf(path))
                       : kind == 1 ? m_tree->listFiles(iriOf(path))
                       : kind == 2 ? m_tree->listFolders(iriOf(path))
                                   : m_tree->listAllRecursive(iriOf(path));
        };
        ASSERT_EQ(reasonOf(operation), found ? "done" : "NotFound");
        if (found)
        {
            std::vector<std::string> entries = takeEntries(*iterator, m_random.below(4));
            const fsp::FolderEntryIteratorPtr clone = iterator->clone();
            const std::vector<std::string> rest = takeEntries(*iterator);
            ASSERT_EQ(takeEntries(*clone), rest) << "a clone continues at the same place";
            entries.insert(entries.end(), rest.begin(), rest.end());
            ASSERT_EQ(entries, entriesBelow(folder, kind == 3, kind != 2, kind != 1));
        }
    }

    void changeBehindTheProvider()
    {
        const std::string key = randomPath() + (m_random.oneIn(3) ? "/" : "");
        m_objects.erase(key);
        store->remove(key);
        if (m_random.oneIn(2))
        {
            m_objects[key] = m_random.bytes(key.back() == '/' ? 0 : m_random.below(40));
            store->put(key, m_objects[key]);
        }
    }

    Random m_random{GetParam()};
    const bool m_hasMarkers = m_random.oneIn(2);
    const bool m_checksFolders = m_random.oneIn(2);
    const std::shared_ptr<CloudProvider> m_tree = buildCloudProvider(
        faults, m_hasMarkers ? FolderPolicy::MarkerObjects : FolderPolicy::KeyPrefixes, m_checksFolders);
    std::map<std::string, std::string> m_objects; // the model
};

TEST_P(TreeModelTest, TreesBehaveLikeMapsOfKeys)
{
    setSizes(8, 16);
    for (int i = 0; i < 1500; ++i)
    {
        SCOPED_TRACE("seed " + std::to_string(m_random.seed) + ", step " + std::to_string(i));
        faults->setEmptyPages(m_random.oneIn(8) ? static_cast<unsigned>(m_random.between(1, 3)) : 0);
        store->setPageSize(m_random.between(1, 5));
        const std::size_t choice = m_random.below(10);
        ASSERT_NO_FATAL_FAILURE(choice < 2   ? create()
                                : choice < 3 ? remove()
                                : choice < 5 ? moveOrCopy()
                                : choice < 6 ? describe()
                                : choice < 9 ? list()
                                             : changeBehindTheProvider());
        std::map<std::string, std::string> objects;
        for (const std::string& key : store->keys())
        {
            objects[key] = store->get(key).value_or("");
        }
        ASSERT_EQ(objects, m_objects);
    }
}

INSTANTIATE_TEST_SUITE_P(Seeds, TreeModelTest, testing::Range(0U, 8U));

} // namespace

} // namespace storage::cloudprovider
