#include <storage/clients/decorators/CancellableClient.hpp>
#include <storage/clients/decorators/CountingClient.hpp>
#include <storage/clients/decorators/FailureRecordingClient.hpp>
#include <storage/clients/decorators/FaultyClient.hpp>
#include <storage/clients/decorators/FindInterface.hpp>
#include <storage/clients/memory/MemoryClient.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <sstream>
#include <string>

namespace storage::clients
{

namespace
{

using cloudprovider::CloudClient;
using cloudprovider::CloudException;
using cloudprovider::PartInfo;
using cloudprovider::PermissionDeniedException;
using cloudprovider::UnknownErrorException;
using testing::ElementsAre;

/// A call on a store that holds "a" and "b", with an upload of "a" open.
struct Call
{
    const char* name;
    Operation operation;
    std::function<void(CloudClient&, const std::string& key, const std::string& upload)> make;
};

const Call storingCalls[] = {
    {"put", Operation::PutObject,
        [](CloudClient& client, const std::string& key, const std::string&)
        {
            std::istringstream content("new");
            client.putObject(key, content, 3);
        }},
    {"createUpload", Operation::CreateMultipartUpload,
        [](CloudClient& client, const std::string& key, const std::string&) { client.createMultipartUpload(key, ""); }},
    {"uploadPart", Operation::UploadPart,
        [](CloudClient& client, const std::string& key, const std::string& upload)
        {
            std::istringstream content("new");
            client.uploadPart(key, upload, PartInfo{0, 0, 3, ""}, content);
        }},
    {"copyPart", Operation::CopyPart,
        [](CloudClient& client, const std::string& key, const std::string& upload)
        { client.copyPart(key, upload, client.getObjectParts(key).at(0)); }},
    {"complete", Operation::CompleteMultipartUpload,
        [](CloudClient& client, const std::string& key, const std::string& upload)
        {
            std::istringstream content("new");
            const std::string tag = client.uploadPart(key, upload, PartInfo{0, 0, 3, ""}, content);
            client.completeMultipartUpload(key, upload, {PartInfo{0, 0, 3, tag}});
        }},
};

class DecoratorTest : public testing::TestWithParam<Call>
{
protected:
    DecoratorTest()
    {
        store->put("a", "old");
        store->put("b", "old");
    }

    const std::shared_ptr<MemoryClient> store = std::make_shared<MemoryClient>();
    const std::shared_ptr<FaultyClient> faults = std::make_shared<FaultyClient>(store);
};

TEST_P(DecoratorTest, CancelsOneKeyForAWhile)
{
    CancellableClient client(store);
    const std::string upload = client.createMultipartUpload("a", "");
    const std::string other = client.createMultipartUpload("b", "");
    {
        const auto outer = client.cancel("a");
        {
            const auto inner = client.cancel("a");
        }
        EXPECT_THROW(GetParam().make(client, "a", upload), UnknownErrorException);
        EXPECT_EQ(store->get("a"), "old");
        EXPECT_TRUE(client.getObjectInfo("a").exists);
        EXPECT_NO_THROW(GetParam().make(client, "b", other));
    }
    EXPECT_NO_THROW(GetParam().make(client, "a", upload));
    const auto again = client.cancel("b");
    for (const OpenUpload& open : store->openUploads())
    {
        client.abortMultipartUpload(open.key, open.uploadId);
    }
    EXPECT_TRUE(store->openUploads().empty());
}

TEST_P(DecoratorTest, AnInterruptRefusesEveryChangeButTheAbort)
{
    bool interrupted = false;
    CancellableClient client(store, [&] { return interrupted; });
    const std::string upload = client.createMultipartUpload("a", "");
    interrupted = true;
    EXPECT_THROW(client.deleteObject("a"), UnknownErrorException);
    EXPECT_THROW(GetParam().make(client, "a", upload), UnknownErrorException);
    EXPECT_TRUE(client.getObjectInfo("a").exists);
    client.abortMultipartUpload("a", upload);
    EXPECT_TRUE(store->openUploads().empty());
}

TEST_P(DecoratorTest, RemembersAFailureUntilItIsTakenOrMended)
{
    FailureRecordingClient client(faults);
    const std::string upload = client.createMultipartUpload("a", "");
    const auto fail = [&]
    {
        faults->inject({.operation = GetParam().operation, .call = 1});
        EXPECT_THROW(GetParam().make(client, "a", upload), UnknownErrorException);
    };
    fail();
    client.getObjectInfo("a"); // a success, but no commit
    EXPECT_EQ(client.takeFailure("b"), nullptr);
    const std::exception_ptr failure = client.takeFailure("a");
    ASSERT_NE(failure, nullptr);
    EXPECT_THROW(std::rethrow_exception(failure), UnknownErrorException);
    EXPECT_EQ(client.takeFailure("a"), nullptr);

    fail();
    std::istringstream content("new");
    client.putObject("a", content, 3);
    EXPECT_EQ(client.takeFailure("a"), nullptr);
}

TEST(FailureRecordingClientTest, KeepsFailuresOfKeysOnly)
{
    FailureRecordingClient client(std::make_shared<MemoryClient>());
    EXPECT_THROW(client.validateObjectName(".."), CloudException);
    EXPECT_THROW(client.abortMultipartUpload("..", "none"), CloudException);
    EXPECT_EQ(client.takeFailure(".."), nullptr);
    EXPECT_THROW(client.getObjectParts(".."), CloudException);
    EXPECT_NE(client.takeFailure(".."), nullptr);
}

TEST(CountingClientTest, CountsCallsAndWhatTheyMoved)
{
    CountingClient client(std::make_shared<MemoryClient>());
    std::istringstream bytes("0123456789abcde");
    client.putObject("k", bytes, 10);
    const std::string id = client.createMultipartUpload("k", "");
    client.copyPart("k", id, client.getObjectParts("k").at(0));
    client.uploadPart("k", id, {7, 0, 3, ""}, bytes);
    EXPECT_THROW(client.uploadPart("k", id, {8, 0, 5, ""}, bytes), UnknownErrorException) << "too short";
    std::ostringstream out("....");
    out.seekp(2);
    client.getObjectRange("k", out, 6, 9);
    EXPECT_THROW(client.getObjectRange("k", out, 6, 10), UnknownErrorException) << "beyond the end";
    out << ' ' << client.callSnapshot();
    EXPECT_EQ(out.str(), "..6789 getObjectRange 2 (4 B), putObject 1 (10 B), getObjectParts 1, "
                         "createMultipartUpload 1, uploadPart 2 (3 B; parts 7), copyPart 1 (10 B; parts 0)");
}

class FaultyClientTest : public testing::Test
{
protected:
    // Whether putting under the key fails.
    bool failsToPut(const std::string& key)
    {
        try
        {
            std::istringstream in("x");
            client.putObject(key, in, 1);
            return false;
        }
        catch (const UnknownErrorException& e)
        {
            EXPECT_EQ(e.detail(), "putObject of \"" + key + "\": injected fault");
            return true;
        }
    }

    const std::shared_ptr<MemoryClient> store = std::make_shared<MemoryClient>();
    FaultyClient client{store};
    const std::exception_ptr denied = std::make_exception_ptr(PermissionDeniedException("No"));
};

TEST_F(FaultyClientTest, FailsTheCallThatTheFaultNames)
{
    client.inject({.call = 3});
    client.inject({.operation = Operation::PutObject, .call = 3});
    EXPECT_FALSE(failsToPut("a"));
    client.getObjectInfo("a");
    EXPECT_TRUE(failsToPut("b")) << "third call of all";
    EXPECT_TRUE(failsToPut("c")) << "third put: the failed one was a call too";
    EXPECT_FALSE(failsToPut("d")) << "a fault with a number fails one call";

    client.inject({.operation = Operation::PutObject});
    client.inject({.failure = denied});
    EXPECT_TRUE(failsToPut("e")) << "the first added of two faults is thrown";
    EXPECT_TRUE(failsToPut("f")) << "every put, until cleared";
    EXPECT_THROW(client.getObjectInfo("a"), PermissionDeniedException);
    client.clearFaults();
    EXPECT_FALSE(failsToPut("g"));
    EXPECT_THAT(store->keys(), ElementsAre("a", "d", "g"));
}

TEST_F(FaultyClientTest, FailsAfterTheEffect)
{
    client.inject({.call = 1, .moment = Fault::Moment::AfterEffect, .failure = denied});
    EXPECT_THROW(client.createMultipartUpload("k", ""), PermissionDeniedException);
    EXPECT_EQ(store->openUploads().size(), 1U);
}

TEST_F(FaultyClientTest, DeliversShortAndPagesAsItIsTold)
{
    for (const char* key : {"a", "b", "c", "d", "e"})
    {
        store->put(key, "0123456789");
    }
    const std::string id = store->createMultipartUpload("a", "");
    std::istringstream bytes("0123456789");
    std::vector<PartInfo> parts{{0, 0, 3, ""}, {1, 3, 7, ""}}; // each is written into the stream on its own
    for (PartInfo& part : parts)
    {
        part.Tag = store->uploadPart("a", id, part, bytes);
    }
    store->completeMultipartUpload("a", id, parts);
    client.setDownloadLimit(4);
    std::ostringstream out;
    client.getObjectRange("a", out, 1, 9);
    EXPECT_EQ(out.str(), "1234");
    store->setPageSize(2);
    client.setEmptyPages(2);
    std::vector<std::size_t> sizes;
    std::string token;
    do
    {
        sizes.push_back(client.listObjects("", token, {}).size());
    } while (!token.empty() && sizes.size() < 100);
    EXPECT_THAT(sizes, ElementsAre(0U, 0U, 2U, 0U, 0U, 2U, 0U, 0U, 1U));
}

TEST(FindInterfaceTest, LooksInsideEveryDecorator)
{
    const auto store = std::make_shared<MemoryClient>();
    const auto counted = std::make_shared<CountingClient>(store);
    CancellableClient client(std::make_shared<FailureRecordingClient>(counted));
    EXPECT_EQ(findInterface<UploadInventory>(client), store.get());
    EXPECT_EQ(findInterface<const StoreCounters>(client), counted.get());
    EXPECT_NE(findInterface<FailureRecordingClient>(client), nullptr);
    EXPECT_EQ(findInterface<std::istream>(client), nullptr);
}

INSTANTIATE_TEST_SUITE_P(StoringCalls, DecoratorTest, testing::ValuesIn(storingCalls),
    [](const auto& row) { return std::string(row.param.name); });

} // namespace

} // namespace storage::clients
