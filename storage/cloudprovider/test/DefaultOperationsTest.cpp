#include "ProviderTest.hpp"

#include <fl/i18n.hpp>

#include <fcntl.h>

// The operations that the provider does not override. The framework implements them by calling other operations.

namespace storage::cloudprovider
{

namespace
{

using namespace std::string_literals;
using testing::StartsWith;

class DefaultOperationsTest : public ProviderTest
{
protected:
    DefaultOperationsTest() { store->put("file", "old"); }

    /// The names that the listings give: "a b | c | ".
    static std::string namesOf(std::initializer_list<fsp::FolderEntryIteratorPtr> listings)
    {
        std::string names;
        for (const auto& it : listings)
        {
            while (it->hasNext())
            {
                it->next();
                names += fl::i18n::to_string(it->getCurrent().name()) + " ";
            }
            names += "| ";
        }
        return names;
    }

    const fsp::StorageIRI file = iriOf("file");
    const fsp::StorageIRI folder = iriOf("folder");
    const std::string big = numberedBytes(200'000);
};

TEST_F(DefaultOperationsTest, CreateMissingFoldersOutermostFirst)
{
    const auto create = [&](const std::string& path)
    { return outcome([&] { provider->createFolderRecursive(iriOf(path)); }); };
    EXPECT_EQ(create("a/b/c"), "done");
    EXPECT_EQ(create("a/b/c"), "done") << "existing folders are no failure";
    EXPECT_EQ(create("file/d"), "AlreadyExists: mem://test/file");
    faults->setHook([&](Operation operation, const std::string&)
        { operation == Operation::GetObjectInfo ? store->put("raced/", "") : void(); });
    EXPECT_EQ(create("raced/d"), "done") << "another process creates the folder after it was found missing";
    EXPECT_THAT(store->keys(), testing::ElementsAre("a/", "a/b/", "a/b/c/", "file", "raced/", "raced/d/"));
}

TEST_F(DefaultOperationsTest, FilterEveryListingByTheLastName)
{
    // What has an empty segment, or a segment ".", is not listed: its IRI names something else.
    for (const char* key : {"folder//x", "folder/./x", "folder/.", "folder/ab", "folder/ac/", "folder/b/", "folder/b//",
             "folder/b/aa", "folder/b/c", "odd//x", "odd/./", "odd/.//x"})
    {
        store->put(key, "");
    }
    const fsp::IProvider& p = *provider;
    EXPECT_EQ(namesOf({p.listAllNamesOnly(folder), p.listFilesNamesOnly(folder), p.listFoldersNamesOnly(folder),
                  p.listAllRecursiveNamesOnly(folder)}),
        "ab ac b | ab | ac b | ab ac b b/aa b/c | ");
    const fsp::StorageIRI odd = iriOf("odd");
    EXPECT_TRUE(p.folderExists(odd));
    EXPECT_EQ(namesOf({p.listAll(odd), p.listAllRecursive(odd)}), "| | ");
    EXPECT_EQ(reasonOf([&] { p.removeFolder(odd); }), "FolderNotEmpty");
    EXPECT_EQ(reasonOf([&] { p.removeFolderRecursively(odd); }), "done");
    EXPECT_FALSE(p.folderExists(odd));
    const std::u16string pattern = u"a*";
    EXPECT_EQ(namesOf({p.listAllWildcards(folder, pattern), p.listFilesWildcards(folder, pattern),
                  p.listFoldersWildcards(folder, pattern), p.listAllNamesOnlyWildcards(folder, pattern),
                  p.listFilesNamesOnlyWildcards(folder, pattern), p.listFoldersNamesOnlyWildcards(folder, pattern),
                  p.listAllRecursiveNamesOnlyWildcards(folder, pattern)}),
        "ab ac | ab | ac | ab ac | ab | ac | ab ac b/aa | ");

    auto it = p.listAllRecursiveWildcards(folder, pattern);
    it->next();
    EXPECT_EQ(it->clone()->getCurrent(), it->getCurrent());
    EXPECT_EQ(namesOf({it->clone(), std::move(it)}), "ac b/aa | ac b/aa | ");
}

TEST_F(DefaultOperationsTest, MatchGlobs)
{
    const std::string face = "\xf0\x9f\x98\x80";
    const std::string many(1000, 'a');
    for (const std::string& name :
        {"!"s, "-"s, "?"s, "A"s, "["s, "[]"s, "[]a]"s, "]"s, "^"s, "a"s, "a[b"s, many, many + "b", "abc"s, "abcbc"s,
            "abcd"s, "ac"s, "acb"s, "axbxbxc"s, "b"s, "ba"s, "bc"s, "c"s, "d"s, "x"s, face})
    {
        store->put("folder/" + name, "");
    }
    const std::pair<const char16_t*, std::string> globs[] = {{u"", ""}, {u"?", "! - ? A [ ] ^ a b c d x " + face + " "},
        {u"a*b*c", "abc abcbc axbxbxc "}, {u"ac*", "ac acb "}, {u"[a-cx]", "a b c x "},
        {u"[!a-c]", "! - ? A [ ] ^ d x " + face + " "}, {u"[^]a]c", "bc "}, {u"ab*bc", "abcbc "},
        {u"[\U0001f5ff-\U0001f601]", face + " "}, {u"[^a]a", "ba "}, {u"[]a]", "] a "},
        {u"[!]a]", "! - ? A [ ^ b c d x " + face + " "}, {u"[a-]", "- a "}, {u"a[b", "a[b "}, {u"[]", "[] "},
        {u"a*a*a*a*a*a*a*a*a*a*a*a*b", many + "b "}}; // an exponential matcher never finishes the last one
    for (const auto& [pattern, names] : globs)
    {
        EXPECT_EQ(namesOf({provider->listFilesWildcards(folder, pattern)}), names + "| ")
            << testing::PrintToString(pattern);
    }
}

TEST_F(DefaultOperationsTest, ReplaceTheFileWhenATransactionalStreamIsClosed)
{
    store->put("file", big + "longer");
    write(*provider->openTransactionalStream(file), "dropped");
    const auto abandoned = provider->openTransactionalStream(file);
    write(*abandoned, "dropped");
    abandoned->abandon();
    abandoned->close();
    const auto stream = provider->openTransactionalStream(file);
    EXPECT_EQ(write(*stream, big), 200'000);
    EXPECT_EQ(stream->seek(-1, std::ios_base::end), 199'999);
    char last = ' ';
    EXPECT_EQ(stream->read(&last, 1), 1);
    EXPECT_EQ(last, big.back());
    EXPECT_EQ(stream->read(&last, 1), -1);
    EXPECT_THAT(outcome([&] { stream->seek(-1, std::ios_base::beg); }), StartsWith("ByteStreamSeekFailure: Unknown: "));
    EXPECT_EQ(store->get("file"), big + "longer");
    stream->close();
    EXPECT_EQ(store->get("file"), big);
    EXPECT_THAT(outcome([&] { write(*stream, "x"); }), StartsWith("ByteStreamWriteFailure: Unknown: "));
}

TEST_F(DefaultOperationsTest, KeepTransactionsInTheScratchFolder)
{
    const auto scratch = temp.path / "a b";
    const auto open = [&](const std::string& place)
    {
        const auto iri = fsp::StorageIRI::fromUtf8(place);
        return outcome([&] { provider->openTransactionalStreamAtScratchLocation(file, iri); });
    };
    EXPECT_THAT(open("file://" + scratch.string()), StartsWith("Unknown: mem://test/file: ")) << "it does not exist";
    boost::filesystem::create_directory(scratch);
    EXPECT_EQ(open("file://" + scratch.string()), "done");
    EXPECT_TRUE(boost::filesystem::is_empty(scratch));
    remove(scratch);
    const int lowest = ::dup(0); // the number that the next file gets
    ::close(lowest);
    const auto stream = provider->openTransactionalStream(file);
    EXPECT_EQ(::fcntl(lowest, F_GETFD), FD_CLOEXEC);
    for (const std::string place : {"mem://test/file", "mem:///tmp", "file://host/tmp"})
    {
        EXPECT_THAT(open(place), StartsWith("InvalidLocation: " + place));
    }
}

TEST_F(DefaultOperationsTest, MixNothingIntoAFileThatIsOpenElsewhere)
{
    store->put("other", "AB");
    const auto open = provider->openStream(file, editing);
    const std::string inUse = "InUse: mem://test/file: the file is open elsewhere and not empty";
    EXPECT_EQ(outcome([&] { provider->truncateToSize(file, 0); }), inUse);
    EXPECT_EQ(outcome([&] { provider->openTransactionalStream(file)->close(); }), inUse);
    EXPECT_EQ(outcome([&] { provider->copyFileAtomic(iriOf("other"), file, fsp::ReplacementPolicy{1}); }), inUse);
    EXPECT_THAT(outcome([&] { provider->truncateToSize(file, 1); }), StartsWith("Unsupported: mem://test/file: "));
    writeAt(*open, 3, "er");
    provider->truncateToSize(file, 100'000);
    open->close();
    EXPECT_EQ(store->get("file"), "older" + std::string(99'995, '\0'));
}

} // namespace

} // namespace storage::cloudprovider
