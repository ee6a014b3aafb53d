#include "TestStore.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <iterator>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <streambuf>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace storage::clients::test
{

namespace
{

constexpr std::array<const char*, 4> names{"a", "b", "folder/c", "folder/d"};
constexpr std::uint64_t deleted = 0; // as a version

// What the child tells: it is about to make this version of an object, or has made it.
struct Step
{
    std::size_t name;
    std::uint64_t version;
    bool done;
};

// Makes one version in one of the ways that there are.
void makeVersion(LocalClient& client, const std::string& key, std::uint64_t version, std::mt19937& random)
{
    const std::string whole = content(version, 100 + random() % 200'000);
    switch (random() % 4)
    {
    case 0:
        client.deleteObject(key);
        return;
    case 1:
    {
        const std::size_t middle = whole.size() / 2;
        putParts(client, key, {whole.substr(0, middle), whole.substr(middle)});
        return;
    }
    case 2:
    {
        // The same again, so that this version, too, is what its bytes say: one part sent, the others taken over.
        put(client, key, whole);
        const std::string upload = client.createMultipartUpload(key, "");
        cloudprovider::PartInfo first = client.getObjectParts(key).front();
        first.Tag = client.copyPart(key, upload, first);
        client.completeMultipartUpload(key, upload, {first});
        return;
    }
    default:
        put(client, key, whole);
    }
}

// Changes objects until it is killed.
[[noreturn]] void changeForEver(const std::filesystem::path& store, int reports, unsigned seed)
{
    std::mt19937 random(seed);
    LocalClient client(store);
    for (std::uint64_t version = std::uint64_t{seed} * 1'000'000 + 1;; ++version)
    {
        Step step{random() % names.size(), version, false};
        EXPECT_EQ(::write(reports, &step, sizeof(step)), static_cast<ssize_t>(sizeof(step)));
        makeVersion(client, names[step.name], version, random);
        step.done = true;
        EXPECT_EQ(::write(reports, &step, sizeof(step)), static_cast<ssize_t>(sizeof(step)));
    }
}

} // namespace

} // namespace storage::clients::test
