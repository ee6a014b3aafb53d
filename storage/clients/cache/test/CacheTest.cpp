#include "CacheFolder.hpp"

#include <storage/clients/cache/RangeCache.hpp>

#include <gtest/gtest.h>

#include <sys/resource.h>

#include <algorithm>
#include <csignal>
#include <fstream>
#include <random>
#include <thread>
#include <vector>

namespace storage::clients
{

namespace
{

namespace fs = std::filesystem;

/// A cache with blocks of 16 bytes: a file has 1 KiB of an object, and 5 KiB with its header.
class RangeCacheTest : public ::testing::Test
{
protected:
    static constexpr std::uint64_t fileSize = 4096 + 64 * 16;

    void reopen(std::uint64_t files)
    {
        cache.reset();
        cache = RangeCache::open({folder.path, files * fileSize, 16});
    }

    static ObjectVersion object(unsigned number, std::uint64_t size = 1024)
    {
        return {"store", "key" + std::to_string(number / 2), number % 2 == 0 ? "old" : "new", size};
    }

    /// What a version has at an offset.
    static char byteOf(const ObjectVersion& version, std::uint64_t offset)
    {
        return static_cast<char>(std::hash<std::string>()(version.key + version.tag) + offset * 7 + offset / 251);
    }

    void write(const ObjectVersion& version, const ByteRange& range)
    {
        std::string bytes(range.size, '\0');
        std::ranges::generate(bytes, [&, at = range.offset]() mutable { return byteOf(version, at++); });
        cache->write(version, range, bytes.data());
    }

    /// @return how many bytes are missing; those that are there are checked
    std::uint64_t read(const ObjectVersion& version, const ByteRange& range)
    {
        std::string bytes(range.size, '?');
        const ByteRange missing = cache->read(version, range, bytes.data());
        for (std::uint64_t at = range.offset; at < range.offset + range.size; ++at)
        {
            if (at < missing.offset || at >= missing.offset + missing.size)
            {
                const char got = bytes[at - range.offset];
                EXPECT_EQ(got, byteOf(version, at)) << "byte " << at << " of " << version.key << ' ' << version.tag;
            }
        }
        return missing.size;
    }

    std::uint64_t readAll(unsigned number) { return read(object(number), {0, 1024}); }

    std::vector<fs::path> files() const
    {
        std::vector<fs::path> found;
        std::ranges::copy_if(fs::directory_iterator(folder.path), std::back_inserter(found),
            [](const fs::path& path) { return path.filename().native().size() == 64; });
        return found;
    }

    const test::CacheFolder folder{};
    std::shared_ptr<RangeCache> cache;
};

TEST_F(RangeCacheTest, BelongsToOneInstanceAndToItsUser)
{
    reopen(4);
    EXPECT_EQ(RangeCache::open({folder.path}), nullptr);
    std::ofstream(folder.path / "note") << "foreign";
    write(object(0), {0, 1024});
    EXPECT_EQ(fs::status(folder.path).permissions(), fs::perms::owner_all);
    EXPECT_EQ(fs::status(files().at(0)).permissions(), fs::perms::owner_read | fs::perms::owner_write);
    cache.reset();
    EXPECT_NE(RangeCache::open({folder.path, 0}), nullptr) << "a smaller one evicts";
    EXPECT_TRUE(files().empty() && fs::exists(folder.path / "note"));
    EXPECT_ANY_THROW(RangeCache::open({folder.path / "note"}));
}

TEST_F(RangeCacheTest, EvictsWhatWasUsedLongestAgoAlsoBeforeItWasOpened)
{
    reopen(3);
    for (unsigned number = 0; number < 3; ++number)
    {
        write(object(number), {0, 1024});
    }
    EXPECT_EQ(readAll(0), 0);
    reopen(3);
    write(object(3), {0, 1024});
    EXPECT_EQ(cache->size(), 3 * fileSize);
    EXPECT_EQ(readAll(1), 1024) << "was used longest ago";
    for (const unsigned number : {0U, 2U, 3U})
    {
        EXPECT_EQ(readAll(number), 0) << number;
    }
}

TEST_F(RangeCacheTest, StopsWritingWhenTheDiskIsFullAndGoesOnReading)
{
    reopen(9);
    write(object(0), {0, 1024});
    struct rlimit old = {};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &old), 0);
    auto* const handler = std::signal(SIGXFSZ, SIG_IGN);
    const struct rlimit small = {4096 + 100, old.rlim_max}; // stands for a full disk
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
    write(object(1), {0, 1024});
    EXPECT_EQ(::setrlimit(RLIMIT_FSIZE, &old), 0);
    std::signal(SIGXFSZ, handler);
    EXPECT_EQ(readAll(1), 1024);
    EXPECT_EQ(readAll(0), 0);
    EXPECT_EQ(cache->size(), fileSize);
    EXPECT_EQ(files().size(), 1) << "what could not be completed is removed";
    write(object(2), {0, 1024});
    EXPECT_EQ(readAll(2), 1024);
}

TEST_F(RangeCacheTest, DeliversOnlyRightBytesWhateverHappensToItsFiles)
{
    const auto seed = static_cast<unsigned>(::testing::UnitTest::GetInstance()->random_seed());
    SCOPED_TRACE("--gtest_random_seed=" + std::to_string(seed));
    std::mt19937 random(seed);
    const auto below = [&](std::uint64_t end) { return random() % end; };
    constexpr unsigned limit = 6;
    reopen(limit);
    unsigned hits = 0;
    unsigned repairs = 0;
    for (int step = 0; step < 4'000 && !HasFailure(); ++step)
    {
        const ObjectVersion version = object(static_cast<unsigned>(below(6)), 2'500);
        const std::uint64_t offset = below(version.size);
        const ByteRange range{offset, 1 + below(version.size - offset)};
        const std::uint64_t begin = (offset + 15) / 16 * 16; // of the whole blocks
        const std::uint64_t end = offset + range.size == version.size ? version.size : (offset + range.size) / 16 * 16;
        const auto readBack = [&]
        {
            write(version, range);
            return begin < end ? read(version, {begin, end - begin}) : 0;
        };
        if (readBack() != 0)
        {
            EXPECT_EQ(readBack(), 0) << "the damage was found, and written over";
            ++repairs;
        }
        hits += read(object(static_cast<unsigned>(below(6)), 2'500), range) == 0;
        EXPECT_LE(cache->size(), limit * fileSize);
        EXPECT_LE(files().size() * 4096, cache->size());
        const auto all = files();
        if (step % 10 != 0 || all.empty())
        {
            continue;
        }
        const fs::path victim = all[below(all.size())];
        const auto size = fs::file_size(victim);
        std::fstream file(victim, std::ios::in | std::ios::out | std::ios::binary);
        std::error_code sameFile;
        switch (below(5))
        {
        case 0:
            file.seekp(static_cast<std::streamoff>(below(size))).put(static_cast<char>(random()));
            break;
        case 1:
            fs::resize_file(victim, below(size));
            break;
        case 2:
            fs::copy_file(victim, all.front(), fs::copy_options::overwrite_existing, sameFile);
            break;
        case 3:
            fs::remove(victim);
            break;
        default:
            reopen(limit);
        }
    }
    EXPECT_GT(hits, 100);
    EXPECT_TRUE(repairs > 0 && repairs < 400) << repairs << " of at most 400 files were damaged";
}

TEST_F(RangeCacheTest, IsReadAndWrittenByManyThreads)
{
    reopen(3);
    std::vector<std::jthread> threads;
    for (unsigned thread = 0; thread < 4; ++thread)
    {
        threads.emplace_back(
            [this, random = std::minstd_rand(thread + 1)]() mutable
            {
                for (int step = 0; step < 1'000; ++step)
                {
                    const ObjectVersion version = object(random() % 4, 2'048);
                    const ByteRange range{random() % 1'024, 1 + random() % 1'024};
                    random() % 2 == 0 ? write(version, range) : void(read(version, range));
                    EXPECT_LE(cache->size(), 3 * fileSize);
                }
            });
    }
    threads.clear();
    write(object(0), {0, 1'024});
    EXPECT_EQ(readAll(0), 0);
}

} // namespace

} // namespace storage::clients
