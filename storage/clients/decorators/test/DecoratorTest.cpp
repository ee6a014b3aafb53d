#include <storage/clients/decorators/CancellableClient.hpp>
#include <storage/clients/decorators/FailureRecordingClient.hpp>
#include <storage/clients/decorators/FindInterface.hpp>
#include <storage/clients/memory/MemoryClient.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <unistd.h>

namespace storage::clients
{

namespace
{

using cloudprovider::CloudClient;
using cloudprovider::PartInfo;
using cloudprovider::UnknownErrorException;

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

TEST_P(DecoratorTest, CancelsEverythingForEver)
{
    const auto cancelledCallFails = [&]
    {
        CancellableClient client(store);
        const std::string upload = client.createMultipartUpload("a", "");
        CancellableClient::cancelAll();
        EXPECT_THROW(client.deleteObject("a"), UnknownErrorException);
        EXPECT_THROW(GetParam().make(client, "a", upload), UnknownErrorException);
        client.abortMultipartUpload("a", upload);
        ::_exit(HasFailure() ? 1 : 0);
    };
    EXPECT_EXIT(cancelledCallFails(), testing::ExitedWithCode(0), ""); // in a process of its own: there is no way back
}

TEST_P(DecoratorTest, RemembersAFailureUntilItIsTakenOrMended)
{
    FailureRecordingClient client(store);
    const std::string upload = client.createMultipartUpload("a", "");
    const auto fail = [&]
    {
        store->faults().inject({.operation = GetParam().operation, .call = 1});
        EXPECT_THROW(GetParam().make(client, "a", upload), UnknownErrorException);
    };
    fail();
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

TEST(FindInterfaceTest, LooksBehindEveryDecorator)
{
    const auto store = std::make_shared<MemoryClient>();
    CancellableClient client(std::make_shared<FailureRecordingClient>(store));
    EXPECT_EQ(findInterface<UploadInventory>(client), store.get());
    EXPECT_EQ(findInterface<const StoreCounters>(*store), store.get());
    EXPECT_NE(findInterface<FailureRecordingClient>(client), nullptr);
    EXPECT_EQ(findInterface<std::istream>(client), nullptr);
}

INSTANTIATE_TEST_SUITE_P(StoringCalls, DecoratorTest, testing::ValuesIn(storingCalls),
    [](const auto& row) { return std::string(row.param.name); });

} // namespace

} // namespace storage::clients
