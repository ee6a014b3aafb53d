#include "SmallProvider.hpp"

#include <fl/filesystem.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <boost/filesystem/operations.hpp>

#include <functional>
#include <string>

namespace
{

using fsp::ErrorCode;
using fsp::StorageIRI;
using ::testing::ElementsAre;

const StorageIRI root(u"x://h");
const std::string bigContent(200'000, 'b');

std::vector<std::u16string> namesOf(fsp::IFolderEntryIterator& it)
{
    std::vector<std::u16string> names;
    while (it.hasNext())
    {
        it.next();
        names.push_back(it.getCurrent().name());
    }
    return names;
}

class ProviderDefaultsTest : public ::testing::Test
{
protected:
    SmallProvider m_provider;
    const StorageIRI m_file = root.getChild(u"file");
};

TEST_F(ProviderDefaultsTest, CreatesMissingFoldersOutermostFirst)
{
    m_provider.nodes[u"/a"] = std::nullopt;
    for (int again = 0; again < 2; ++again)
    {
        m_provider.createFolderRecursive(root.getChild(u"a/b/c"));
        EXPECT_THAT(m_provider.createdFolders, ElementsAre(u"/a/b", u"/a/b/c"));
    }

    m_provider.othersCreateFolders = true;
    m_provider.createFolderRecursive(root.getChild(u"x/y"));
    EXPECT_TRUE(m_provider.folderExists(root.getChild(u"x/y")));

    m_provider.othersCreateFolders = false;
    m_provider.nodes[u"/file"] = "";
    EXPECT_EQ(
        codeOf([&] { m_provider.createFolderRecursive(root.getChild(u"file/d")); }, m_file), ErrorCode::AlreadyExists);
    EXPECT_FALSE(m_provider.folderExists(root.getChild(u"file/d")));
}

TEST_F(ProviderDefaultsTest, DescribesWhateverIsThere)
{
    m_provider.nodes[u"/file"] = "abc";
    m_provider.nodes[u"/folder"] = std::nullopt;
    const StorageIRI folder = root.getChild(u"folder");
    const StorageIRI missing = root.getChild(u"missing");
    EXPECT_TRUE(m_provider.exists(m_file));
    EXPECT_TRUE(m_provider.exists(folder));
    EXPECT_FALSE(m_provider.exists(missing));
    EXPECT_EQ(m_provider.existsExtended(m_file), fsp::ResourceKind::File);
    EXPECT_EQ(m_provider.existsExtended(folder), fsp::ResourceKind::Folder);
    EXPECT_EQ(m_provider.existsExtended(missing), fsp::ResourceKind::None);
    EXPECT_EQ(
        m_provider.getExtendedAttributes(m_file), (fsp::ExtendedAttributes{fsp::ResourceKind::File, 3, {}, true}));
    EXPECT_EQ(m_provider.getExtendedAttributes(folder),
        (fsp::ExtendedAttributes{fsp::ResourceKind::Folder, std::nullopt, {}, false}));
    EXPECT_EQ(codeOf([&] { m_provider.getExtendedAttributes(missing); }, missing), ErrorCode::NotFound);
    EXPECT_EQ(m_provider.getCanonicalLocation(m_file), m_file);
    EXPECT_TRUE(m_provider.getPathComparator()(m_file, folder));
    EXPECT_FALSE(m_provider.getPathComparator()(folder, m_file));
    EXPECT_EQ(m_provider.getFilenameSensitivity(), fsp::FilenameSensitivity::CaseSensitive);
    m_provider.shutdown();
}

TEST_F(ProviderDefaultsTest, FiltersEveryListingByTheLastName)
{
    m_provider.nodes = {{u"/ab", ""}, {u"/ac", std::nullopt}, {u"/b", std::nullopt}, {u"/b/aa", ""}, {u"/b/c", ""}};
    using P = fsp::IProvider;
    using Names = std::vector<std::u16string>;
    struct Row
    {
        fsp::FolderEntryIteratorPtr (P::*plain)(const StorageIRI&) const;
        fsp::FolderEntryIteratorPtr (P::*filtered)(const StorageIRI&, const std::u16string&) const;
        fsp::FolderEntryIteratorPtr (P::*filteredNames)(const StorageIRI&, const std::u16string&) const;
        Names all, matching;
    };
    const std::u16string pattern = u"a*";
    const P& p = m_provider;
    for (const Row& row : std::vector<Row>{{&P::listAllNamesOnly, &P::listAllWildcards, &P::listAllNamesOnlyWildcards,
                                               {u"ab", u"ac", u"b"}, {u"ab", u"ac"}},
             {&P::listFilesNamesOnly, &P::listFilesWildcards, &P::listFilesNamesOnlyWildcards, {u"ab"}, {u"ab"}},
             {&P::listFoldersNamesOnly, &P::listFoldersWildcards, &P::listFoldersNamesOnlyWildcards, {u"ac", u"b"},
                 {u"ac"}},
             {&P::listAllRecursiveNamesOnly, &P::listAllRecursiveWildcards, &P::listAllRecursiveNamesOnlyWildcards,
                 {u"ab", u"ac", u"b", u"b/aa", u"b/c"}, {u"ab", u"ac", u"b/aa"}}})
    {
        EXPECT_EQ(namesOf(*(p.*row.plain)(root)), row.all);
        EXPECT_EQ(namesOf(*(p.*row.filtered)(root, pattern)), row.matching);
        EXPECT_EQ(namesOf(*(p.*row.filteredNames)(root, pattern)), row.matching);
    }

    const auto it = p.listAllRecursiveWildcards(root, pattern);
    it->next();
    const auto clone = it->clone();
    EXPECT_EQ(clone->getCurrent(), it->getCurrent());
    EXPECT_THAT(namesOf(*it), ElementsAre(u"ac", u"b/aa"));
    EXPECT_THAT(namesOf(*clone), ElementsAre(u"ac", u"b/aa"));
}

struct Glob
{
    const char16_t* pattern;
    std::vector<std::u16string> matching;
    std::vector<std::u16string> others;
};

TEST_F(ProviderDefaultsTest, MatchesGlobs)
{
    const std::u16string many(5000, u'a');
    for (const Glob& glob : std::vector<Glob>{
             {u"", {u""}, {u"a"}},
             {u"*", {u"", u"a", many}, {}},
             {u"?", {u"a", u"?", u"\U0001f600"}, {u"", u"ab"}},
             {u"a*b*c", {u"abc", u"axbxbxc", u"abcbc"}, {u"ac", u"abcd", u"acb", u"Abc"}},
             {u"*.tx?", {u".txt", u"a.b.txx"}, {u"a.tx", u"txt"}},
             {u"[a-cx]", {u"a", u"b", u"c", u"x"}, {u"d", u"-", u"", u"ab"}},
             {u"[!a-c]", {u"d", u"!", u"\U0001f600"}, {u"a", u"c", u""}},
             {u"[^a]*", {u"b", u"ba", u"^"}, {u"a", u"ab", u""}},
             {u"[]a]", {u"]", u"a"}, {u"[", u"[]a]"}},
             {u"[!]a]", {u"b"}, {u"]", u"a"}},
             {u"[a-]", {u"a", u"-"}, {u"b"}},
             {u"[*?]", {u"*", u"?"}, {u"a"}},
             {u"[\u00e4\U0001f600]", {u"\u00e4", u"\U0001f600"}, {u"a", u"\U0001f601"}},
             {u"a[b", {u"a[b"}, {u"ab"}},
             {u"[]", {u"[]"}, {u"", u"]"}},
             // Exponential matchers do not come back from this one.
             {u"a*a*a*a*a*a*a*a*a*a*a*a*b", {many + u"b"}, {many}},
         })
    {
        SmallProvider provider;
        for (const auto* names : {&glob.matching, &glob.others})
            for (const auto& name : *names)
                provider.nodes[u"/" + name] = "";
        EXPECT_THAT(namesOf(*provider.listFilesWildcards(root, glob.pattern)),
            ::testing::UnorderedElementsAreArray(glob.matching))
            << ::testing::PrintToString(glob.pattern);
    }
}

TEST_F(ProviderDefaultsTest, TransactionalStreamsReplaceTheFileWhenClosed)
{
    m_provider.nodes[u"/file"] = "old";
    const auto folder = boost::filesystem::temp_directory_path() / boost::filesystem::unique_path("fl %%%%");
    boost::filesystem::create_directory(folder);
    const StorageIRI scratch = StorageIRI(u"file:///").getChild(fl::filesystem::path(folder.string()).u16string());

    m_provider.openTransactionalStream(m_file)->write("dropped", 7);
    EXPECT_EQ(m_provider.nodes[u"/file"], "old");

    const auto stream = m_provider.openTransactionalStreamAtScratchLocation(m_file, scratch);
    EXPECT_EQ(stream->write(bigContent.data(), 200'000), 200'000);
    EXPECT_EQ(stream->seek(-1, std::ios_base::end), 199'999);
    EXPECT_EQ(stream->write("X", 1), 1);
    char last = ' ';
    EXPECT_EQ(stream->read(&last, 1), -1);
    stream->seek(-1, std::ios_base::cur);
    EXPECT_EQ(stream->read(&last, 1), 1);
    EXPECT_EQ(last, 'X');
    EXPECT_THROW(stream->seek(-1, std::ios_base::beg), fsp::ByteStreamSeekFailure);
    EXPECT_EQ(m_provider.nodes[u"/file"], "old");
    stream->close();
    EXPECT_EQ(m_provider.nodes[u"/file"], bigContent.substr(1) + 'X');
    stream->close();
    EXPECT_THROW(stream->write("x", 1), fsp::ByteStreamWriteFailure);
    EXPECT_TRUE(boost::filesystem::is_empty(folder));
    boost::filesystem::remove(folder);

    EXPECT_EQ(codeOf([&] { m_provider.openTransactionalStreamAtScratchLocation(m_file, scratch); }, m_file),
        ErrorCode::Unknown)
        << "the scratch folder is gone";
    EXPECT_EQ(codeOf([&] { m_provider.openTransactionalStreamAtScratchLocation(m_file, root); }, root),
        ErrorCode::InvalidLocation);
}

TEST_F(ProviderDefaultsTest, TransactionalStreamsReportAFailedCopyWhenClosed)
{
    m_provider.nodes[u"/file"] = "old";
    m_provider.failingStreams = true;
    const auto stream = m_provider.openTransactionalStream(m_file);
    stream->write("new", 3);
    EXPECT_THROW(stream->close(), fsp::ByteStreamCloseFailure);
    stream->close();
    EXPECT_EQ(m_provider.nodes[u"/file"], "old");
}

TEST_F(ProviderDefaultsTest, CopiesAtomically)
{
    using fsp::ReplacementPolicy;
    const StorageIRI copy = root.getChild(u"copy");
    m_provider.nodes[u"/file"] = bigContent;
    m_provider.copyFileAtomic(m_file, copy, ReplacementPolicy::Fail);
    EXPECT_EQ(m_provider.nodes[u"/copy"], bigContent);

    m_provider.nodes[u"/copy"] = "old";
    EXPECT_EQ(codeOf([&] { m_provider.copyFileAtomic(m_file, copy, ReplacementPolicy::Fail); }, copy),
        ErrorCode::AlreadyExists);
    EXPECT_EQ(
        codeOf([&] { m_provider.copyFileAtomic(m_file, copy, ReplacementPolicy(2)); }, copy), ErrorCode::Unsupported);
    m_provider.failingStreams = true;
    EXPECT_EQ(codeOf([&] { m_provider.copyFileAtomic(m_file, copy, ReplacementPolicy::Replace); }, m_file),
        ErrorCode::PermissionDenied);
    EXPECT_EQ(m_provider.nodes[u"/copy"], "old");
    m_provider.failingStreams = false;
    m_provider.copyFileAtomic(m_file, copy, ReplacementPolicy::Replace);
    EXPECT_EQ(m_provider.nodes[u"/copy"], bigContent);
}

TEST_F(ProviderDefaultsTest, SetsASizeOnlyWhereNoKeptByteIsAtRisk)
{
    m_provider.nodes[u"/file"] = "abc";
    for (const auto& [size, expected] : std::vector<std::pair<std::uint64_t, std::string>>{
             {3, "abc"}, {100'000, "abc" + std::string(99'997, '\0')}, {0, ""}, {2, std::string(2, '\0')}})
    {
        m_provider.truncateToSize(m_file, size);
        EXPECT_EQ(m_provider.nodes[u"/file"], expected);
    }
    EXPECT_EQ(codeOf([&] { m_provider.truncateToSize(m_file, 1); }, m_file), ErrorCode::Unsupported);
    m_provider.failingStreams = true;
    EXPECT_EQ(codeOf([&] { m_provider.truncateToSize(m_file, 9); }, m_file), ErrorCode::Unknown);
    EXPECT_EQ(m_provider.nodes[u"/file"], std::string(2, '\0'));
    const StorageIRI missing = root.getChild(u"missing");
    EXPECT_EQ(codeOf([&] { m_provider.truncateToSize(missing, 0); }, missing), ErrorCode::NotFound);
}

TEST_F(ProviderDefaultsTest, RefusesWhatNobodyImplements)
{
    class : public fsp::IProvider
    {
    } const p;
    const auto policy = fsp::ReplacementPolicy::Replace;
    using Refused = std::vector<std::function<void()>>;
    for (const auto& operation : Refused{[&] { p.createFile(m_file); }, [&] { p.createFolder(m_file); },
             [&] { p.fileExists(m_file); }, [&] { p.folderExists(m_file); }, [&] { p.removeFile(m_file); },
             [&] { p.moveFile(m_file, root, policy); }, [&] { p.removeFolder(m_file); },
             [&] { p.removeFolderRecursively(m_file); }, [&] { p.moveFolder(m_file, root, policy); },
             [&] { p.getFileAttributes(m_file); }, [&] { p.getFolderAttributes(m_file); },
             [&] { p.openStream(m_file, {}); }, [&] { p.openReadOnlyStream(m_file); }, [&] { p.listAll(m_file); },
             [&] { p.listFiles(m_file); }, [&] { p.listFolders(m_file); }, [&] { p.listAllRecursive(m_file); },
             [&] { p.copyFile(m_file, root, policy); }, [&] { p.setLastModified(m_file, {}); },
             [&] { p.setWritable(m_file, true); }, [&] { p.publishFolderEventsFor(m_file); },
             [&] { p.publishFileEventsFor(m_file); }, [&] { p.stopPublishingEventsFor(m_file); },
             [&] { p.startChangePollingMechanism(m_file); }, [&] { p.stopChangePollingMechanism(m_file); },
             [&] { p.getProviderStorageInfo(m_file); }, [&] { p.getProviderCacheUsage(m_file); }})
        EXPECT_EQ(codeOf(operation, m_file), ErrorCode::Unsupported);
}

} // namespace
