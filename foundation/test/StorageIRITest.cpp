#include "SmallProvider.hpp"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace
{

using fsp::StorageIRI;

TEST(StorageIRITest, SplitsAndPrintsAndReadsBackWhatItPrinted)
{
    struct Form
    {
        std::u16string text;
        std::u16string path;
        std::u16string last;
        const char* parent; // null: none
        const char* utf8;
    };
    for (const Form& form : std::vector<Form>{{u"x://h", u"", u"", nullptr, "x://h"},
             {u"x://h/", u"/", u"", nullptr, "x://h/"}, {u"x:///a", u"/a", u"a", "x:///", "x:///a"},
             {u"X+1://Me@HOST:80/A", u"/A", u"A", "x+1://Me@host:80/", "x+1://Me@host:80/A"},
             {u"x://h/a/b/", u"/a/b/", u"b", "x://h/a", "x://h/a/b/"},
             {u"x://h//a//b//", u"//a//b//", u"b", "x://h//a", "x://h//a//b//"},
             {u"x://h//", u"//", u"", nullptr, "x://h//"},
             {u"x://h/a/./../b", u"/a/./../b", u"b", "x://h/a/./..", "x://h/a/./../b"},
             {u"x://h/a b%20", u"/a b ", u"a b ", "x://h/", "x://h/a%20b%20"},
             {u"x://h/%2541", u"/%41", u"%41", "x://h/", "x://h/%2541"},
             {u"x://h/a%3fb%23", u"/a?b#", u"a?b#", "x://h/", "x://h/a%3Fb%23"},
             {u"x://h/a%2Fb", u"/a/b", u"b", "x://h/a", "x://h/a/b"},
             {u"x://h/%c3%a4%F0%9F%98%80", u"/\u00e4\U0001f600", u"\u00e4\U0001f600", "x://h/",
                 "x://h/\xc3\xa4\xf0\x9f\x98\x80"},
             {u"x://h/a%00\n\u0085\u202e", std::u16string(u"/a\0\n\u0085\u202e", 6),
                 std::u16string(u"a\0\n\u0085\u202e", 5), "x://h/", "x://h/a%00%0A%C2%85%E2%80%AE"}})
    {
        SCOPED_TRACE(form.utf8);
        const StorageIRI iri(form.text);
        EXPECT_EQ(iri.getResolvedIRI(), iri);
        EXPECT_EQ(iri.getPath(), form.path);
        EXPECT_EQ(iri.hasPath(), !form.path.empty());
        EXPECT_EQ(iri.getName(), form.last);
        EXPECT_EQ(iri.toUtf8(), form.utf8);
        EXPECT_EQ(StorageIRI::fromUtf8(form.utf8), iri);
        ASSERT_EQ(iri.hasParent(), form.parent != nullptr);
        if (form.parent != nullptr)
        {
            EXPECT_EQ(iri.getParent().toUtf8(), form.parent);
        }
        else
        {
            EXPECT_THROW(iri.getParent(), fsp::Exception);
        }
    }
}

TEST(StorageIRITest, HoldsAndPrintsWhatEveryQuestionRefuses)
{
    const std::pair<std::u16string, const char*> rows[] = {{u"a/b", "a/b"}, {u"://h/a", "://h/a"}, {u"x:a", "x:a"},
        {u"1x://h/a", "1x://h/a"}, {u"x y://h/a", "x%20y://h/a"}, {u"x://h h/a", "x://h%20h/a"},
        {u"x://h/a?b", "x://h/a?b"}, {u"x://h#b", "x://h#b"}, {u"x://h/%zz", "x://h/%zz"}, {u"x://h/%f", "x://h/%f"},
        {u"x://h/%ff", "x://h/%ff"}, {u"x://h/%c3a", "x://h/%c3a"}, {u"x://h/%c0%af", "x://h/%c0%af"},
        {u"x://h/" + std::u16string(1, char16_t(0xd800)), "x://h/\xef\xbf\xbd"},
        {u"x://" + std::u16string(1, char16_t(0xdc00)) + u"/a", "x://\xef\xbf\xbd/a"}};
    for (const auto& [text, utf8] : rows)
    {
        const StorageIRI iri(text);
        EXPECT_EQ(iri.toUtf8(), utf8);
        EXPECT_EQ(codeOf([&] { iri.getResolvedIRI(); }, iri), fsp::ErrorCode::InvalidLocation) << utf8;
        EXPECT_EQ(codeOf([&] { iri.getPath(); }, iri), fsp::ErrorCode::InvalidLocation) << utf8;
        EXPECT_EQ(codeOf([&] { iri.getChild(u"a"); }, iri), fsp::ErrorCode::InvalidLocation) << utf8;
    }
}

TEST(StorageIRITest, RefusesIllFormedUtf8AndShowsItsBytes)
{
    try
    {
        StorageIRI::fromUtf8("x://h/a\xff");
        FAIL();
    }
    catch (const fsp::Exception& exception)
    {
        EXPECT_STREQ(std::string(exception.what()).substr(0, 27).c_str(), "InvalidLocation: x://h/a%FF");
    }
}

TEST(StorageIRITest, EmptyIriNamesNothing)
{
    const StorageIRI empty;
    EXPECT_FALSE(empty.hasPath());
    EXPECT_FALSE(empty.hasParent());
    EXPECT_EQ(empty.toUtf8(), "");
    EXPECT_THROW(empty.getResolvedIRI(), fsp::Exception);
    EXPECT_THROW(empty.getChild(u"a"), fsp::Exception);
}

TEST(StorageIRITest, ChildEscapesItsNameAndLeadsBack)
{
    for (const char* base : {"x://h", "x://h/", "x://h/p", "x://h/p/"})
    {
        for (const std::u16string name : {u"a", u"%41", u"a?b#c", u" ", u"\u00e4\n", u"a/b.txt", u"/a"})
        {
            const StorageIRI child = StorageIRI::fromUtf8(base).getChild(name);
            const std::u16string last = name.substr(name.rfind(u'/') + 1);
            EXPECT_EQ(child.getName(), last) << child;
            EXPECT_EQ(StorageIRI::fromUtf8(child.toUtf8()), child);
        }
    }
    EXPECT_EQ(StorageIRI(u"x://h/p").getChild(u"a/b.txt").getParent().getParent(), StorageIRI(u"x://h/p"));
    EXPECT_EQ(StorageIRI(u"x://h/p").getChild(u""), StorageIRI(u"x://h/p"));
    EXPECT_THROW(StorageIRI(u"x://h").getChild(std::u16string(1, char16_t(0xdfff))).getResolvedIRI(), fsp::Exception);
}

TEST(StorageIRITest, OrdersStrictlyAndTotallyInStepWithEquality)
{
    // Each row has the spellings of one location; no two rows are equal. "%25zz" has the decoded path of the malformed
    // "%zz".
    const std::vector<std::vector<std::u16string>> rows{{u""}, {u"x://h"}, {u"x://h/", u"X://H/"},
        {u"x://h//", u"x://H/%2f"}, {u"x://h/a%20b", u"x://h/a b", u"X://h/%61%20b"}, {u"x://h/A"}, {u"x://h/a/"},
        {u"x://h/a"}, {u"y://h/a"}, {u"x://i/a"}, {u"x://h/%25zz"}, {u"x://h/%zz"}, {u"X://h/%zz"}, {u"x://\u00e4/a"}};
    std::vector<std::pair<std::size_t, StorageIRI>> all;
    for (std::size_t row = 0; row < rows.size(); ++row)
    {
        for (const auto& text : rows[row])
        {
            all.emplace_back(row, text.empty() ? StorageIRI() : StorageIRI(text));
        }
    }

    for (const auto& [leftRow, left] : all)
    {
        for (const auto& [rightRow, right] : all)
        {
            EXPECT_EQ(left == right, leftRow == rightRow) << left << ' ' << right;
            EXPECT_EQ((left < right) + (right < left) + (left == right), 1) << left << ' ' << right;
            for (const auto& [thirdRow, third] : all)
            {
                EXPECT_TRUE(!(left < right && right < third) || left < third) << left << ' ' << right << ' ' << third;
            }
        }
    }
}

} // namespace
