#include "Cases.hpp"

#include <storage/clients/common/ObjectRemover.hpp>
#include <storage/clients/common/PinnedVersions.hpp>
#include <storage/clients/common/TransientException.hpp>
#include <storage/clients/decorators/FindInterface.hpp>
#include <storage/clients/testing/CloudClientConformance.hpp>

#include <gmock/gmock.h>

#include <optional>
#include <sstream>

// Single objects: existence, contents, ranges, names.

namespace storage::clients::conformance
{

using namespace cloudprovider;
using namespace testing;

TEST_P(CloudClientConformance, OnlyReadingAMissingObjectFails)
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

TEST_P(CloudClientConformance, TheEmptyKeyIsTheRootAndNotAnObject)
{
    EXPECT_TRUE(client().getObjectInfo("").exists) << "the root of an empty store exists";
    EXPECT_THAT(keys(), IsEmpty());
    put("a", "x");
    EXPECT_THROW(put("", "x"), InvalidLocationException);
    const std::string id = client().createMultipartUpload("", "");
    EXPECT_THROW(client().completeMultipartUpload("", id, {upload("", id, 0, "x")}), InvalidLocationException);
    EXPECT_NO_THROW(client().abortMultipartUpload("", id));
    EXPECT_NO_THROW(client().deleteObject(""));
    EXPECT_THAT(keys(), ElementsAre("a")) << "removing the empty key must remove nothing";
}

TEST_P(CloudClientConformance, StoresReplacesAndRemovesAnObject)
{
    auto* const versions = findInterface<PinnedVersions>(client());
    for (const std::size_t size : {0U, 1U, 255U, 70'000U, 3U})
    {
        SCOPED_TRACE(Message() << size << " bytes");
        const std::string bytes = content(size, 1);
        put("a/b", bytes);
        const ObjectInfo info = client().getObjectInfo("a/b");
        EXPECT_TRUE(info.exists && info.size == size && !info.lastModified.is_special());
        EXPECT_TRUE(get("a/b") == bytes);
        if (versions != nullptr)
        {
            const auto pinned = versions->pinnedVersion("a/b");
            EXPECT_TRUE(pinned && pinned->tag == info.tag && pinned->size == size);
        }

        const auto entries = list(client(), "a/");
        EXPECT_TRUE(entries.size() == 1 && entries[0].key == "a/b" && entries[0].size == size);
        EXPECT_TRUE(
            size == 0 ? client().getObjectParts("a/b").size() <= 1 : haveSizes(client().getObjectParts("a/b"), {size}));
    }
    auto* const remover = findInterface<ObjectRemover>(client());
    remover != nullptr ? void(remover->deleteObjects({"a/b"})) : client().deleteObject("a/b");
    EXPECT_FALSE(client().getObjectInfo("a/b").exists);
    EXPECT_FALSE(versions != nullptr && versions->pinnedVersion("a/b")) << "somebody may have stored another one";
    EXPECT_THAT(keys(), IsEmpty());
}

TEST_P(CloudClientConformance, ReadsExactlyTheRange)
{
    struct Row
    {
        std::string stored;
        std::uint64_t first;
        std::uint64_t last;
        std::optional<std::string> expected; // nullopt: the call fails
    };
    const Row rows[] = {{"0123456789", 0, 0, "0123456789"}, {"0123456789", 0, 9, "0123456789"},
        {"0123456789", 3, 5, "345"}, {"0123456789", 9, 9, "9"}, {"0123456789", 1, 0, ""}, {"0123456789", 7, 3, ""},
        {"0123456789", 20, 10, ""}, {"0123456789", 0, 10, {}}, {"0123456789", 5, 12, {}}, {"0123456789", 10, 10, {}},
        {"0123456789", 12, 20, {}}, {"0123456789", 0, UINT64_MAX, {}}, {"0123456789", 1, UINT64_MAX, {}},
        {"", 0, UINT64_MAX, {}}, {"x", 0, 0, "x"}, {"x", 1, 1, {}}, {"", 0, 0, ""}, {"", 1, 0, ""}, {"", 0, 1, {}}};
    for (const Row& row : rows)
    {
        SCOPED_TRACE(Message() << row.first << " to " << row.last << " of \"" << row.stored << '"');
        put("k", row.stored);
        if (row.expected)
        {
            EXPECT_EQ(get("k", row.first, row.last), *row.expected);
            continue;
        }
        const auto isTransient = [](const CloudException& failure)
        { return dynamic_cast<const TransientException*>(&failure) != nullptr; };
        EXPECT_THAT([&] { get("k", row.first, row.last); }, Throws<CloudException>(ResultOf(isTransient, false)))
            << "expected a range beyond the end to fail, and no retry, which cannot succeed";
    }
}

TEST_P(CloudClientConformance, FailsWhenAStreamFails)
{
    put("k", "0123456789");
    std::ostringstream out;
    out.setstate(std::ios_base::badbit);
    EXPECT_THROW(client().getObjectRange("k", out, 2, 5), CloudException);
    for (const std::string key : {"k", "new"})
    {
        std::istringstream tooShort("0123");
        EXPECT_THROW(client().putObject(key, tooShort, 10), CloudException) << key;
    }
    EXPECT_EQ(get("k"), "0123456789");
    EXPECT_THAT(keys(), ElementsAre("k")) << "no object may have been stored";
}

TEST_P(CloudClientConformance, StoresObjectsUnderUnusualNames)
{
    for (const std::string name : {"a", ".a", "...", "a b", " a", "-", "a\\b", "a\"b'c", "*?<>|&%+#;:=@", "%2F", "~",
             "\x7F", "\xC3\xA4", "\xE2\x82\xAC", "\xF0\x9F\x98\x80", "CON", "index.db"})
    {
        EXPECT_NO_THROW(client().validateObjectName(name)) << name;
        const std::string refused = name.find('\\') != std::string::npos ? capabilities().noBackslashes
                                    : name.ends_with('.')                ? capabilities().noTrailingDots
                                                                         : "";
        if (!refused.empty())
        {
            EXPECT_THROW(put("n/" + name, name), InvalidLocationException) << refused;
            continue;
        }
        put("n/" + name, name);
        EXPECT_EQ(get("n/" + name), name);
        EXPECT_THAT(keys("n/"), ElementsAre("n/" + name));
        client().deleteObject("n/" + name);
        EXPECT_FALSE(client().getObjectInfo("n/" + name).exists) << name;
    }
}

TEST_P(CloudClientConformance, RefusesInvalidNames)
{
    using namespace std::string_literals;
    for (const std::string& name : {""s, "."s, ".."s, "a/b"s, "a\0b"s, "a\x01"s, "\x1F"s, "a\xFF"s, "\xC0\x80"s,
             "\xED\xA0\x80"s, "\xEF\xBF\xBF"s, std::string(1025, 'a')})
    {
        EXPECT_THAT([&] { client().validateObjectName(name); },
            Throws<InvalidLocationException>(Property(&CloudException::detail, Optional(Not(IsEmpty())))))
            << "expected a refusal with its reason for " << PrintToString(name);
        if (name.find_first_of("./") == std::string::npos) // as part of a key, dots may stand for themselves
        {
            EXPECT_THROW(put(name, "x"), InvalidLocationException) << PrintToString(name);
        }
    }
    EXPECT_THAT(keys(), IsEmpty());
}

TEST_P(CloudClientConformance, AcceptsKeysUpToTheLongest)
{
    std::string longest(capabilities().maxKeyBytes - 24, 'a');
    for (int i = 0; i < 8; ++i)
    {
        longest += "\xE2\x82\xAC";
    }
    put(longest, "x");
    EXPECT_EQ(get(longest), "x");
    EXPECT_THAT(keys(), ElementsAre(longest));
    EXPECT_THROW(put(longest + "a", "x"), InvalidLocationException);
    std::string id;
    EXPECT_NO_THROW(id = client().createMultipartUpload(longest + "a", "")) << "a close would succeed";
    const std::string key = longest + "a";
    EXPECT_THROW(client().completeMultipartUpload(key, id, {upload(key, id, 0, "x")}), InvalidLocationException);
    EXPECT_NO_THROW(client().abortMultipartUpload(key, id));
    EXPECT_THAT(keys(), ElementsAre(longest));
}

void linkObjectCases() {}

} // namespace storage::clients::conformance
