#include "Cases.hpp"

#include <storage/clients/testing/CloudClientConformance.hpp>

#include <gmock/gmock.h>

#include <algorithm>
#include <array>
#include <map>

namespace storage::clients::conformance
{

using namespace cloudprovider;

namespace
{

// One of each class of UTF-8 bytes, and of each class that a store may have to escape. The last ones have another order
// in UTF-16 than in bytes.
constexpr std::array characters{"\t", "\n", " ", "!", "%", "&", "+", "-", "0", "<", "A", "a", "b", "~", "\x7F",
    "\xC2\x80", "\xDF\xBF", "\xE0\xA0\x80", "\xEE\x80\x80", "\xEF\xBF\xBD", "\xF0\x90\x80\x80", "\xF4\x8F\xBF\xBF"};

std::string randomKey(std::mt19937& random)
{
    std::string key;
    const std::size_t segments = 1 + random() % 3;
    for (std::size_t segment = 0; segment < segments; ++segment)
    {
        key += segment == 0 ? "" : "/";
        // Half of the names are made of four characters, so that folders have several entries.
        const std::size_t choices = random() % 2 == 0 ? 4 : characters.size();
        for (std::size_t length = 1 + random() % 2; length > 0; --length)
        {
            key += characters[(choices == 4 ? 9 : 0) + random() % choices];
        }
    }
    return random() % 5 == 0 ? key + "/" : key;
}

using KeysAndSizes = std::map<std::string, std::uint64_t>;

KeysAndSizes expectedListing(const KeysAndSizes& objects, const std::string& prefix, const std::string& delimiter)
{
    KeysAndSizes result;
    for (const auto& [key, size] : objects)
    {
        if (key.starts_with(prefix))
        {
            const std::size_t at = delimiter.empty() ? std::string::npos : key.find(delimiter, prefix.size());
            result.insert(
                at == std::string::npos ? std::pair(key, size) : std::pair(key.substr(0, at + delimiter.size()), 0UL));
        }
    }
    return result;
}

} // namespace

TEST_P(CloudClientConformance, ListsWhatASortedMapHolds)
{
    std::mt19937 random = randomNumbers();
    KeysAndSizes objects;
    std::vector<std::string> prefixes{"missing/"};
    for (int i = 0; i < 150; ++i)
    {
        const std::string key = randomKey(random);
        const std::size_t size = random() % 4;
        put(key, std::string(size, 'x'));
        objects[key] = size;
        const std::size_t slash = key.find('/', random() % key.size());
        if (slash != std::string::npos)
        {
            prefixes.push_back(key.substr(0, slash + 1));
        }
    }
    for (int i = 0; i < 100; ++i)
    {
        // Half of the listings are at the root, which has the large groups.
        const std::string prefix = random() % 2 == 0 ? "" : prefixes[random() % prefixes.size()];
        const int maxKeys = random() % 8 == 0 ? -1 : 1 + static_cast<int>(random() % 7);
        const ListOptions options{random() % 3 == 0 ? "" : "/", maxKeys};
        std::vector<std::pair<std::string, std::uint64_t>> listed;
        for (const ObjectEntry& entry : list(client(), prefix, options))
        {
            listed.emplace_back(entry.key, entry.size);
            const bool isGroup = !options.delimiter.empty() && entry.key.find('/', prefix.size()) != std::string::npos;
            if (!isGroup || !objects.contains(entry.key))
            {
                EXPECT_EQ(entry.lastModified.is_not_a_date_time(), isGroup)
                    << "an object has a time, a group without an object of its own has none: " << entry.key;
            }
        }
        if (!capabilities().noByteOrder.empty())
        {
            std::ranges::sort(listed);
        }
        const KeysAndSizes expected = expectedListing(objects, prefix, options.delimiter);
        ASSERT_THAT(listed, testing::ElementsAreArray(expected.begin(), expected.end()))
            << "prefix " << testing::PrintToString(prefix) << ", delimiter \"" << options.delimiter << "\", maxKeys "
            << options.maxKeys;
    }
}

TEST_P(CloudClientConformance, TokensSurviveChangesAndCanBeUsedTwice)
{
    for (const char* key : {"a", "b", "c", "d/1", "d/2", "e", "f", "g", "h/1", "h/2", "i", "j"})
    {
        put(key, "");
    }
    std::vector<std::string> seen;
    std::string token;
    do
    {
        std::string again = token;
        const auto page = client().listObjects("", token, {"/", 1});
        const auto samePage = client().listObjects("", again, {"/", 1});
        ASSERT_EQ(page.size(), samePage.size()) << "a token may be used more than once";
        for (std::size_t i = 0; i < page.size(); ++i)
        {
            EXPECT_EQ(page[i].key, samePage[i].key);
            seen.push_back(page[i].key);
        }
        if (!seen.empty() && seen.back() == "b")
        {
            // After the token, at it and before it; also in groups that keep another key.
            for (const char* gone : {"a", "c", "d/1", "e", "g", "h/2", "i"})
            {
                client().deleteObject(gone);
            }
            put("aa", "");
            put("d/0", "");
        }
        ASSERT_LT(seen.size(), 20U) << "the listing must end";
    } while (!token.empty());

    EXPECT_THAT(seen, testing::ElementsAre("a", "b", "d/", "f", "h/", "j"))
        << "keys that exist all the time are listed once, keys that were removed after the token are not";
}

void linkListingCases() {}

} // namespace storage::clients::conformance
