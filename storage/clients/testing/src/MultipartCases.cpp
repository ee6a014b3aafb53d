#include "Cases.hpp"

#include <storage/clients/testing/CloudClientConformance.hpp>

#include <storage/clients/common/UploadInventory.hpp>

#include <algorithm>
#include <chrono>
#include <set>
#include <sstream>
#include <utility>

namespace storage::clients::conformance
{

using namespace cloudprovider;

TEST_P(CloudClientConformance, CompletionJoinsTheListedParts)
{
    const std::string first = partContent(1);
    const std::string second = partContent(2);
    const std::string last = content(10, 3);
    const std::string id = client().createMultipartUpload("k", "");
    // In any order, with gaps between the indexes, and with a part that is not listed.
    const PartInfo lastPart = upload("k", id, 7, last);
    const PartInfo firstPart = upload("k", id, 0, first);
    if (capabilities().noUnlistedParts.empty())
    {
        upload("k", id, 1, partContent(4));
    }
    const PartInfo secondPart = upload("k", id, 3, second);
    EXPECT_TRUE(!client().getObjectInfo("k").exists && keys().empty()) << "nothing is visible before completion";

    std::set<std::string> tags;
    const auto isNewVersion = [&] { return tags.insert(client().getObjectInfo("k").tag).second; };
    client().completeMultipartUpload("k", id, {firstPart, secondPart, lastPart});
    EXPECT_TRUE(isNewVersion() && get("k") == first + second + last) << "expected the listed parts, joined";
    EXPECT_EQ(client().getObjectInfo("k").size, first.size() + second.size() + last.size());
    EXPECT_TRUE(haveSizes(client().getObjectParts("k"), {first.size(), second.size(), last.size()}));
    EXPECT_TRUE(get("k", first.size() - 5, first.size() + second.size() + 1) ==
                first.substr(first.size() - 5) + second + last.substr(0, 2))
        << "expected a range across parts";

    put("k", "whole");
    EXPECT_TRUE(isNewVersion()) << "expected another tag";
    EXPECT_TRUE(haveSizes(client().getObjectParts("k"), {5})) << "nothing of the old parts remains";
    putParts(client(), "k", {""});
    EXPECT_TRUE(isNewVersion()) << "expected another tag";
    EXPECT_EQ(get("k"), "") << "an empty object of one empty part";
    EXPECT_TRUE(client().getObjectInfo("k").exists && client().getObjectParts("k").size() <= 1);
}

TEST_P(CloudClientConformance, ARefusedCompletionLeavesObjectAndUpload)
{
    put("k", "old");
    const std::string id = client().createMultipartUpload("k", "");
    const std::string bytes = partContent(2);
    const PartInfo replaced = upload("k", id, 0, partContent(1));
    const PartInfo first = upload("k", id, 0, bytes);
    const PartInfo second = upload("k", id, 1, "end");
    std::vector<std::pair<const char*, std::vector<PartInfo>>> rows{{"a tag of a replaced part", {replaced, second}},
        {"the tag of another part", {first, {1, 0, second.Size, first.Tag}}},
        {"a part that was never sent", {first, second, {2, 0, second.Size, second.Tag}}},
        {"descending indexes", {second, first}}, {"one index twice", {first, first}}, {"no parts", {}}};
    if (capabilities().noUnlistedParts.empty())
    {
        rows.push_back({"an empty part before the last", {first, upload("k", id, 4, ""), upload("k", id, 5, "x")}});
    }
    for (const auto& [fault, parts] : rows)
    {
        EXPECT_THROW(client().completeMultipartUpload("k", id, parts), CloudException) << fault;
        EXPECT_EQ(get("k"), "old") << fault;
    }

    std::istringstream tooShort("123");
    EXPECT_THROW(client().uploadPart("k", id, {1, 0, 10, ""}, tooShort), CloudException);
    client().completeMultipartUpload("k", id, {first, second});
    EXPECT_TRUE(get("k") == bytes + "end") << "expected the parts as they were last sent completely";
}

TEST_P(CloudClientConformance, AbortAndCompletionEndOneUploadOnly)
{
    put("k", "old");
    const std::string ofAnotherKey = client().createMultipartUpload("other", "");
    const std::string aborted = client().createMultipartUpload("k", "");
    const std::string completed = client().createMultipartUpload("k", "");
    EXPECT_NE(aborted, completed);
    upload("k", aborted, 0, "aborted");
    const PartInfo part = upload("k", completed, 0, "new");
    client().abortMultipartUpload("k", aborted);
    EXPECT_EQ(get("k"), "old");
    client().completeMultipartUpload("k", completed, {part});

    const PartInfo stored = client().getObjectParts("k").at(0);
    for (const std::string& id : {ofAnotherKey, aborted, completed, std::string("nonsense"), std::string()})
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
    std::vector<PartInfo> parts;
    std::string expected;
    const std::string begun = client().createMultipartUpload("k", "");
    for (const std::string& bytes : old)
    {
        parts.push_back(upload("k", begun, parts.size(), bytes));
        parts.back().Offset = expected.size();
        expected += bytes;
    }
    client().completeMultipartUpload("k", begun, parts);
    // The tags are first those of uploads, then those of uploads and copies, and last those that the store reports.
    for (unsigned round = 0; round < 3; ++round)
    {
        if (round == 2)
        {
            parts = client().getObjectParts("k");
            ASSERT_TRUE(haveSizes(parts, {old[0].size(), old[1].size(), old[2].size()}));
        }
        const std::string id = client().createMultipartUpload("k", parts[0].Tag);
        for (std::size_t i = parts.size(); i-- > 0;)
        {
            if (i == 1 && (parts[i].Size >= capabilities().minPartSize || i + 1 == parts.size()))
            {
                const std::string changed = content(parts[i].Size, 4 + round);
                expected.replace(parts[i].Offset, changed.size(), changed);
                parts[i] = uploadPart(client(), "k", id, i, changed, parts[i].Offset);
            }
            else
            {
                parts[i] = copy("k", id, i, parts[i]);
            }
        }
        client().completeMultipartUpload("k", id, parts);
        EXPECT_TRUE(get("k") == expected) << "round " << round << ": expected one part changed, if one is large enough";
    }

    put("k", old[0]);
    if (capabilities().noSubrangeCopies.empty() || client().getObjectParts("k").size() == 1)
    {
        const std::string id = client().createMultipartUpload("k", "");
        const PartInfo front = copy("k", id, 0, {0, 0, old[0].size(), client().getObjectParts("k")[0].Tag});
        client().completeMultipartUpload("k", id, {front, upload("k", id, 1, "end")});
        EXPECT_TRUE(get("k") == old[0] + "end") << "expected an object stored by putObject() to be copied as one part";
    }
}

TEST_P(CloudClientConformance, CopiesAnyRangeOfAPart)
{
    const std::string bytes = partContent(1) + partContent(2);
    put("k", bytes);
    const std::vector<PartInfo> stored = client().getObjectParts("k");
    if (!capabilities().noSubrangeCopies.empty())
    {
        GTEST_SKIP() << capabilities().noSubrangeCopies;
    }
    const std::string tag = stored.at(0).Tag;
    const std::size_t size = partContent(0).size();
    const std::string id = client().createMultipartUpload("k", "");
    const PartInfo front = copy("k", id, 2, {0, 0, size, tag});
    const PartInfo middle = copy("k", id, 4, {0, 7, size, tag});
    const PartInfo back = copy("k", id, 9, {0, size, bytes.size() - size, tag});
    expectNoCopy<CloudException>("k", id, 10, {0, size, bytes.size() - size + 1, tag}, "beyond the end");
    client().completeMultipartUpload("k", id, {front, middle, back});
    EXPECT_TRUE(get("k") == bytes.substr(0, size) + bytes.substr(7, size) + bytes.substr(size));
}

TEST_P(CloudClientConformance, DoesNotCopyFromAnObjectThatChangedOrWent)
{
    put("k", "0123456789");
    const PartInfo stored = client().getObjectParts("k").at(0);
    const std::string id = client().createMultipartUpload("k", "");
    if (capabilities().noStaleCopyDetection.empty())
    {
        const PartInfo copied = copy("k", id, 0, stored);
        put("k", "abcdefghij");
        EXPECT_THROW(client().completeMultipartUpload("k", id, {copied}), CloudException) << "it would come back";
        expectNoCopy<CloudException>("k", id, 0, stored, "the object has changed");
    }
    client().deleteObject("k");
    expectNoCopy<ResourceNotFoundException>("k", id, 0, stored, "there is no object");
    client().completeMultipartUpload("k", id, {upload("k", id, 0, "new")});
    EXPECT_EQ(get("k"), "new") << "a failed copy leaves the upload usable";
}

TEST_P(CloudClientConformance, AnUploadThatCannotBeKeptFailsAtAPartOrAtItsCompletion)
{
    const CloudClientSharedPtr readOnly = openReadOnly();
    if (!readOnly)
    {
        GTEST_SKIP() << "the harness cannot make a client that stores nothing";
    }
    std::string id;
    EXPECT_NO_THROW(id = readOnly->createMultipartUpload("k", "")) << "a close would succeed although this failed";
    EXPECT_THROW(readOnly->completeMultipartUpload("k", id, {uploadPart(*readOnly, "k", id, 0, "x")}), CloudException);
    EXPECT_NO_THROW(readOnly->abortMultipartUpload("k", id));
}

TEST_P(CloudClientConformance, ListsOpenUploadsOldestFirst)
{
    auto* const inventory = dynamic_cast<UploadInventory*>(&client());
    if (inventory == nullptr)
    {
        GTEST_SKIP() << "the client does not list open uploads";
    }
    const auto pending = [&]
    {
        const std::vector<PendingUpload> uploads = inventory->pendingUploads();
        EXPECT_TRUE(std::is_sorted(uploads.begin(), uploads.end(),
            [](const auto& one, const auto& other) { return one.created < other.created; }));
        std::multiset<std::string> names; // because a store may know the times in whole seconds
        for (const PendingUpload& upload : uploads)
        {
            EXPECT_FALSE(upload.created.is_special());
            names.insert(upload.key + " " + upload.uploadId);
        }
        return names;
    };
    const std::string second = client().createMultipartUpload("z", "");
    upload("z", second, 0, partContent(0)); // a client may open the upload with its first part
    const std::string first = client().createMultipartUpload("a", "");
    const PartInfo part = upload("a", first, 0, partContent(0));
    auto open = pending();
    for (const auto end = std::chrono::steady_clock::now() + std::chrono::minutes(1);
         open.size() < 2 && std::chrono::steady_clock::now() < end;)
    {
        open = pending(); // a part may be on its way
    }
    EXPECT_EQ(open, (std::multiset<std::string>{"z " + second, "a " + first}));
    client().abortMultipartUpload("z", second);
    client().completeMultipartUpload("a", first, {part});
    EXPECT_EQ(pending(), std::multiset<std::string>());
}

void linkMultipartCases() {}

} // namespace storage::clients::conformance
