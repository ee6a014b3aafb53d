#include <fl/i18n.hpp>

#include <gtest/gtest.h>

#include <cstdlib>
#include <stdexcept>
#include <string>

namespace
{

TEST(TextTest, WellFormedTextSurvivesBothWays)
{
    // The first and the last character of every length in UTF-8, around the surrogates, and a zero byte.
    const std::u16string wide(u"\0\u007f\u0080\u07ff\u0800\ud7ff\ue000\uffff\U00010000\U0010ffff", 12);
    const std::string narrow("\0\x7f\xc2\x80\xdf\xbf\xe0\xa0\x80\xed\x9f\xbf\xee\x80\x80\xef\xbf\xbf"
                             "\xf0\x90\x80\x80\xf4\x8f\xbf\xbf",
        26);
    EXPECT_EQ(fl::i18n::ustring_to_utf8(wide), narrow);
    EXPECT_EQ(fl::i18n::to_string(wide), narrow);
    EXPECT_EQ(fl::i18n::utf8_to_ustring(narrow), wide);
}

TEST(TextTest, RefusesIllFormedUtf8)
{
    for (const char* bad : {"\x80", "a\xff", "\xfe", "\xc3", "\xc3(", "\xe2\x82", "\xf0\x9f\x98", "\xc0\xaf",
             "\xc1\xbf", "\xe0\x9f\xbf", "\xf0\x8f\xbf\xbf", "\xed\xa0\x80", "\xed\xbf\xbf", "\xf4\x90\x80\x80",
             "\xf8\x88\x80\x80\x80", "\xc3\xa4\xa4"})
    {
        EXPECT_THROW(fl::i18n::utf8_to_ustring(bad), std::range_error) << ::testing::PrintToString(std::string(bad));
    }
}

TEST(TextTest, RefusesUnpairedSurrogates)
{
    for (const std::u16string& bad :
        {std::u16string{0xd800}, std::u16string{0xdc00}, std::u16string{u'a', 0xdbff, u'b'},
            std::u16string{0xd800, 0xd800, 0xdc00}, std::u16string{0xd800, 0xdc00, 0xdc00}})
    {
        EXPECT_THROW(fl::i18n::ustring_to_utf8(bad), std::range_error) << ::testing::PrintToString(bad);
    }
}

TEST(TextTest, ReadsTheEnvironment)
{
    const std::string name = "FOUNDATION_TEXT_TEST";
    ::unsetenv(name.c_str());
    EXPECT_EQ(fl::i18n::getenv(name), u"");
    ::setenv(name.c_str(), "5\xc3\xa4", 1);
    EXPECT_EQ(fl::i18n::getenv(name), u"5\u00e4");
    ::setenv(name.c_str(), "\xff", 1);
    EXPECT_THROW(fl::i18n::getenv(name), std::range_error);
    ::unsetenv(name.c_str());
}

} // namespace
