#include "Cases.hpp"

#include <storage/clients/common/TransientException.hpp>
#include <storage/clients/testing/CloudClientConformance.hpp>

#include <gmock/gmock.h>

#include <optional>
#include <sstream>

// Objects that are put and read whole: what is there, what is not, ranges, names.

namespace storage::clients::conformance
{

using namespace cloudprovider;
using testing::ElementsAre;
using testing::IsEmpty;

TEST_P(CloudClientConformance, AMissingObjectIsNoFailureWhereNothingIsReadFromIt)
{
    put("other", "x");
    for (const std::string key : {"missing", "missing/", "other/", "othe"})
    {
        EXPECT_FALSE(client().getObjectInfo(key).exists) << key;
        EXPECT_NO_THROW(client().deleteObject(key)) << key;
        EXPECT_THROW(get(key), ResourceNotFoundException) << key;
        EXPECT_THROW(client().getObjectParts(key), ResourceNotFoundException) << key;
    }
    EXPECT_THAT(keys("missing/"), IsEmpty());
    EXPECT_EQ(get("other"), "x");
}

TEST_P(CloudClientConformance, TheEmptyKeyIsTheRootAndNoObject)
{
    EXPECT_TRUE(client().getObjectInfo("").exists) << "the root of an empty store exists";
    EXPECT_THAT(keys(), IsEmpty());
    put("a", "x");
    EXPECT_THROW(put("", "x"), InvalidLocationException);
    EXPECT_THROW(client().createMultipartUpload("", ""), InvalidLocationException);
    EXPECT_NO_THROW(client().deleteObject(""));
    EXPECT_THAT(keys(), ElementsAre("a")) << "removing the empty key must remove nothing";
}

TEST_P(CloudClientConformance, KeepsWhatIsPutUntilItIsReplacedOrRemoved)
{
    for (const std::size_t size : {0U, 1U, 255U, 70'000U, 3U})
    {
        const std::string bytes = content(size, 1);
        put("a/b", bytes);
        const ObjectInfo info = client().getObjectInfo("a/b");
        EXPECT_TRUE(info.exists && info.size == size && !info.lastModified.is_special())
            << "expected an object of " << size << " bytes with a time, got " << info.size << " bytes";
        EXPECT_TRUE(get("a/b") == bytes) << "expected the " << size << " bytes that were put";

        const auto entries = list("a/");
        ASSERT_EQ(entries.size(), 1U);
        EXPECT_EQ(entries[0].key, "a/b");
        EXPECT_EQ(entries[0].size, size);
        EXPECT_FALSE(entries[0].lastModified.is_special());

        const auto parts = client().getObjectParts("a/b");
        ASSERT_LE(parts.size(), 1U) << "an object put whole is one part";
        ASSERT_TRUE(size == 0 || parts.size() == 1);
        if (!parts.empty())
        {
            EXPECT_TRUE(parts[0].Index == 0 && parts[0].Offset == 0 && parts[0].Size == size) << parts[0];
        }
    }
    client().deleteObject("a/b");
    EXPECT_FALSE(client().getObjectInfo("a/b").exists);
    EXPECT_THAT(keys(), IsEmpty());
}

TEST_P(CloudClientConformance, ReadsExactlyTheRange)
{
    struct Row
    {
        std::string stored;
        std::uint64_t first;
        std::uint64_t last;
        std::optional<std::string> expected; // nothing: fails
    };
    const Row rows[] = {{"0123456789", 0, 0, "0123456789"}, {"0123456789", 0, 9, "0123456789"},
        {"0123456789", 3, 5, "345"}, {"0123456789", 9, 9, "9"}, {"0123456789", 1, 0, ""}, {"0123456789", 7, 3, ""},
        {"0123456789", 20, 10, ""}, {"0123456789", 0, 10, {}}, {"0123456789", 5, 12, {}}, {"0123456789", 10, 10, {}},
        {"0123456789", 12, 20, {}}, {"0123456789", 0, UINT64_MAX, {}}, {"0123456789", 1, UINT64_MAX, {}},
        {"", 0, UINT64_MAX, {}}, {"x", 0, 0, "x"}, {"x", 1, 1, {}}, {"", 0, 0, ""}, {"", 1, 0, ""}, {"", 0, 1, {}}};
    for (const Row& row : rows)
    {
        SCOPED_TRACE(
            testing::Message() << "bytes " << row.first << " to " << row.last << " of \"" << row.stored << '"');
        put("k", row.stored);
        if (row.expected)
        {
            EXPECT_EQ(get("k", row.first, row.last), *row.expected);
        }
        else
        {
            try
            {
                get("k", row.first, row.last);
                ADD_FAILURE() << "expected a range beyond the object to fail";
            }
            catch (const TransientException& failure)
            {
                ADD_FAILURE() << "it will not do better the next time: " << failure.detail().value_or("");
            }
            catch (const CloudException&)
            {
            }
        }
    }
}

TEST_P(CloudClientConformance, FailsWhenTheReceiverDoesNotTakeTheBytes)
{
    put("k", "0123456789");
    std::ostringstream out;
    out.setstate(std::ios_base::badbit);
    EXPECT_THROW(client().getObjectRange("k", out, 2, 5), CloudException);
}

TEST_P(CloudClientConformance, ContentThatEndsEarlyFailsAndLeavesTheObject)
{
    put("k", "old");
    for (const std::string key : {"k", "new"})
    {
        std::istringstream tooShort("0123");
        EXPECT_THROW(client().putObject(key, tooShort, 10), CloudException) << key;
    }
    EXPECT_EQ(get("k"), "old");
    EXPECT_THAT(keys(), ElementsAre("k")) << "nothing may have been made of the short content";
}

TEST_P(CloudClientConformance, KeepsObjectsUnderEveryNameThatItAccepts)
{
    for (const std::string name : {"a", ".a", "...", "a b", " a", "-", "a\\b", "a\"b'c", "*?<>|&%+#;:=@", "%2F", "~",
             "\x7F", "\xC3\xA4", "\xE2\x82\xAC", "\xF0\x9F\x98\x80", "CON", "index.db"})
    {
        EXPECT_NO_THROW(client().validateObjectName(name)) << name;
        put("n/" + name, name);
        EXPECT_EQ(get("n/" + name), name);
        EXPECT_THAT(keys("n/"), ElementsAre("n/" + name));
        client().deleteObject("n/" + name);
        EXPECT_FALSE(client().getObjectInfo("n/" + name).exists) << name;
    }
}

TEST_P(CloudClientConformance, RefusesNamesThatNoStoreKeeps)
{
    using namespace std::string_literals;
    for (const std::string& name : {""s, "."s, ".."s, "a/b"s, "a\0b"s, "a\x01"s, "\x1F"s, "a\xFF"s, "\xC0\x80"s,
             "\xED\xA0\x80"s, "\xEF\xBF\xBF"s, std::string(1025, 'a')})
    {
        try
        {
            client().validateObjectName(name);
            ADD_FAILURE() << "expected a refusal of " << testing::PrintToString(name);
        }
        catch (const InvalidLocationException& e)
        {
            EXPECT_FALSE(e.detail().value_or("").empty()) << "expected the reason for " << testing::PrintToString(name);
        }
    }
}

TEST_P(CloudClientConformance, TakesKeysUpTo1024Bytes)
{
    std::string longest(1000, 'a');
    for (int i = 0; i < 8; ++i)
    {
        longest += "\xE2\x82\xAC";
    }
    ASSERT_EQ(longest.size(), 1024U);
    put(longest, "x");
    EXPECT_EQ(get(longest), "x");
    EXPECT_THAT(keys(), ElementsAre(longest));
    EXPECT_THROW(put(longest + "a", "x"), InvalidLocationException);
    EXPECT_THROW(client().createMultipartUpload(longest + "a", ""), InvalidLocationException);
    EXPECT_THAT(keys(), ElementsAre(longest));
}

void linkObjectCases() {}

} // namespace storage::clients::conformance
