#include <storage/clients/decorators/CancellableClient.hpp>
#include <storage/clients/decorators/CountingClient.hpp>
#include <storage/clients/decorators/FailureRecordingClient.hpp>
#include <storage/clients/decorators/FaultyClient.hpp>
#include <storage/clients/memory/MemoryClient.hpp>
#include <storage/clients/testing/ClientCalls.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>

#include <gmock/gmock.h>

#include <functional>
#include <map>
#include <sstream>

namespace storage::clients
{

namespace
{

using namespace cloudprovider;
using namespace conformance;
using namespace testing;

class DecoratorTest : public Test
{
protected:
    const std::shared_ptr<MemoryClient> store = std::make_shared<MemoryClient>();
    const std::shared_ptr<FaultyClient> faults = std::make_shared<FaultyClient>(store);
    const std::shared_ptr<CountingClient> counted = std::make_shared<CountingClient>(faults);
    const std::exception_ptr denied = std::make_exception_ptr(PermissionDeniedException("Denied"));

    // The operations that store bytes, done on an object of 3 bytes.
    const std::map<Operation, std::function<void(CloudClient& client, const std::string& key)>> storing{
        {Operation::PutObject, [](auto& client, const auto& key) { put(client, key, "new"); }},
        {Operation::CreateMultipartUpload,
            [](auto& client, const auto& key) { client.createMultipartUpload(key, ""); }},
        {Operation::UploadPart, [this](auto& client, const auto& key)
            { uploadPart(client, key, store->createMultipartUpload(key, ""), 0, "new"); }},
        {Operation::CopyPart,
            [this](auto& client, const auto& key) {
                client.copyPart(key, store->createMultipartUpload(key, ""), {0, 0, 3, ""});
            }},
        {Operation::CompleteMultipartUpload,
            [this](auto& client, const auto& key)
            {
                const std::string upload = store->createMultipartUpload(key, "");
                client.completeMultipartUpload(key, upload, {uploadPart(*store, key, upload, 0, "new")});
            }},
    };
};

TEST_F(DecoratorTest, RefusesToStoreACancelledKeyOrAfterAnInterrupt)
{
    for (const auto& [operation, call] : storing)
    {
        SCOPED_TRACE(name(operation));
        bool interrupted = false;
        CancellableClient client(store, [&] { return interrupted; });
        store->put("a", "old");
        store->put("b", "old");
        const auto expectRefusal = [&, &operation = operation, &call = call]
        {
            if (operation != Operation::CreateMultipartUpload) // stores nothing; a close would not report its failure
            {
                EXPECT_THROW(call(client, "a"), UnknownErrorException);
            }
            EXPECT_EQ(store->get("a"), "old");
            EXPECT_NO_THROW(client.abortMultipartUpload("a", client.createMultipartUpload("a", "")));
        };
        {
            const auto outer = client.cancel("a");
            {
                const auto inner = client.cancel("a");
            }
            expectRefusal();
            EXPECT_NO_THROW(call(client, "b"));
        }
        interrupted = true;
        expectRefusal();
        EXPECT_THROW(client.deleteObject("a"), UnknownErrorException);
        interrupted = false;
        EXPECT_NO_THROW(call(client, "a"));
    }
}

TEST_F(DecoratorTest, RecordsAFailureUntilItIsTakenOrTheKeyIsStored)
{
    for (const auto& [operation, call] : storing)
    {
        SCOPED_TRACE(name(operation));
        FailureRecordingClient client(faults);
        store->put("a", "old");
        faults->inject({.operation = operation});
        EXPECT_THROW(call(client, "a"), UnknownErrorException);
        EXPECT_EQ(client.takeFailure("b"), nullptr);
        EXPECT_THROW(std::rethrow_exception(client.takeFailure("a")), UnknownErrorException);
        EXPECT_EQ(client.takeFailure("a"), nullptr);

        EXPECT_THROW(call(client, "a"), UnknownErrorException);
        faults->clearFaults();
        storing.at(operation == Operation::PutObject ? operation : Operation::CompleteMultipartUpload)(client, "a");
        EXPECT_EQ(client.takeFailure("a"), nullptr);
    }
}

TEST_F(DecoratorTest, RecordsOnlyFailuresOfKeys)
{
    FailureRecordingClient client(store);
    EXPECT_THROW(client.validateObjectName(".."), CloudException);
    EXPECT_THROW(client.abortMultipartUpload("..", "none"), CloudException);
    EXPECT_EQ(client.takeFailure(".."), nullptr);
    EXPECT_THROW(client.getObjectParts(".."), CloudException);
    EXPECT_NE(client.takeFailure(".."), nullptr);
}

TEST_F(DecoratorTest, CountsCallsAndWhatTheyMoved)
{
    EXPECT_EQ(PrintToString(counted->callSnapshot()), "no calls");
    std::istringstream bytes("0123456789abcde");
    counted->putObject("k", bytes, 10);
    const std::string id = counted->createMultipartUpload("k", "");
    counted->copyPart("k", id, counted->getObjectParts("k").at(0));
    counted->uploadPart("k", id, {7, 0, 3, ""}, bytes);
    EXPECT_THROW(counted->uploadPart("k", id, {8, 0, 5, ""}, bytes), UnknownErrorException) << "too short";
    std::ostringstream out("....");
    out.seekp(2);
    counted->getObjectRange("k", out, 6, 9);
    EXPECT_THROW(counted->getObjectRange("k", out, 6, 10), UnknownErrorException) << "beyond the end";
    out << ' ' << counted->callSnapshot();
    EXPECT_EQ(out.str(), "..6789 getObjectRange 2 (4 B), putObject 1 (10 B), getObjectParts 1, "
                         "createMultipartUpload 1, uploadPart 2 (3 B; parts 7), copyPart 1 (10 B; parts 0)");
}

TEST_F(DecoratorTest, InjectsFaultsAndEmptyPages)
{
    faults->inject({.call = 3});
    faults->inject({.operation = Operation::PutObject, .call = 3});
    put(*faults, "first", "");
    faults->getObjectInfo("first");
    EXPECT_THAT([&] { put(*faults, "third call", ""); },
        Throws<UnknownErrorException>(
            Property(&CloudException::detail, Optional(std::string("putObject of \"third call\": injected fault")))));
    EXPECT_THROW(put(*faults, "third put", ""), UnknownErrorException);
    EXPECT_NO_THROW(put(*faults, "last", ""));

    faults->inject({.operation = Operation::PutObject});
    faults->inject({.moment = Fault::Moment::AfterEffect, .failure = denied});
    for (int i = 0; i < 2; ++i)
    {
        EXPECT_THROW(put(*faults, "both faults", ""), UnknownErrorException) << "the first one is thrown";
    }
    EXPECT_THROW(faults->createMultipartUpload("k", ""), PermissionDeniedException);
    EXPECT_EQ(store->openUploads().size(), 1U);
    faults->clearFaults();

    faults->setEmptyPages(2);
    std::string token;
    EXPECT_THAT(faults->listObjects("", token, {}), IsEmpty());
    EXPECT_THAT(faults->listObjects("", token, {}), IsEmpty());
    EXPECT_THAT(faults->listObjects("", token, {}), SizeIs(2));
    EXPECT_EQ(token, "");
}

} // namespace

} // namespace storage::clients
