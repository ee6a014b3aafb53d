#include <storage/clients/common/KeyRules.hpp>
#include <storage/clients/common/PartRules.hpp>
#include <storage/clients/common/TransientException.hpp>
#include <storage/clients/common/VersionPins.hpp>

#include <storage/cloudprovider/CloudExceptions.hpp>

#include <gmock/gmock.h>

// Only what the conformance suite cannot check through the interface of a client.

namespace storage::clients
{

namespace
{

using namespace cloudprovider;

TEST(KeyRulesTest, AcceptsValidUtf8ThatXmlCanContain)
{
    for (const char* key : {"\x7F", "\xC2\x80", "\xDF\xBF", "\xE0\xA0\x80", "\xED\x9F\xBF", "\xEE\x80\x80",
             "\xEF\xBF\xBD", "\xF0\x90\x80\x80", "\xF4\x8F\xBF\xBF", "a\t\n\r"})
    {
        EXPECT_NO_THROW(checkKey(key)) << quoted(key);
    }
    for (const char* key : {"\x80", "\xBF", "\xC1\xBF", "\xC2", "\xC2\x41", "\xE0\x9F\xBF", "\xED\xA0\x80",
             "\xED\xBF\xBF", "\xE2\x82", "\xEF\xBF\xBE", "\xEF\xBF\xBF", "\xF0\x8F\xBF\xBF", "\xF4\x90\x80\x80",
             "\xF8\x88\x80\x80\x80", "\xFF", "a\x1F", "\x0B"})
    {
        EXPECT_THROW(checkKey(key), InvalidLocationException) << quoted(key);
    }
}

TEST(KeyRulesTest, ReportsKeyAndReasonInOneLine)
{
    const auto refusal = [] { checkKey("a \n\xFF"); };
    EXPECT_THAT(refusal, testing::Throws<InvalidLocationException>(testing::Property(&InvalidLocationException::detail,
                             R"(key "a \x0A\xFF" is refused: it is not UTF-8 at byte 3)")));
    EXPECT_EQ(quoted(std::string(500, 'x')), '"' + std::string(200, 'x') + "...\"");
}

TEST(PartRulesTest, CopiesOnlyRangesWithinAPartWithTheTag)
{
    constexpr std::size_t huge = ~std::size_t{0};
    const std::vector<PartInfo> stored{{0, 0, 10, "a"}, {1, 10, 10, "b"}};
    for (const PartInfo& part :
        {PartInfo{5, 0, 10, "a"}, {0, 3, 7, "a"}, {1, 12, 8, "b"}, {0, 5, 10, ""}, {0, 20, 0, ""}})
    {
        EXPECT_NO_THROW(checkCopySource("k", part, stored)) << part;
    }
    for (const PartInfo& part : {PartInfo{0, 0, 10, "b"}, {0, 5, 10, "a"}, {0, 0, 20, "a"}, {0, 11, 10, ""},
             {0, 1, huge, ""}, {0, huge, 2, ""}, {0, 0, 10, "c"}})
    {
        EXPECT_THROW(checkCopySource("k", part, stored), UnknownErrorException) << part;
    }
    EXPECT_NO_THROW(checkCopySource("k", PartInfo{}, {}));
    EXPECT_THROW(checkCopySource("k", {0, 0, 1, ""}, {}), UnknownErrorException);
}

TEST(VersionPinsTest, RefusesAnEvictedKeyUntilItIsOpenedAgainOrWritten)
{
    VersionPins pins(2);
    std::string seen;
    const auto open = [&](const std::string& key) { VersionPins::Opening(pins, key).opened({"of " + key}); };
    const auto read = [&](const std::string& key)
    {
        pins.read(key,
            [&](const auto& version)
            {
                seen = version ? version->tag : "any";
                return true;
            });
        return seen;
    };
    open("a");
    open("b");
    EXPECT_EQ(read("never opened"), "any");
    EXPECT_EQ(read("a"), "of a");
    open("c");
    EXPECT_EQ(read("c"), "of c");
    EXPECT_THROW(read("b"), UnknownErrorException);
    open("b");
    EXPECT_EQ(read("b"), "of b");
    EXPECT_THROW(read("a"), UnknownErrorException);
    VersionPins::Write(pins, "a").succeeded({"written"});
    EXPECT_EQ(read("a"), "written");
    EXPECT_THROW(read("c"), UnknownErrorException);
}

TEST(VersionPinsTest, AVersionStoredWhileTheKeyIsOpenedIsPinned)
{
    VersionPins pins;
    VersionPins::Opening opening(pins, "k");
    VersionPins::Write(pins, "k").succeeded({"written"});
    {
        const VersionPins::Write unknown(pins, "k");
        EXPECT_EQ(pins.certain("k").value().tag, "written");
    }
    EXPECT_FALSE(pins.certain("k").has_value()) << "the write may have taken effect";
    opening.opened({"fetched"});
    EXPECT_EQ(pins.certain("k").value().tag, "written");
    {
        const VersionPins::Deletion deletion(pins, "k");
    }
    EXPECT_FALSE(pins.certain("k").has_value());
    EXPECT_EQ(pins.pinned("k").value().tag, "written");
    opening.opened({"fetched"});
    VersionPins::Write late(pins, "k");
    EXPECT_THROW(pins.read("k", [&](const auto&) { return false; }), TransientException) << "it may be this write's";
    late.succeeded({"late"});
    EXPECT_TRUE(pins.descends("k", "late", "fetched") && !pins.descends("k", "late", "other"));
    pins.read("k", [&](const auto& version) { return version->tag == "late"; });
}

} // namespace

} // namespace storage::clients
