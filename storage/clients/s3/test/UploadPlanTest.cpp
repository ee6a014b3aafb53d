#include "UploadPlan.hpp"
#include "PartCutting.hpp"

#include <storage/cloudprovider/CloudExceptions.hpp>

#include <gmock/gmock.h>

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

/// Where the bytes of a file, or of the object that a plan makes, come from: in order, neighbours joined.
class Origin
{
public:
    void add(PartPlace place, std::size_t index, std::uint64_t offset, std::uint64_t size)
    {
        if (!m_runs.empty() && m_runs.back().place == place && m_runs.back().index == index &&
            m_runs.back().offset + m_runs.back().size == offset)
        {
            m_runs.back().size += size;
        }
        else if (size > 0)
        {
            m_runs.push_back({place, index, offset, size});
        }
    }
    bool operator==(const Origin&) const = default;

private:
    std::vector<PlannedBytes> m_runs;
};

Origin originOf(const std::vector<FilePart>& file)
{
    Origin origin;
    for (const FilePart& part : file)
    {
        const bool isObject = part.place == PartPlace::Object;
        origin.add(part.place, isObject ? 0 : part.index, isObject ? part.offset : 0, part.size);
    }
    return origin;
}

Origin originOf(const UploadPlan& plan)
{
    Origin origin;
    for (const PlannedPart& part : plan.parts)
    {
        if (part.how == How::Keep)
        {
            origin.add(PartPlace::Uploaded, part.number - 1, 0, part.size);
        }
        for (const PlannedBytes& bytes : part.bytes)
        {
            origin.add(bytes.place, bytes.index, bytes.offset, bytes.size);
        }
    }
    return origin;
}

/// @param forced  bytes; a part that is sent has fewer, however few numbers there are for it
void expectWithin(const UploadLimits& limits, const UploadPlan& plan, std::uint64_t forced)
{
    bool copies = false;
    std::uint64_t size = 0;
    for (std::size_t i = 0; i < plan.parts.size(); ++i)
    {
        const PlannedPart& part = plan.parts[i];
        const bool isLast = i + 1 == plan.parts.size();
        std::uint64_t sum = 0;
        for (const PlannedBytes& bytes : part.bytes)
        {
            sum += bytes.size;
        }
        EXPECT_EQ(sum, part.how == How::Keep ? 0 : part.size);
        EXPECT_TRUE(part.size >= limits.minPartSize || isLast) << "part of " << part.size << " bytes";
        EXPECT_GT(part.number, i == 0 ? 0 : plan.parts[i - 1].number);
        EXPECT_LE(part.number, limits.maxParts);
        if (part.how == How::Copy)
        {
            copies = true;
            EXPECT_LE(part.size, limits.maxCopySize);
            ASSERT_EQ(part.bytes.size(), 1U);
            EXPECT_EQ(part.bytes[0].place, PartPlace::Object);
        }
        if (part.how == How::Send && !limits.equalParts)
        {
            EXPECT_LT(part.size, std::max(2 * limits.minPartSize, forced)) << "more than memory should hold";
        }
        if (limits.equalParts && !isLast)
        {
            EXPECT_EQ(part.size, plan.parts[0].size);
        }
        size += part.size;
    }
    EXPECT_EQ(plan.size, size);
    EXPECT_LE(plan.size, limits.maxObjectSize);
    EXPECT_EQ(plan.needsVersionCheck, copies && !limits.pinnedCopies);
}

TEST(UploadPlanTest, KeepsToEveryLimitAndLosesNoByte)
{
    std::mt19937 random(1);
    const auto roll = [&](std::uint64_t most) { return std::uniform_int_distribution<std::uint64_t>(0, most)(random); };
    for (int round = 0; round < 20'000 && !testing::Test::HasFailure(); ++round)
    {
        UploadLimits limits{.minPartSize = 1 + roll(20), .maxParts = 1 + roll(40)};
        limits.maxObjectSize = 1 + roll(1'000);
        limits.maxCopySize = roll(4) == 0 ? 0 : 2 * limits.minPartSize + roll(100);
        limits.equalParts = roll(5) == 0;
        limits.pinnedCopies = roll(1) == 0;
        const bool isLegal = roll(1) == 0; // as parts that the store itself has
        const std::uint64_t least = isLegal ? limits.minPartSize : 1;
        const std::uint64_t more = isLegal && limits.maxCopySize > 0 ? limits.maxCopySize - least : 60;
        const std::uint64_t common = least + roll(std::min<std::uint64_t>(more, 30));
        std::vector<FilePart> file;
        std::uint64_t objectEnd = 0;
        std::uint64_t largest = 0;
        std::uint64_t total = 0;
        for (std::size_t i = 0, count = 1 + roll(isLegal ? std::min<std::uint64_t>(limits.maxParts - 1, 30) : 30);
             i < count; ++i)
        {
            const auto place = static_cast<PartPlace>(roll(9) < 6 ? 2 : roll(1));
            const bool isLast = i + 1 == count;
            const std::uint64_t size = isLast                               ? roll(common)
                                       : roll(3) == 0 && !limits.equalParts ? least + roll(more)
                                                                            : common;
            file.push_back({i, place, size, objectEnd});
            objectEnd += size + (roll(9) == 0 ? 1 : 0); // ranges need not touch
            largest = std::max(largest, size);
            total += size;
        }
        SCOPED_TRACE(testing::Message() << "round " << round);
        const auto plan = tryPlan(file, limits);
        EXPECT_TRUE(plan || !isLegal || total > limits.maxObjectSize);
        if (plan)
        {
            expectWithin(limits, *plan, isLegal ? 2 * largest : std::numeric_limits<std::uint64_t>::max());
            EXPECT_EQ(originOf(*plan), originOf(file));
        }
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
    const auto roll = [&](std::uint64_t most) { return std::uniform_int_distribution<std::uint64_t>(0, most)(random); };
    for (int round = 0; round < 300 && !testing::Test::HasFailure(); ++round)
    {
        const std::uint64_t cut = std::array{mebi / 16, mebi / 4, mebi, 5 * mebi, 7 * mebi}.at(roll(4));
        const std::uint64_t size = std::array{30 * mebi, 6 * mebi, 600 * mebi, 40 * gibi, 4000 * gibi}.at(roll(4));
        const std::uint64_t objectSize = 1 + roll(size - 1);
        const std::size_t count = cutIntoParts(objectSize, "", cut).size();
        const std::size_t first = roll(count);
        const auto file =
            patched(objectSize, cut, first, first + (roll(1) == 0 ? 0 : roll(20)), roll(3) * roll(9 * mebi));
        for (const std::uint64_t copies : {maxCopySize, std::uint64_t()})
        {
            const UploadLimits limits{.maxCopySize = copies};
            SCOPED_TRACE(testing::Message() << count << " parts, changed from " << first << ", of " << objectSize
                                            << " bytes in parts of " << cut << ", round " << round);
            const auto plan = tryPlan(file, limits);
            ASSERT_TRUE(plan);
            expectWithin(limits, *plan, file.front().size / 4 * 5);
            EXPECT_EQ(originOf(*plan), originOf(file));
        }
    }
}

TEST(UploadPlanTest, WhatIsAppendedIsSentAlone)
{
    const UploadPlan append = planUpload(patched(256 * mebi, mebi, 999, 999, 1024), {});
    ASSERT_EQ(append.parts.size(), 2U);
    EXPECT_EQ(append.parts[0].size, 256 * mebi);
    EXPECT_EQ(append.parts[1].size, 1024U);
}

TEST(UploadPlanTest, EqualPartsAreNeverJoined)
{
    const UploadLimits limits{.equalParts = true, .pinnedCopies = true};
    const UploadPlan plan = planUpload(patched(22 * mebi, 5 * mebi, 2, 2, 0), limits);
    ASSERT_EQ(plan.parts.size(), 5U);
    EXPECT_EQ(plan.parts[0].how, How::Copy);
    EXPECT_EQ(plan.parts[2].how, How::Keep); // a part of 5 MiB was sent at once
    EXPECT_THROW(
        planUpload(patched(22 * mebi, 7 * mebi, 9, 9, 9 * mebi), limits), cloudprovider::UnsupportedOperationException);
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
