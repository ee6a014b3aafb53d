#include "UploadPlan.hpp"
#include "PartCutting.hpp"

#include <storage/cloudprovider/CloudExceptions.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <limits>
#include <optional>
#include <random>

namespace storage::clients::s3
{

namespace
{

using How = PlannedPart::How;
constexpr std::uint64_t mebi = 1 << 20;
constexpr std::uint64_t gibi = 1 << 30;

std::optional<UploadPlan> tryPlan(const std::vector<FilePart>& file, const UploadLimits& limits)
{
    try
    {
        return planUpload(file, limits);
    }
    catch (const cloudprovider::UnsupportedOperationException&)
    {
        return std::nullopt;
    }
}

/// Where bytes come from, in order: adds a range, joined with the one before where it continues that.
void add(std::vector<PlannedBytes>& origin, const PlannedBytes& bytes)
{
    PlannedBytes* const last = origin.empty() ? nullptr : &origin.back();
    if (last != nullptr && last->place == bytes.place && last->index == bytes.index &&
        last->offset + last->size == bytes.offset)
    {
        last->size += bytes.size;
    }
    else if (bytes.size > 0)
    {
        origin.push_back(bytes);
    }
}

/// Expect that the plan makes the file's bytes within the limits.
/// @param forced  bytes; a part that is sent has fewer, however few numbers there are for it
void expectRight(
    const UploadPlan& plan, const std::vector<FilePart>& file, const UploadLimits& limits, std::uint64_t forced)
{
    std::vector<PlannedBytes> expected;
    for (const FilePart& part : file)
    {
        const bool isObject = part.place == PartPlace::Object;
        add(expected, {part.place, isObject ? 0 : part.index, isObject ? part.offset : 0, part.size});
    }
    std::vector<PlannedBytes> planned;
    bool copies = false;
    std::uint64_t size = 0;
    std::size_t number = 0;
    for (const PlannedPart& part : plan.parts)
    {
        const bool isLast = &part == &plan.parts.back();
        std::uint64_t sum = 0;
        for (const PlannedBytes& bytes : part.bytes)
        {
            add(planned, bytes);
            sum += bytes.size;
        }
        EXPECT_EQ(sum, part.how == How::Keep ? 0 : part.size);
        EXPECT_TRUE(part.size >= limits.minPartSize || isLast) << "part of " << part.size << " bytes";
        EXPECT_GT(part.number, std::exchange(number, part.number));
        switch (part.how)
        {
        case How::Keep:
            add(planned, {PartPlace::Uploaded, part.number - 1, 0, part.size});
            break;
        case How::Copy:
            copies = true;
            EXPECT_LE(part.size, limits.maxCopySize);
            EXPECT_TRUE(part.bytes.size() == 1 && part.bytes[0].place == PartPlace::Object);
            break;
        case How::Send:
            EXPECT_TRUE(limits.equalParts || part.size < std::max(2 * limits.minPartSize, forced)) << "too much memory";
        }
        EXPECT_TRUE(!limits.equalParts || isLast || part.size == plan.parts[0].size);
        size += part.size;
    }
    EXPECT_EQ(planned, expected);
    EXPECT_LE(number, limits.maxParts);
    EXPECT_EQ(plan.size, size);
    EXPECT_LE(plan.size, limits.maxObjectSize);
    EXPECT_EQ(plan.needsVersionCheck, copies && !limits.pinnedCopies);
}

TEST(UploadPlanTest, KeepsToEveryLimitAndLosesNoByte)
{
    std::mt19937 random(1);
    const auto roll = [&](std::uint64_t max) { return std::uniform_int_distribution<std::uint64_t>(0, max)(random); };
    for (int round = 0; round < 20'000 && !testing::Test::HasFailure(); ++round)
    {
        UploadLimits limits{.minPartSize = 1 + roll(20), .maxParts = 1 + roll(40), .maxObjectSize = 1 + roll(1'000)};
        limits.maxCopySize = roll(4) == 0 ? 0 : 2 * limits.minPartSize + roll(100);
        limits.equalParts = roll(5) == 0;
        limits.pinnedCopies = roll(1) == 0;
        const bool isLegal = roll(1) == 0; // as parts that the store itself has
        const std::uint64_t min = isLegal ? limits.minPartSize : 1;
        const std::uint64_t more = isLegal && limits.maxCopySize > 0 ? limits.maxCopySize - min : 60;
        const std::uint64_t common = min + roll(std::min<std::uint64_t>(more, 30));
        std::vector<FilePart> file;
        std::uint64_t objectEnd = 0;
        std::uint64_t largest = 0;
        std::uint64_t total = 0;
        const std::size_t count = 1 + roll(isLegal ? std::min<std::uint64_t>(limits.maxParts - 1, 30) : 30);
        for (std::size_t i = 0; i < count; ++i)
        {
            const auto place = static_cast<PartPlace>(roll(9) < 6 ? 2 : roll(1));
            const bool isUncommon = roll(3) == 0 && !limits.equalParts;
            const std::uint64_t size = i + 1 == count ? roll(common) : isUncommon ? min + roll(more) : common;
            file.push_back({i, place, size, objectEnd});
            objectEnd += size + (roll(9) == 0 ? 1 : 0); // ranges need not touch
            largest = std::max(largest, size);
            total += size;
        }
        SCOPED_TRACE(testing::Message() << "round " << round);
        const auto plan = tryPlan(file, limits);
        EXPECT_TRUE(plan || !isLegal || total > limits.maxObjectSize);
        plan ? expectRight(*plan, file, limits, isLegal ? 2 * largest : std::numeric_limits<std::uint64_t>::max())
             : void();
    }
}

/// A stored object as the provider opens it, the parts from `first` to `last` changed, and bytes appended.
std::vector<FilePart> patched(
    std::uint64_t objectSize, std::uint64_t partSize, std::size_t first, std::size_t last, std::uint64_t appended)
{
    std::vector<FilePart> file;
    for (const auto& part : cutIntoParts(objectSize, "tag", partSize))
    {
        const bool isChanged = part.Index >= first && part.Index <= last;
        file.push_back({part.Index, isChanged ? PartPlace::Spooled : PartPlace::Object, part.Size, part.Offset});
    }
    while (appended > 0)
    {
        // The last part grows to the size of new ones first.
        FilePart& end = file.back();
        const std::uint64_t grown = std::min(appended, minPartSize - std::min<std::uint64_t>(end.size, minPartSize));
        end.place = grown > 0 ? PartPlace::Spooled : end.place;
        end.size += grown;
        appended -= grown;
        if (appended > 0)
        {
            file.push_back({end.index + 1, PartPlace::Spooled, 0, 0});
        }
    }
    for (FilePart& part : file)
    {
        const bool isSent = part.place == PartPlace::Spooled && part.size >= minPartSize;
        part.place = isSent ? PartPlace::Uploaded : part.place;
    }
    return file;
}

TEST(UploadPlanTest, PlansEveryPatchOfAnObjectAsItIsCut)
{
    std::mt19937_64 random(2);
    const auto roll = [&](std::uint64_t max) { return std::uniform_int_distribution<std::uint64_t>(0, max)(random); };
    for (int round = 0; round < 300 && !testing::Test::HasFailure(); ++round)
    {
        const std::uint64_t cut = std::array{mebi / 16, mebi / 4, mebi, 5 * mebi, 7 * mebi}.at(roll(4));
        const std::uint64_t size = std::array{30 * mebi, 6 * mebi, 600 * mebi, 40 * gibi, 4000 * gibi}.at(roll(4));
        const std::uint64_t objectSize = 1 + roll(size - 1);
        const std::size_t first = roll(cutIntoParts(objectSize, "", cut).size());
        const auto file =
            patched(objectSize, cut, first, first + (roll(1) == 0 ? 0 : roll(20)), roll(3) * roll(9 * mebi));
        for (const std::uint64_t copies : {maxCopySize, std::uint64_t()})
        {
            const UploadLimits limits{.maxCopySize = copies};
            SCOPED_TRACE(testing::Message() << "changed from part " << first << ", " << objectSize
                                            << " bytes in parts of " << cut << ", round " << round);
            const auto plan = tryPlan(file, limits);
            ASSERT_TRUE(plan);
            expectRight(*plan, file, limits, file.front().size / 4 * 5);
        }
    }
    const UploadPlan append = planUpload(patched(256 * mebi, mebi, 999, 999, 1024), {});
    EXPECT_TRUE(append.parts.size() == 2 && append.parts[1].size == 1024) << "more is sent than what was appended";
}

TEST(PartCuttingTest, LeavesRoomForGrowthAndCutsNothingTooSmall)
{
    for (const std::uint64_t cut : {mebi / 16, mebi / 4, mebi, 5 * mebi})
    {
        for (const std::uint64_t size : {std::uint64_t(0), std::uint64_t(1), cut, 5 * mebi, 5 * mebi + 1, 6 * mebi,
                 5000 * cut, 5000 * cut + 1, 25 * gibi, 5000 * gibi, maxObjectSize})
        {
            const auto parts = cutIntoParts(size, "tag", cut);
            EXPECT_LE(parts.size(), maxParts / 2 + 1);
            const bool hasEmptyEnd = parts.size() > 1 && parts[0].Size < minPartSize;
            EXPECT_EQ(parts.back().Size == 0, hasEmptyEnd || size == 0);
            std::uint64_t end = 0;
            for (const auto& part : parts)
            {
                EXPECT_EQ(part.Offset, end);
                EXPECT_TRUE(part.Size == parts[0].Size || part.Offset + part.Size == size);
                end += part.Size;
            }
            EXPECT_EQ(end, size);
            const std::uint64_t beforeLast = parts[parts.size() - (hasEmptyEnd ? 2 : 1)].Offset;
            EXPECT_TRUE(beforeLast == 0 || beforeLast >= minPartSize) << size << " bytes";
        }
    }
}

} // namespace

} // namespace storage::clients::s3
