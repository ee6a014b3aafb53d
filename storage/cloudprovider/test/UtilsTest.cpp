#include <storage/cloudprovider/utils.hpp>

#include <foundation/storage/provider/StorageIRI.hpp>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <gtest/gtest.h>

#include <limits>

namespace storage::cloudprovider::utils
{

namespace
{

TEST(UtilsTest, CanonicalizeTidiesTextAndResolvesNothing)
{
    const std::pair<const char16_t*, const char16_t*> rows[] = {{u"", u""}, {u"/", u"/"}, {u"./", u"/"}, {u"/.", u"/"},
        {u"././x", u"/x"}, {u"a/./b", u"a/b"}, {u"/./a", u"/a"}, {u"/a/b/.", u"/a/b/"}, {u"a/../b", u"a/./b"},
        {u"a/..", u"a/."}, {u"..", u"."}, {u"...", u".."}, {u"a./b", u"a/b"}, {u"x.", u"x"}, {u".", u""},
        {u"//a//b//", u"/a/b/"}, {u"a//./b", u"a/b"}, {u".a/..b/c.d", u".a/..b/c.d"}, {u"\\ \u65e5.", u"\\ \u65e5"}};
    for (const auto& [path, canonical] : rows)
    {
        EXPECT_EQ(canonicalize(path), canonical) << testing::PrintToString(std::u16string(path));
    }
}

TEST(UtilsTest, KeysAreTheCanonicalPathOnly)
{
    const std::pair<const char*, const char*> rows[] = {{"cloud://store", ""}, {"cloud://store//", ""},
        {"cloud://store/.", ""}, {"cloud://other/data/./x.csv", "data/x.csv"},
        {"x://y/reports//2020/", "reports/2020/"}, {"cloud://store/a%20b/\xC3\xA9", "a b/\xC3\xA9"}};
    for (const auto& [iri, key] : rows)
    {
        EXPECT_EQ(iriToKey(foundation::storage::provider::StorageIRI::fromUtf8(iri)), key) << iri;
    }
    EXPECT_ANY_THROW(iriToKey(foundation::storage::provider::StorageIRI(u"cloud://store/\xD800")));
}

TEST(UtilsTest, SlashesComeAndGoOneAtATime)
{
    EXPECT_EQ(removeLeadingSlash(u"//a"), u"/a");
    EXPECT_EQ(removeLeadingSlash(u""), u"");
    EXPECT_EQ(addLeadingSlash(u""), u"/");
    EXPECT_EQ(addLeadingSlash(u"/a"), u"/a");
    EXPECT_EQ(addLeadingSlash(u"a"), u"/a");
    EXPECT_EQ(removeTrailingSlash(u"a//"), u"a/");
    EXPECT_EQ(removeTrailingSlash(u""), u"");
    EXPECT_EQ(ensureTrailingSlash("") + ensureTrailingSlash("a") + ensureTrailingSlash("b/"), "a/b/");
    EXPECT_TRUE(hasTrailingSlash("/"));
    EXPECT_FALSE(hasTrailingSlash("/a"));
}

TEST(UtilsTest, TimesFromDoublesLoseTheFractionOfASecond)
{
    const std::pair<double, const char*> rows[] = {{1999.0, "1970-01-01T00:00:01"}, {-999.0, "1970-01-01T00:00:00"},
        {-1500.0, "1969-12-31T23:59:59"}, {253402300799999.0, "9999-12-31T23:59:59"}};
    for (const auto& [milliseconds, time] : rows)
    {
        EXPECT_EQ(to_iso_extended_string(double2Ptime(milliseconds)), time) << milliseconds;
    }
    // 2^57 seconds are a count of microseconds of which 64 bits keep the lowest number: Boost's negative infinity.
    EXPECT_TRUE(double2Ptime(0x1p57 * 1000).is_neg_infinity());
    EXPECT_FALSE(double2Ptime(0x1p56 * 1000).is_special());
}

TEST(UtilsTest, TimesFromIntegersKeepTheMilliseconds)
{
    EXPECT_EQ(to_iso_extended_string(long2Ptime(1999)), "1970-01-01T00:00:01.999000");
    EXPECT_EQ(to_iso_extended_string(long2Ptime(-1)), "1969-12-31T23:59:59.999000");
    EXPECT_EQ(long2Ptime(std::numeric_limits<long long>::min()), long2Ptime(0)) << "the product wraps around to 0";
    EXPECT_FALSE(long2Ptime(1LL << 60).is_special()) << "the lowest count is a time like any other here";
}

} // namespace

} // namespace storage::cloudprovider::utils
