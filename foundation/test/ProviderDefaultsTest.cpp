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
    using fsp::ResourceKind;
    m_provider.nodes = {{u"/file", "abc"}, {u"/folder", std::nullopt}};
    const StorageIRI folder = root.getChild(u"folder");
    const StorageIRI missing = root.getChild(u"missing");
    EXPECT_TRUE(m_provider.exists(folder));
    EXPECT_EQ(m_provider.existsExtended(m_file), ResourceKind::File);
    EXPECT_EQ(m_provider.existsExtended(missing), ResourceKind::None);
    EXPECT_EQ(m_provider.getExtendedAttributes(m_file), (fsp::ExtendedAttributes{ResourceKind::File, 3, {}, true}));
    EXPECT_EQ(m_provider.getExtendedAttributes(folder),
        (fsp::ExtendedAttributes{ResourceKind::Folder, std::nullopt, {}, false}));
    EXPECT_EQ(codeOf([&] { m_provider.getExtendedAttributes(missing); }, missing), ErrorCode::NotFound);
    EXPECT_TRUE(m_provider.getPathComparator()(m_file, folder));
    EXPECT_FALSE(m_provider.getPathComparator()(folder, m_file));
}

TEST_F(ProviderDefaultsTest, FiltersEveryListingByTheLastName)
{
    m_provider.nodes = {{u"/ab", ""}, {u"/ac", std::nullopt}, {u"/b", std::nullopt}, {u"/b/aa", ""}, {u"/b/c", ""}};
    const std::u16string pattern = u"a*";
    const fsp::IProvider& p = m_provider;
    EXPECT_THAT(namesOf(*p.listAllNamesOnly(root)), ElementsAre(u"ab", u"ac", u"b"));
    EXPECT_THAT(namesOf(*p.listAllWildcards(root, pattern)), ElementsAre(u"ab", u"ac"));
    EXPECT_THAT(namesOf(*p.listAllNamesOnlyWildcards(root, pattern)), ElementsAre(u"ab", u"ac"));
    EXPECT_THAT(namesOf(*p.listFilesNamesOnly(root)), ElementsAre(u"ab"));
    EXPECT_THAT(namesOf(*p.listFilesNamesOnlyWildcards(root, pattern)), ElementsAre(u"ab"));
    EXPECT_THAT(namesOf(*p.listFoldersNamesOnly(root)), ElementsAre(u"ac", u"b"));
    EXPECT_THAT(namesOf(*p.listFoldersWildcards(root, pattern)), ElementsAre(u"ac"));
    EXPECT_THAT(namesOf(*p.listFoldersNamesOnlyWildcards(root, pattern)), ElementsAre(u"ac"));
    EXPECT_THAT(namesOf(*p.listAllRecursiveNamesOnly(root)), ElementsAre(u"ab", u"ac", u"b", u"b/aa", u"b/c"));
    EXPECT_THAT(namesOf(*p.listAllRecursiveNamesOnlyWildcards(root, pattern)), ElementsAre(u"ab", u"ac", u"b/aa"));

    const auto it = p.listAllRecursiveWildcards(root, pattern);
    it->next();
    const auto clone = it->clone();
    EXPECT_EQ(clone->getCurrent(), it->getCurrent());
    EXPECT_THAT(namesOf(*it), ElementsAre(u"ac", u"b/aa"));
    EXPECT_THAT(namesOf(*clone), ElementsAre(u"ac", u"b/aa"));
}

TEST_F(ProviderDefaultsTest, MatchesGlobs)
{
    const std::u16string many(5000, u'a');
    struct Glob
    {
        const char16_t* pattern;
        std::vector<std::u16string> matching;
        std::vector<std::u16string> others;
    };
    for (const Glob& glob : std::vector<Glob>{{u"", {u""}, {u"a"}}, {u"*", {u"", u"a", many}, {}},
             {u"?", {u"a", u"?", u"\U0001f600"}, {u"", u"ab"}},
             {u"a*b*c", {u"abc", u"axbxbxc", u"abcbc"}, {u"ac", u"abcd", u"acb", u"Abc"}},
             {u"[a-cx]", {u"a", u"b", u"c", u"x"}, {u"d", u"-", u"", u"ab"}},
             {u"[!a-c]", {u"d", u"!", u"\U0001f600"}, {u"a", u"c", u""}},
             {u"[^a]*", {u"b", u"ba", u"^"}, {u"a", u"ab", u""}}, {u"[]a]", {u"]", u"a"}, {u"[", u"[]a]"}},
             {u"[!]a]", {u"b"}, {u"]", u"a"}}, {u"[a-]", {u"a", u"-"}, {u"b"}}, {u"a[b", {u"a[b"}, {u"ab"}},
             {u"[]", {u"[]"}, {u"", u"]"}},
             // Exponential matchers do not come back from this one.
             {u"a*a*a*a*a*a*a*a*a*a*a*a*b", {many + u"b"}, {many}}})
    {
        m_provider.nodes.clear();
        for (const auto* names : {&glob.matching, &glob.others})
        {
            for (const auto& name : *names)
            {
                m_provider.nodes[u"/" + name] = "";
            }
        }
        EXPECT_THAT(namesOf(*m_provider.listFilesWildcards(root, glob.pattern)),
            ::testing::UnorderedElementsAreArray(glob.matching))
            << ::testing::PrintToString(glob.pattern);
    }
}

TEST_F(ProviderDefaultsTest, TransactionalStreamsReplaceTheFileWhenClosed)
{
    m_provider.nodes[u"/file"] = "old";
    m_provider.openTransactionalStream(m_file)->write("dropped", 7);
    const auto stream = m_provider.openTransactionalStream(m_file);
    EXPECT_EQ(stream->write(bigContent.data(), 200'000), 200'000);
    EXPECT_EQ(stream->seek(-1, std::ios_base::end), 199'999);
    char last = ' ';
    EXPECT_EQ(stream->read(&last, 1), 1);
    EXPECT_EQ(stream->read(&last, 1), -1);
    EXPECT_THROW(stream->seek(-1, std::ios_base::beg), fsp::ByteStreamSeekFailure);
    EXPECT_EQ(m_provider.nodes[u"/file"], "old");
    stream->close();
    EXPECT_EQ(m_provider.nodes[u"/file"], bigContent);
    EXPECT_THROW(stream->write("x", 1), fsp::ByteStreamWriteFailure);

    m_provider.failingStreams = true;
    const auto failing = m_provider.openTransactionalStream(m_file);
    failing->write("new", 3);
    EXPECT_THROW(failing->close(), fsp::ByteStreamCloseFailure);
    failing->close();
    EXPECT_EQ(m_provider.nodes[u"/file"], bigContent);
}

TEST_F(ProviderDefaultsTest, TransactionsLeaveNothingWhereTheyKeepTheirBytes)
{
    m_provider.nodes[u"/file"] = "old";
    const auto folder = boost::filesystem::temp_directory_path() / boost::filesystem::unique_path("fl %%%%");
    boost::filesystem::create_directory(folder);
    const StorageIRI scratch = StorageIRI(u"file:///").getChild(fl::filesystem::path(folder.string()).u16string());
    const auto open = [&](const StorageIRI& place)
    { m_provider.openTransactionalStreamAtScratchLocation(m_file, place); };
    open(scratch);
    EXPECT_TRUE(boost::filesystem::is_empty(folder));
    boost::filesystem::remove(folder);
    EXPECT_EQ(codeOf([&] { open(scratch); }, m_file), ErrorCode::Unknown) << "the scratch folder is gone";
    EXPECT_EQ(codeOf([&] { open(root); }, root), ErrorCode::InvalidLocation);
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
    using Refused = std::vector<std::function<void()>>;
    for (const auto& operation : Refused{[&] { p.createFile(m_file); }, [&] { p.fileExists(m_file); },
             [&] { p.moveFile(m_file, root, {}); }, [&] { p.getFolderAttributes(m_file); },
             [&] { p.openStream(m_file, {}); }, [&] { p.listAll(m_file); }, [&] { p.setLastModified(m_file, {}); },
             [&] { p.publishFileEventsFor(m_file); }, [&] { p.getProviderCacheUsage(m_file); }})
    {
        EXPECT_EQ(codeOf(operation, m_file), ErrorCode::Unsupported);
    }
}

} // namespace
