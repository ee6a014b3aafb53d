#include <foundation/storage/provider/GenericByteStreamDevice.hpp>
#include <foundation/storage/provider/ProviderRegistry.hpp>

#include <fl/i18n.hpp>

#include <gmock/gmock.h>

#include <boost/iostreams/copy.hpp>

#include <algorithm>
#include <sstream>
#include <string>
#include <thread>
#include <utility>

// The storage provider interfaces: IRIs and other values, stream failures and devices, the registry, and the operations
// that a provider need not override. Default operations that call other operations are tested over the cloud provider.

namespace
{

using namespace fsp;
using testing::PrintToString;

/// Match an operation that throws an exception whose text starts like this.
auto failsWith(const std::string& text)
{
    return testing::ThrowsMessage<std::exception>(testing::StartsWith(text));
}

/// Everything that an IRI tells of itself, in UTF-8.
std::string partsOf(const StorageIRI& iri)
{
    return iri.toUtf8() + '|' +
           fl::i18n::to_string(
               iri.getScheme() + u'|' + iri.getAuthority() + u'|' + iri.getPath() + u'|' + iri.getName()) +
           '|' + (iri.hasParent() ? iri.getParent().toUtf8() : "");
}

TEST(StorageIRITest, SplitsAndPrintsWhatItReadsBack)
{
    const std::pair<std::u16string, std::string> rows[] = {{u"x://h", "x://h|x|h|||"}, {u"x://h/", "x://h/|x|h|/||"},
        {u"x://h//", "x://h//|x|h|//||"}, {u"x:///a", "x:///a|x||/a|a|x:///"},
        {u"aZzA+-.09://Me@HOST:80/A", "azza+-.09://Me@host:80/A|azza+-.09|Me@host:80|/A|A|azza+-.09://Me@host:80/"},
        {u"x://h/a/b/", "x://h/a/b/|x|h|/a/b/|b|x://h/a"}, {u"x://h//a//b//", "x://h//a//b//|x|h|//a//b//|b|x://h//a"},
        {u"x://h/a/./../b", "x://h/a/./../b|x|h|/a/./../b|b|x://h/a/./.."},
        {u"x://h/a b%20", "x://h/a%20b%20|x|h|/a b |a b |x://h/"}, {u"x://h/%2541", "x://h/%2541|x|h|/%41|%41|x://h/"},
        {u"x://h/a%3fb%23", "x://h/a%3Fb%23|x|h|/a?b#|a?b#|x://h/"}, {u"x://h/a%2Fb", "x://h/a/b|x|h|/a/b|b|x://h/a"},
        {u"x://h/%c3%a4%F0%9F%98%80",
            "x://h/\xc3\xa4\xf0\x9f\x98\x80|x|h|/\xc3\xa4\xf0\x9f\x98\x80|\xc3\xa4\xf0\x9f\x98\x80|x://h/"}};
    for (const auto& [text, parts] : rows)
    {
        const StorageIRI iri(text);
        EXPECT_EQ(partsOf(iri), parts);
        EXPECT_EQ(iri.getResolvedIRI(), iri);
        EXPECT_EQ(StorageIRI::fromUtf8(iri.toUtf8()), iri);
        EXPECT_EQ(iri.hasPath(), !iri.getPath().empty());
    }
    EXPECT_THAT([] { StorageIRI(u"x://h/").getParent(); }, failsWith("InvalidLocation: x://h/"));
}

TEST(StorageIRITest, HoldsAndPrintsMalformedTextButRefusesToUseIt)
{
    const std::pair<std::u16string, std::string> rows[] = {{u"a/b", "a/b"}, {u"://h/a", "://h/a"}, {u"x:a", "x:a"},
        {u"1x://h/a", "1x://h/a"}, {u"x y://h/a", "x%20y://h/a"}, {u"x://h h/a", "x://h%20h/a"},
        {u"x://h/a?b", "x://h/a?b"}, {u"x://h#b", "x://h#b"}, {u"x://h/%", "x://h/%"}, {u"x://h/%f", "x://h/%f"},
        {u"x://h/%z0", "x://h/%z0"}, {u"x://h/%0g", "x://h/%0g"}, {u"x://h\u009f/", "x://h%C2%9F/"},
        {u"x://h/%ff", "x://h/%ff"}, {u"x://h/%c3a", "x://h/%c3a"}, {u"x://h/%c0%af", "x://h/%c0%af"},
        {u"x://h/\xd800", "x://h/\ufffd"}, {u"x://\xdc00/\U0001f600", "x://\ufffd/\U0001f600"},
        {u"/\xd800", "/\ufffd"}};
    for (const auto& [text, utf8] : rows)
    {
        const StorageIRI iri(text);
        EXPECT_EQ(iri.toUtf8(), utf8);
        EXPECT_THAT([&] { iri.getResolvedIRI(); }, failsWith("InvalidLocation: " + utf8 + ": "));
        EXPECT_THAT([&] { iri.getPath(); }, failsWith("InvalidLocation: " + utf8 + ": "));
        EXPECT_THAT([&] { iri.getChild(u"a"); }, failsWith("InvalidLocation: " + utf8 + ": "));
    }
    EXPECT_THAT([] { StorageIRI::fromUtf8("x://h/\x7f\x80\xff"); }, failsWith("InvalidLocation: x://h/%7F%80%FF"));
    EXPECT_EQ(partsOf(StorageIRI()), "|||||");
    EXPECT_THAT([] { StorageIRI().getResolvedIRI(); }, failsWith("InvalidLocation: "));
    EXPECT_THAT([] { StorageIRI().getChild(u"a"); }, failsWith("InvalidLocation: "));
}

TEST(StorageIRITest, ChildEscapesWhatCouldBeMisread)
{
    // Each reserved character, and both sides of each limit of a range that is escaped.
    const std::u16string name = u"%41?#\"<>[\\]^`{|}\u001f !~\u007f\u009f\u00a0\u00a1\u200a\u200b\u200f\u2010"
                                u"\u2027\u2028\u202e\u202f\u205f\u2060\u206f\u2070\ufeff";
    const std::string escaped =
        "%2541%3F%23%22%3C%3E%5B%5C%5D%5E%60%7B%7C%7D%1F%20!~%7F%C2%9F%C2%A0\u00a1\u200a%E2%80%8B%E2%80%8F\u2010"
        "\u2027%E2%80%A8%E2%80%AE\u202f\u205f%E2%81%A0%E2%81%AF\u2070%EF%BB%BF";
    for (const std::string base : {"x://h", "x://h/", "x://h/p", "x://h/p/"})
    {
        const StorageIRI child = StorageIRI::fromUtf8(base).getChild(u"/d/" + name);
        EXPECT_EQ(child.getName(), name);
        EXPECT_EQ(child.toUtf8(), base + (base.back() == '/' ? "" : "/") + "d/" + escaped);
        EXPECT_EQ(StorageIRI::fromUtf8(child.toUtf8()), child);
    }
    EXPECT_EQ(StorageIRI(u"x://h/p").getChild(u""), StorageIRI(u"x://h/p"));
    EXPECT_THAT(
        [] { StorageIRI(u"x://h").getChild(u"\xdfff").getResolvedIRI(); }, failsWith("InvalidLocation: x://h/\ufffd"));
}

TEST(StorageIRITest, OrdersInStepWithEquality)
{
    // "%25zz" has the decoded path of the malformed "%zz".
    const std::u16string ascending[] = {u"x://h", u"x://h/", u"x://h/%25zz", u"x://h//", u"x://h/A", u"x://h/a",
        u"x://h/a%20b", u"x://h/a/", u"x://i/a", u"x://\u00e4/a", u"y://h/a", u"X://h/%zz", u"x://h/%zz"};
    for (std::size_t i = 0; i < std::size(ascending); ++i)
    {
        for (std::size_t j = 0; j < std::size(ascending); ++j)
        {
            EXPECT_EQ(StorageIRI(ascending[i]) <=> StorageIRI(ascending[j]), i <=> j) << i << ' ' << j;
        }
    }
    EXPECT_EQ(StorageIRI(u"x://h/"), StorageIRI(u"X://H/"));
    EXPECT_EQ(StorageIRI(u"x://h//"), StorageIRI(u"x://H/%2f"));
    EXPECT_EQ(StorageIRI(u"x://h/a b"), StorageIRI(u"X://h/%61%20b"));
}

TEST(ValueTest, ValuesAndExceptionsPrintOnOneLine)
{
    const fsp::Exception exception(ErrorCode(ErrorCode::NotFound, "no\nbucket\x7f"), StorageIRI(u"x://h/a b"));
    EXPECT_STREQ(exception.what(), "NotFound: x://h/a%20b: no bucket ");
    const fsp::ByteStreamReadFailure failure(ErrorCode(ErrorCode::InUse, "a\ncause"));
    const std::ios_base::failure& standard = failure;
    EXPECT_EQ(standard.code(), std::io_errc::stream);
    EXPECT_STREQ(standard.what(), "ByteStreamReadFailure: InUse: a cause");
    EXPECT_EQ(failure.reason().detail(), "a\ncause");
    EXPECT_STREQ(fsp::ByteStreamReadFailure(ErrorCode::NotFound).what(), "ByteStreamReadFailure: NotFound");
    const fsp::ByteStreamOpenOptions options{fsp::ByteStreamReadAccess(1), fsp::ByteStreamCreate(1),
        fsp::ByteStreamTruncate(1), fsp::ByteStreamWritePosition(2)};
    EXPECT_EQ(PrintToString(options), "{readAccess=Allowed, create=MustExist, truncate=Keep, writePosition=2}");
}

/// Bytes in memory; stored in the file when the stream is closed. Accepts one byte per write, and at most 10'000 bytes.
struct SmallStream : fsp::ByteStream
{
    explicit SmallStream(std::string& content)
        : file(content)
    {
    }
    std::streamsize doRead(char* s, std::streamsize n) override
    {
        return bytes.in_avail() > 0 ? bytes.sgetn(s, n) : -1;
    }
    std::streamsize doWrite(const char* s, std::streamsize n) override
    {
        return bytes.view().size() < 10'000 ? bytes.sputn(s, std::min<std::streamsize>(n, 1)) : -1;
    }
    std::streampos doSeek(const fsp::stream_offset off, const std::ios_base::seekdir way) override
    {
        return bytes.pubseekoff(off, way);
    }
    void doClose() override { file = bytes.str(); }

    std::string& file;
    std::stringbuf bytes{file};
};

TEST(StreamTest, DevicesShareTheirStreamAndWriteEveryByte)
{
    const auto device = [](std::string& target)
    { return fsp::GenericByteStreamDevice(std::make_shared<SmallStream>(target)); };
    std::string target = "abcdef";
    fsp::GenericByteStreamDevice first = device(target);
    fsp::GenericByteStreamDevice second = first;
    EXPECT_EQ(first.seek(-4, std::ios_base::end), 2);
    EXPECT_EQ(second.write("XY", 2), 2);
    EXPECT_EQ(target, "abcdef") << "not closed yet";
    first.close();
    EXPECT_EQ(target, "abXYef");

    std::string source;
    std::generate_n(std::back_inserter(source), 9000, [i = 0]() mutable { return static_cast<char>(++i % 251); });
    boost::iostreams::copy(device(source), device(target), 4096);
    EXPECT_EQ(target, source);
    source += source;
    EXPECT_THROW(boost::iostreams::copy(device(source), device(target)), fsp::ByteStreamWriteFailure);
}

/// Overrides nothing.
class BareProvider : public IProvider
{
};

TEST(ProviderTest, RefusesOperationsWithoutADefaultAndUnknownPolicies)
{
    const BareProvider provider;
    const StorageIRI file(u"x://h/file");
    const auto isRefused = failsWith("Unsupported: x://h/file: ");
    for (const auto operation : {&IProvider::createFile, &IProvider::createFolder, &IProvider::removeFile,
             &IProvider::removeFolder, &IProvider::removeFolderRecursively, &IProvider::publishFolderEventsFor,
             &IProvider::publishFileEventsFor, &IProvider::stopPublishingEventsFor,
             &IProvider::startChangePollingMechanism, &IProvider::stopChangePollingMechanism})
    {
        EXPECT_THAT([&] { (provider.*operation)(file); }, isRefused);
    }
    for (const auto transfer : {&IProvider::moveFile, &IProvider::moveFolder, &IProvider::copyFile})
    {
        EXPECT_THAT([&] { (provider.*transfer)(file, StorageIRI(), {}); }, isRefused);
    }
    EXPECT_THAT([&] { provider.fileExists(file); }, isRefused);
    EXPECT_TRUE(provider.supportsReplacementPolicy(fsp::ReplacementPolicy::Fail));
    EXPECT_TRUE(provider.supportsReplacementPolicy(fsp::ReplacementPolicy::Replace));
    EXPECT_FALSE(provider.supportsReplacementPolicy(fsp::ReplacementPolicy{2}));
    EXPECT_FALSE(provider.getPathComparator()(file, file));
}

TEST(ProviderRegistryTest, FindsProvidersBySchemeAndAuthority)
{
    fsp::ProviderRegistry registry;
    const auto first = std::make_shared<const BareProvider>();
    const auto second = std::make_shared<const BareProvider>();
    registry.registerProvider(StorageIRI(u"x://One/ignored"), first);
    registry.registerProvider(StorageIRI(u"x://two"), second);
    EXPECT_THAT([&] { registry.registerProvider(StorageIRI(u"X://ONE"), second); }, failsWith("AlreadyExists: "));
    EXPECT_EQ(registry.resolve(StorageIRI(u"X://oNE/a/b")), first);
    EXPECT_EQ(registry.find(StorageIRI(u"x://two/a")), second);
    for (const std::string other : {"y://one/a", "x://three", "x:///one"})
    {
        EXPECT_EQ(registry.find(StorageIRI::fromUtf8(other)), nullptr);
        EXPECT_THAT([&] { registry.resolve(StorageIRI::fromUtf8(other)); }, failsWith("NotFound: " + other));
    }
    EXPECT_THAT([&] { registry.resolve(StorageIRI()); }, failsWith("InvalidLocation: "));
    EXPECT_TRUE(registry.unregisterProvider(StorageIRI(u"x://ONE")));
    EXPECT_FALSE(registry.unregisterProvider(StorageIRI(u"x://one")));
    EXPECT_EQ(registry.find(StorageIRI(u"x://one/a")), nullptr);
    EXPECT_EQ(first.use_count(), 1);
}

TEST(ProviderRegistryTest, ServesSeveralThreads)
{
    fsp::ProviderRegistry registry;
    const auto provider = std::make_shared<const BareProvider>();
    const auto work = [&](const StorageIRI& root)
    {
        for (int i = 0; i < 500; ++i)
        {
            registry.registerProvider(root, provider);
            EXPECT_EQ(registry.find(root), provider);
            EXPECT_TRUE(registry.unregisterProvider(root));
        }
    };
    const std::jthread other(work, StorageIRI(u"x://other"));
    work(StorageIRI(u"x://one"));
}

} // namespace
