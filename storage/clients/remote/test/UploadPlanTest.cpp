#include "UploadPlan.hpp"
#include "PartCutting.hpp"
#include "PartGroup.hpp"
#include "Upload.hpp"

#include <storage/cloudprovider/CloudExceptions.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <limits>
#include <optional>
#include <random>
#include <tuple>
#include <utility>
#include <vector>

namespace storage::clients
{

namespace
{

using How = PlannedPart::How;

constexpr std::uint64_t gibi = 1 << 30;
constexpr std::uint64_t mebi = 1 << 20;
constexpr StoreAbilities usual;

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

/// Expect that the plan makes the file's bytes within the store's limits.
/// @param forced  bytes; a part that is sent has fewer, however few numbers there are for it
/// @return bytes that are read from the object to be sent
std::uint64_t expectRight(const UploadPlan& plan, const std::vector<FilePart>& file, const StoreAbilities& store,
    std::uint64_t forced, const std::vector<std::uint64_t>& ends = {})
{
    const auto mayEnd = [&](std::uint64_t offset) { return offset == 0 || std::ranges::binary_search(ends, offset); };
    std::vector<PlannedBytes> expected;
    for (const FilePart& part : file)
    {
        const bool isObject = part.place == PartPlace::Object;
        add(expected, {part.place, isObject ? 0 : part.index, isObject ? part.offset : 0, part.size});
    }
    std::vector<PlannedBytes> planned;
    bool copies = false;
    std::uint64_t size = 0;
    std::uint64_t read = 0;
    std::size_t number = 0;
    std::ptrdiff_t count = 0; // of parts that are taken, besides one for each planned part
    for (const PlannedPart& part : plan.parts)
    {
        const bool isLast = &part == &plan.parts.back();
        std::uint64_t sum = 0;
        for (const PlannedBytes& bytes : part.bytes)
        {
            add(planned, bytes);
            sum += bytes.size;
            read += part.how == How::Send && bytes.place == PartPlace::Object ? bytes.size : 0;
        }
        EXPECT_EQ(sum, part.how == How::Keep ? 0 : part.size);
        EXPECT_TRUE(part.size >= store.minPartSize || isLast) << "part of " << part.size << " bytes";
        EXPECT_GT(part.number, std::exchange(number, part.number));
        switch (part.how)
        {
        case How::Keep:
            add(planned, {PartPlace::Uploaded, part.number - 1, 0, part.size});
            break;
        case How::Take:
            EXPECT_TRUE(mayEnd(part.bytes[0].offset) && mayEnd(part.bytes[0].offset + part.size));
            count += std::ranges::upper_bound(ends, part.bytes[0].offset + part.size - 1) -
                     std::ranges::upper_bound(ends, part.bytes[0].offset);
            [[fallthrough]];
        case How::Copy:
            copies = true;
            EXPECT_TRUE(part.size <= store.maxTakeSize || part.how == How::Take);
            EXPECT_TRUE(part.bytes.size() == 1 && part.bytes[0].place == PartPlace::Object);
            break;
        case How::Send:
            EXPECT_TRUE(store.equalParts || part.size < std::max(2 * store.minPartSize, forced)) << "too much memory";
            if (isLast && store.maxTakeSize > 0 && !store.equalParts && ends.empty() && part.bytes.size() > 1)
            {
                const PlannedBytes& tail = part.bytes.back();
                EXPECT_TRUE(tail.place != PartPlace::Object || sum < store.minPartSize + tail.size) << "not copied";
            }
        }
        EXPECT_TRUE(!store.equalParts || isLast || part.size == plan.parts[0].size);
        size += part.size;
    }
    EXPECT_EQ(planned, expected);
    EXPECT_LE(number, store.maxParts);
    EXPECT_LE(plan.parts.size() + static_cast<std::size_t>(count), store.maxParts);
    EXPECT_EQ(plan.size, size);
    EXPECT_LE(plan.size, store.maxObjectSize);
    EXPECT_EQ(plan.hasCopies, copies);
    return read;
}

TEST(UploadPlanTest, KeepsToEveryLimitAndLosesNoByte)
{
    std::mt19937 random(1);
    const auto roll = [&](std::uint64_t max) { return std::uniform_int_distribution<std::uint64_t>(0, max)(random); };
    for (int round = 0; round < 20'000 && !testing::Test::HasFailure(); ++round)
    {
        StoreAbilities store{.minPartSize = 1 + roll(20), .maxParts = 1 + roll(40), .maxObjectSize = 1 + roll(1'000)};
        store.maxTakeSize = roll(4) == 0 ? 0 : 2 * store.minPartSize + roll(100);
        store.equalParts = roll(5) == 0;
        const bool isLegal = roll(1) == 0; // as parts that the store itself has
        const std::uint64_t min = isLegal ? store.minPartSize : 1;
        const std::uint64_t more = isLegal && store.maxTakeSize > 0 ? store.maxTakeSize - min : 60;
        const std::uint64_t common = min + roll(std::min<std::uint64_t>(more, 30));
        std::vector<FilePart> file;
        std::uint64_t objectEnd = 0;
        std::uint64_t largest = 0;
        std::uint64_t total = 0;
        const bool hasSent = roll(3) > 0;
        const std::size_t count = 1 + roll(isLegal ? std::min<std::uint64_t>(store.maxParts - 1, 30) : 30);
        for (std::size_t i = 0; i < count; ++i)
        {
            const auto place = static_cast<PartPlace>(roll(9) < 6 ? 2 : hasSent ? roll(1) : 1);
            const bool isUncommon = roll(3) == 0 && (!store.equalParts || !hasSent);
            const std::uint64_t size = i + 1 == count ? roll(common) : isUncommon ? min + roll(more) : common;
            file.push_back({i, place, size, objectEnd, i + 1});
            objectEnd += size + (roll(9) == 0 ? 1 : 0); // ranges need not touch
            largest = std::max(largest, size);
            total += size;
        }
        std::vector<std::uint64_t> ends;
        for (std::uint64_t end = store.equalParts ? objectEnd : roll(1) * objectEnd; end < objectEnd;
             ends.push_back(end))
        {
            end = std::min(objectEnd, end + 1 + roll(2 * store.minPartSize));
        }
        SCOPED_TRACE(testing::Message() << "round " << round);
        try
        {
            const std::uint64_t forced =
                isLegal && ends.empty() ? 2 * largest : std::numeric_limits<std::uint64_t>::max();
            expectRight(planUpload(file, store, ends), file, store, forced, ends);
        }
        catch (const cloudprovider::UnsupportedOperationException& refusal)
        {
            EXPECT_TRUE(!isLegal || total > store.maxObjectSize) << refusal.detail().value_or("");
        }
    }
}

TEST(UploadPlanTest, CountsThePartsOfTheObjectOnce)
{
    constexpr StoreAbilities store{.minPartSize = 100, .maxParts = 10, .maxTakeSize = 200, .takesWholeParts = true};
    const std::vector<FilePart> file{
        {0, PartPlace::Object, 600, 0, 1}, {1, PartPlace::Uploaded, 100, 0, 7}, {2, PartPlace::Object, 100, 700, 3}};
    const UploadPlan plan = planUpload(file, store, {100, 200, 300, 400, 500, 600, 700, 800});
    ASSERT_EQ(plan.parts.size(), 3U);
    EXPECT_EQ(plan.parts[0].how, How::Take) << "no copy, because there are 8 parts";
}

TEST(UploadPlanTest, AppendingOftenDoesNotLeaveManySmallParts)
{
    constexpr StoreAbilities store{.minPartSize = 100, .maxTakeSize = 1'000, .takesWholeParts = true};
    std::vector<std::uint64_t> ends{500};
    for (int i = 0; i < 100; ++i)
    {
        const std::uint64_t size = ends.back();
        const std::vector<FilePart> file{{0, PartPlace::Object, size, 0, 1}, {1, PartPlace::Spooled, 30, 0, 2}};
        const UploadPlan plan = planUpload(file, store, ends);
        ASSERT_EQ(plan.parts.front().how, How::Take);
        std::erase_if(ends, [&](std::uint64_t end) { return end > plan.parts.front().size; });
        ends.push_back(size + 30);
    }
    EXPECT_LE(ends.size(), 1 + 100 * 30 / store.minPartSize + 1);
}

/// A stored object as the provider opens it, the parts from `first` to `last` changed, and bytes appended. What an
/// upload would have sent by its completion is uploaded.
std::vector<FilePart> patched(std::uint64_t objectSize, std::uint64_t partSize, std::size_t first, std::size_t last,
    std::uint64_t appended, const StoreAbilities& store)
{
    Upload upload("id", "k", "tag", false, "k");
    const std::uint64_t spooled = upload.spool().allocate(1).position; // of all parts: nobody reads them
    std::vector<FilePart> file;
    std::uint64_t offset = 0;
    const auto add = [&](PartPlace place, std::uint64_t size)
    {
        const std::size_t index = file.size();
        file.push_back({index, place, size, offset, index + 1});
        if (place == PartPlace::Spooled)
        {
            upload.setPart(index, {.place = place, .size = size, .offset = offset, .spooled = spooled});
            upload.beginSendingSpooled(upload.groupOf({index, offset, size, ""}, store), store, 1'000'000);
        }
        offset += size;
    };
    auto parts = cutIntoParts({"tag", objectSize}, partSize, usual);
    // The last part grows to the size of new ones first.
    const std::uint64_t room = usual.minPartSize - std::min(parts.back().Size, usual.minPartSize);
    const std::uint64_t grown = std::min(appended, room);
    for (const auto& part : parts)
    {
        const bool isLast = &part == &parts.back();
        const bool isChanged = (part.Index >= first && part.Index <= last) || (isLast && grown > 0);
        add(isChanged ? PartPlace::Spooled : PartPlace::Object, part.Size + (isLast ? grown : 0));
    }
    for (std::uint64_t left = appended - grown; left > 0; left -= std::min<std::uint64_t>(left, usual.minPartSize))
    {
        add(PartPlace::Spooled, std::min<std::uint64_t>(left, usual.minPartSize));
    }
    std::vector<FilePart> joined;
    for (const FilePart& part : file)
    {
        const auto sent = part.place == PartPlace::Spooled ? upload.part(part.index)->group : PartGroup();
        if (sent.number != 0 && sent.first != part.index)
        {
            joined.back().size += part.size;
            continue;
        }
        const FilePart whole{sent.number - 1, PartPlace::Uploaded, part.size, part.offset, sent.number};
        joined.push_back(sent.number != 0 ? whole : part);
    }
    return joined;
}

TEST(UploadPlanTest, PlansEveryPatchOfAnObjectAsItIsCut)
{
    std::mt19937_64 random(2);
    const auto roll = [&](std::uint64_t max) { return std::uniform_int_distribution<std::uint64_t>(0, max)(random); };
    for (int round = 0; round < 60 && !testing::Test::HasFailure(); ++round)
    {
        const std::uint64_t cut = std::array{mebi / 16, mebi / 4, mebi, 5 * mebi, 7 * mebi}.at(roll(4));
        const std::uint64_t size = std::array{30 * mebi, 6 * mebi, 600 * mebi, 40 * gibi, 300 * gibi}.at(roll(4));
        const std::uint64_t objectSize = 1 + roll(size - 1);
        const auto parts = cutIntoParts({"tag", objectSize}, cut, usual);
        const std::size_t count = parts.size();
        EXPECT_TRUE(count <= usual.maxParts / 2 + 1 || parts.front().Size == 8 * mebi) << "few numbers are left";
        EXPECT_LE(cutIntoParts({"tag", objectSize}, cut, {.equalParts = true}).size(), usual.maxParts / 2 + 1);
        const std::size_t first = roll(count);
        const std::size_t last = first + (roll(1) == 0 ? 0 : roll(1'000));
        const std::uint64_t appended = roll(3) * roll(9 * gibi);
        for (const std::uint64_t copies : {usual.maxTakeSize, 64 * mebi, std::uint64_t()})
        {
            const StoreAbilities store{.maxTakeSize = copies};
            const auto file = patched(objectSize, cut, first, last, appended, store);
            SCOPED_TRACE(testing::Message() << "changed from part " << first << ", " << objectSize
                                            << " bytes in parts of " << cut << ", round " << round);
            const bool isTight = copies == 0 || count > usual.maxParts / 2 + 1;
            const auto read = expectRight(planUpload(file, store), file, store, isTight ? usual.maxPartSize : 0);
            EXPECT_LE(read, copies > 0 ? 4 * usual.minPartSize : objectSize) << "sent instead of copied";
        }
    }
    const UploadPlan append = planUpload(patched(256 * mebi, mebi, 999, 999, 1024, usual), {});
    EXPECT_TRUE(append.parts.size() == 2 && append.parts[1].size == 1024) << "more is sent than what was appended";

    // A change in the middle of as many whole parts as a store takes, and one part more.
    const StoreAbilities blocks{.minPartSize = 1, .maxPartSize = 10, .maxParts = 50'000, .takesWholeParts = true};
    std::vector<FilePart> changed(blocks.maxParts, {.place = PartPlace::Object, .size = 1});
    std::vector<std::uint64_t> ends(blocks.maxParts);
    for (std::size_t i = 0; i < changed.size(); ++i)
    {
        changed[i].index = changed[i].offset = i;
        changed[i].number = ends[i] = i + 1;
    }
    changed[25'000].place = PartPlace::Spooled;
    const UploadPlan full = planUpload(changed, blocks, ends);
    EXPECT_TRUE(full.parts.size() == 3 && full.parts[1].how == How::Send && full.parts[1].size == 1);
    changed.push_back({blocks.maxParts, PartPlace::Spooled, 10, 0, blocks.maxParts + 1});
    expectRight(planUpload(changed, blocks, ends), changed, blocks, 0, ends);
}

TEST(UploadPlanTest, NumbersLastForTheLargestObject)
{
    const StoreAbilities swift{.maxParts = 1'000, .maxObjectSize = 1'500 * gibi};
    const StoreAbilities large{.minPartSize = 16 * mebi};
    const StoreAbilities small{.minPartSize = 100, .maxParts = 40, .maxObjectSize = 40'000};
    const std::tuple<StoreAbilities, std::size_t, std::uint64_t> rows[] = {{usual, 0, 4'700 * mebi},
        {usual, 5'001, 5 * gibi}, {swift, 0, 5 * gibi}, {large, 0, 5 * gibi}, {small, 0, 6'000}};
    for (const auto& [store, ungrouped, largest] : rows)
    {
        const std::size_t count = store.maxObjectSize / store.minPartSize;
        for (std::size_t index = 0; index < count; index += 1 + index / 20)
        {
            const PartGroup group = groupOf(index, ungrouped, store);
            const PartGroup next = groupOf(group.end(), ungrouped, store);
            SCOPED_TRACE(testing::Message() << "part " << index << " of " << count);
            EXPECT_TRUE(group.first <= index && index < group.end());
            EXPECT_TRUE(next.first == group.end() && next.number == group.number + 1);
            EXPECT_TRUE(group.number <= store.maxParts && group.count * store.minPartSize <= largest);
            EXPECT_TRUE(group.count == 1 || index > store.maxParts / 40);
        }
    }
}

} // namespace

} // namespace storage::clients
