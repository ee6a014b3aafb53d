#include <storage/cloudprovider/utils.hpp>

#include <foundation/storage/provider/StorageIRI.hpp>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <gtest/gtest.h>

#include <limits>

namespace storage::cloudprovider::utils
{

TEST(UtilsTest, PathsAreNormalisedAsText)
{
    const std::pair<const char16_t*, const char16_t*> rows[] = {{u"", u""}, {u"/", u"/"}, {u"./", u"/"}, {u"/.", u"/"},
        {u"././x", u"/x"}, {u"a/./b", u"a/b"}, {u"/./a", u"/a"}, {u"/a/b/.", u"/a/b/"}, {u"a/../b", u"a/./b"},
        {u"a/..", u"a/."}, {u"..", u"."}, {u"...", u".."}, {u"a./b", u"a/b"}, {u"x.", u"x"}, {u".", u""},
        {u"//a//b//", u"/a/b/"}, {u"a//./b", u"a/b"}, {u".a/..b/c.d", u".a/..b/c.d"}, {u"\\ \u65e5.", u"\\ \u65e5"}};
    for (const auto& [path, canonical] : rows)
    {
        EXPECT_EQ(canonicalize(path), canonical) << testing::PrintToString(std::u16string(path));
    }
    EXPECT_EQ(removeLeadingSlash(u"//a") + removeLeadingSlash(u""), u"/a");
    EXPECT_EQ(addLeadingSlash(u"") + addLeadingSlash(u"/a") + addLeadingSlash(u"b"), u"//a/b");
    EXPECT_EQ(removeTrailingSlash(u"a//") + removeTrailingSlash(u""), u"a/");
}

TEST(UtilsTest, KeysAreMadeFromThePathOnly)
{
    const std::pair<const char*, const char*> rows[] = {{"cloud://store", ""}, {"cloud://store//", ""},
        {"cloud://other/data/./x.csv", "data/x.csv"}, {"x://y/reports//2020/", "reports/2020/"},
        {"cloud://store/a%20b/\xC3\xA9", "a b/\xC3\xA9"}};
    for (const auto& [iri, key] : rows)
    {
        EXPECT_EQ(iriToKey(foundation::storage::provider::StorageIRI::fromUtf8(iri)), key);
    }
    EXPECT_ANY_THROW(iriToKey(foundation::storage::provider::StorageIRI(u"cloud://store/\xD800")));
    EXPECT_EQ(ensureTrailingSlash("") + ensureTrailingSlash("a") + ensureTrailingSlash("b/"), "a/b/");
    EXPECT_TRUE(hasTrailingSlash("/") && !hasTrailingSlash("/a") && !hasTrailingSlash(""));
}

TEST(UtilsTest, TimesOfDoublesHaveNoFractions)
{
    EXPECT_EQ(to_iso_extended_string(double2Ptime(1999.0)), "1970-01-01T00:00:01");
    EXPECT_EQ(to_iso_extended_string(double2Ptime(-1500.0)), "1969-12-31T23:59:59");
    // 2^57 s are a number of microseconds of which 64 bits keep the lowest value: Boost's negative infinity.
    EXPECT_TRUE(double2Ptime(0x1p57 * 1000).is_neg_infinity());
    EXPECT_FALSE(double2Ptime(0x1p56 * 1000).is_special());
    EXPECT_EQ(to_iso_extended_string(long2Ptime(1999)), "1970-01-01T00:00:01.999000");
    EXPECT_EQ(to_iso_extended_string(long2Ptime(-1)), "1969-12-31T23:59:59.999000");
    EXPECT_EQ(long2Ptime(std::numeric_limits<long long>::min()), long2Ptime(0)) << "the product wraps around to 0";
    EXPECT_FALSE(long2Ptime(1LL << 60).is_special()) << "the lowest value is an ordinary time here";
}

} // namespace storage::cloudprovider::utils
