#include "Cases.hpp"

#include <storage/clients/testing/CloudClientConformance.hpp>

#include <storage/clients/common/UploadInventory.hpp>

#include <gmock/gmock.h>

#include <algorithm>
#include <iterator>
#include <numeric>
#include <sstream>
#include <utility>

namespace storage::clients::conformance
{

using namespace cloudprovider;
using testing::IsEmpty;

namespace
{

// Whether the parts are numbered from 0, touch each other and have these sizes; where a client cuts by a rule of its
// own they need only add up to the same.
testing::AssertionResult areCut(
    const std::vector<PartInfo>& parts, std::vector<std::size_t> sizes, const Capabilities& capabilities)
{
    if (!capabilities.noPartBoundaries.empty())
    {
        const std::size_t total = std::accumulate(sizes.begin(), sizes.end(), std::size_t{0});
        sizes.clear();
        std::transform(
            parts.begin(), parts.end(), std::back_inserter(sizes), [](const auto& part) { return part.Size; });
        if (std::accumulate(sizes.begin(), sizes.end(), std::size_t{0}) != total)
        {
            return testing::AssertionFailure() << "expected parts of " << total << " bytes together";
        }
    }
    std::vector<PartInfo> expected;
    std::size_t offset = 0;
    for (const std::size_t size : sizes)
    {
        expected.push_back({expected.size(), offset, size, ""});
        offset += size;
    }
    const bool equal = std::equal(parts.begin(), parts.end(), expected.begin(), expected.end(),
        [](const PartInfo& a, const PartInfo& b)
        { return a.Index == b.Index && a.Offset == b.Offset && a.Size == b.Size && !a.Tag.empty(); });
    return (equal ? testing::AssertionSuccess() : testing::AssertionFailure())
           << "expected tagged parts at " << testing::PrintToString(expected) << ", got "
           << testing::PrintToString(parts);
}

} // namespace

TEST_P(CloudClientConformance, JoinsThePartsThatAreListed)
{
    const std::string first = partContent(1);
    const std::string second = partContent(2);
    const std::string last = content(10, 3);
    const std::string id = client().createMultipartUpload("k", "");
    // In any order, with gaps between the indexes, and one that is not wanted in the end.
    const PartInfo lastPart = upload("k", id, 7, last);
    const PartInfo firstPart = upload("k", id, 0, first);
    if (capabilities().noUnlistedParts.empty())
    {
        upload("k", id, 1, partContent(4));
    }
    const PartInfo secondPart = upload("k", id, 3, second);
    EXPECT_FALSE(client().getObjectInfo("k").exists) << "nothing is visible before completion";
    EXPECT_THAT(keys(), IsEmpty());

    client().completeMultipartUpload("k", id, {firstPart, secondPart, lastPart});
    EXPECT_TRUE(get("k") == first + second + last) << "expected the listed parts one after the other";
    EXPECT_EQ(client().getObjectInfo("k").size, first.size() + second.size() + last.size());
    EXPECT_TRUE(areCut(client().getObjectParts("k"), {first.size(), second.size(), last.size()}, capabilities()));
    EXPECT_TRUE(get("k", first.size() - 5, first.size() + second.size() + 1) ==
                first.substr(first.size() - 5) + second + last.substr(0, 2))
        << "expected a range across parts";
    EXPECT_THROW(upload("k", id, 8, last), ResourceNotFoundException) << "completion ends the upload";

    put("k", "whole");
    EXPECT_TRUE(areCut(client().getObjectParts("k"), {5}, capabilities())) << "nothing of the old parts remains";
}

TEST_P(CloudClientConformance, MakesAnEmptyObjectOfOneEmptyPart)
{
    const std::string id = client().createMultipartUpload("k", "");
    client().completeMultipartUpload("k", id, {upload("k", id, 0, "")});
    EXPECT_EQ(get("k"), "");
    EXPECT_TRUE(client().getObjectInfo("k").exists);
    EXPECT_LE(client().getObjectParts("k").size(), 1U);
}

TEST_P(CloudClientConformance, ARefusedCompletionLeavesObjectAndUpload)
{
    put("k", "old");
    const std::string id = client().createMultipartUpload("k", "");
    const std::string bytes = partContent(2);
    const PartInfo replaced = upload("k", id, 0, partContent(1));
    const PartInfo first = upload("k", id, 0, bytes);
    const PartInfo second = upload("k", id, 1, "end");
    PartInfo wrongTag = second;
    wrongTag.Tag = first.Tag;
    PartInfo neverSent = second;
    neverSent.Index = 2;
    std::vector<std::pair<const char*, std::vector<PartInfo>>> rows{{"a tag of a replaced part", {replaced, second}},
        {"the tag of another part", {first, wrongTag}}, {"a part that was never sent", {first, second, neverSent}},
        {"descending indexes", {second, first}}, {"one index twice", {first, first}}, {"no parts", {}}};
    if (capabilities().noUnlistedParts.empty())
    {
        rows.push_back(
            {"a part without bytes before the last", {first, upload("k", id, 4, ""), upload("k", id, 5, "x")}});
    }
    for (const auto& [fault, parts] : rows)
    {
        EXPECT_THROW(client().completeMultipartUpload("k", id, parts), CloudException) << fault;
        EXPECT_EQ(get("k"), "old") << fault;
    }

    std::istringstream tooShort("123");
    EXPECT_THROW(client().uploadPart("k", id, {1, 0, 10, ""}, tooShort), CloudException);
    client().completeMultipartUpload("k", id, {first, second});
    EXPECT_TRUE(get("k") == bytes + "end") << "expected the parts as they were last sent whole";
}

TEST_P(CloudClientConformance, AbortLeavesTheObjectAndOtherUploads)
{
    put("k", "old");
    const std::string aborted = client().createMultipartUpload("k", "");
    const std::string other = client().createMultipartUpload("k", "");
    EXPECT_NE(aborted, other);
    upload("k", aborted, 0, "aborted");
    const PartInfo part = upload("k", other, 0, "new");
    client().abortMultipartUpload("k", aborted);
    EXPECT_EQ(get("k"), "old");
    client().completeMultipartUpload("k", other, {part});
    EXPECT_EQ(get("k"), "new");
    EXPECT_THROW(upload("k", aborted, 1, "late"), ResourceNotFoundException);
}

TEST_P(CloudClientConformance, AnUploadThatIsNotThereIsNotFound)
{
    put("k", "old");
    const std::string ofAnotherKey = client().createMultipartUpload("other", "");
    const std::string finished = client().createMultipartUpload("k", "");
    const PartInfo part = upload("k", finished, 0, "new");
    client().completeMultipartUpload("k", finished, {part});
    const PartInfo stored = client().getObjectParts("k").at(0);
    for (const std::string& id : {ofAnotherKey, finished, std::string("nonsense"), std::string()})
    {
        EXPECT_THROW(upload("k", id, 0, "x"), ResourceNotFoundException) << id;
        EXPECT_THROW(copy("k", id, 0, stored), ResourceNotFoundException) << id;
        EXPECT_THROW(client().completeMultipartUpload("k", id, {part}), ResourceNotFoundException) << id;
        EXPECT_THROW(client().abortMultipartUpload("k", id), ResourceNotFoundException) << id;
    }
    EXPECT_EQ(get("k"), "new");
}

TEST_P(CloudClientConformance, CopiesUnchangedPartsOfTheStoredObject)
{
    const std::vector<std::string> old{partContent(1), partContent(2), content(20, 3)};
    std::string id = client().createMultipartUpload("k", "");
    client().completeMultipartUpload(
        "k", id, {upload("k", id, 0, old[0]), upload("k", id, 1, old[1]), upload("k", id, 2, old[2])});

    // Twice, since a copy must be as good a source as what was sent.
    std::string expected = old[0] + old[1] + old[2];
    for (unsigned round = 0; round < 2; ++round)
    {
        const auto stored = client().getObjectParts("k");
        const std::size_t middle = expected.size() - old[0].size() - old[2].size();
        ASSERT_TRUE(areCut(stored, {old[0].size(), middle, old[2].size()}, capabilities()));
        ASSERT_GE(stored.size(), 3U);
        const std::string changed = content(stored[1].Size, 4 + round);
        expected.replace(stored[1].Offset, changed.size(), changed);
        id = client().createMultipartUpload("k", stored[0].Tag);
        std::vector<PartInfo> parts(stored.size());
        for (std::size_t i = stored.size(); i-- > 0;)
        {
            parts[i] = i == 1 ? upload("k", id, i, changed) : copy("k", id, i, stored[i]);
        }
        client().completeMultipartUpload("k", id, parts);
        EXPECT_TRUE(get("k") == expected) << "round " << round << ": expected old, changed, old part";
    }

    put("k", old[0]);
    const auto whole = client().getObjectParts("k");
    ASSERT_TRUE(areCut(whole, {old[0].size()}, capabilities()));
    id = client().createMultipartUpload("k", "");
    const PartInfo front = copy("k", id, 0, {0, 0, old[0].size(), whole[0].Tag});
    client().completeMultipartUpload("k", id, {front, upload("k", id, 1, "end")});
    EXPECT_TRUE(get("k") == old[0] + "end") << "expected an object put whole to be copied as one part";
}

TEST_P(CloudClientConformance, CopiesAnyRangeOfAPart)
{
    if (!capabilities().noSubrangeCopies.empty())
    {
        GTEST_SKIP() << capabilities().noSubrangeCopies;
    }
    const std::string bytes = partContent(1) + partContent(2);
    put("k", bytes);
    const std::string tag = client().getObjectParts("k").at(0).Tag;
    const std::size_t size = partContent(0).size();
    const std::string id = client().createMultipartUpload("k", "");
    const PartInfo front = copy("k", id, 4, {0, 7, size, tag});
    const PartInfo back = copy("k", id, 9, {0, size, bytes.size() - size, tag});
    expectNoCopy<CloudException>("k", id, 10, {0, size, bytes.size() - size + 1, tag}, "beyond the end");
    client().completeMultipartUpload("k", id, {front, back});
    EXPECT_TRUE(get("k") == bytes.substr(7, size) + bytes.substr(size));
}

TEST_P(CloudClientConformance, DoesNotCopyFromAnObjectThatChangedOrWent)
{
    put("k", "0123456789");
    const auto stored = client().getObjectParts("k");
    ASSERT_EQ(stored.size(), 1U);
    const std::string id = client().createMultipartUpload("k", "");
    if (capabilities().noStaleCopyDetection.empty())
    {
        put("k", "abcdefghij");
        expectNoCopy<CloudException>("k", id, 0, stored[0], "the object under the key is another one");
    }
    client().deleteObject("k");
    expectNoCopy<ResourceNotFoundException>("k", id, 0, stored[0], "there is no object");
    client().completeMultipartUpload("k", id, {upload("k", id, 0, "new")});
    EXPECT_EQ(get("k"), "new") << "a failed copy leaves the upload usable";
}

TEST_P(CloudClientConformance, OpenUploadsAreToldOldestFirst)
{
    auto* const inventory = dynamic_cast<UploadInventory*>(&client());
    if (inventory == nullptr)
    {
        GTEST_SKIP() << "the client does not tell which uploads are open";
    }
    const auto pending = [&]
    {
        std::vector<std::string> uploads;
        for (const PendingUpload& upload : inventory->pendingUploads())
        {
            EXPECT_FALSE(upload.created.is_special());
            uploads.push_back(upload.key + " " + upload.uploadId);
        }
        return uploads;
    };
    const std::string second = client().createMultipartUpload("z", "");
    upload("z", second, 0, "x"); // a store may hear of an upload with its first part only
    const std::string first = client().createMultipartUpload("a", "");
    const PartInfo part = upload("a", first, 0, "x");
    EXPECT_EQ(pending(), (std::vector<std::string>{"z " + second, "a " + first}));
    client().abortMultipartUpload("z", second);
    client().completeMultipartUpload("a", first, {part});
    EXPECT_EQ(pending(), std::vector<std::string>());
}

void linkMultipartCases() {}

} // namespace storage::clients::conformance
