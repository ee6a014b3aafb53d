#include "awaitThreads.hpp"

#include <storage/clients/common/TransientException.hpp>
#include <storage/clients/decorators/CountingClient.hpp>
#include <storage/clients/decorators/FaultyClient.hpp>
#include <storage/clients/decorators/FindInterface.hpp>
#include <storage/clients/decorators/PipelinedUploadClient.hpp>
#include <storage/clients/memory/MemoryClient.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>
#include <storage/cloudprovider/CloudProvider.hpp>
#include <storage/cloudprovider/Logger.hpp>

#include <foundation/storage/provider/ByteStreamFailure.hpp>

#include <gmock/gmock.h>

#include <pthread.h>

#include <algorithm>
#include <condition_variable>
#include <cstdlib>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace storage::clients
{

namespace
{

using namespace cloudprovider;
using test::awaitThreads;
namespace fsp = foundation::storage::provider;

/// Transfers pass a gate, open at first, and are watched while they are inside.
class GatedClient : public InterceptingClient
{
public:
    using InterceptingClient::InterceptingClient;

    std::string uploadPart(
        const std::string& key, const std::string& id, const PartInfo& part, std::istream& content) override
    {
        return pass({id, part.Index}, [&] { return InterceptingClient::uploadPart(key, id, part, content); });
    }

    std::string copyPart(const std::string& key, const std::string& id, const PartInfo& part) override
    {
        return pass({id, part.Index}, [&] { return InterceptingClient::copyPart(key, id, part); });
    }

    void abortMultipartUpload(const std::string& key, const std::string& id) override
    {
        std::unique_lock lock(m_mutex);
        const auto first = m_inside.lower_bound({id, 0});
        EXPECT_TRUE(first == m_inside.end() || first->first != id) << "aborted during a transfer";
        lock.unlock();
        InterceptingClient::abortMultipartUpload(key, id);
    }

    void setOpen(bool open)
    {
        const std::lock_guard lock(m_mutex);
        m_isOpen = open;
        m_changed.notify_all();
    }

    void awaitInside(std::size_t count)
    {
        std::unique_lock lock(m_mutex);
        m_changed.wait(lock, [&] { return m_inside.size() >= count; });
    }

    /// The most transfers at a time. Ask when there are none, as for the following.
    std::size_t mostInside() const { return m_mostInside; }

    /// Whether the calling thread made the last transfer of this part.
    bool wasSentHere(std::size_t index) const { return m_threads.at(index) == std::this_thread::get_id(); }

private:
    using Part = std::pair<std::string, std::size_t>; // upload and index

    template <typename Call>
    std::string pass(const Part& part, Call call)
    {
        std::unique_lock lock(m_mutex);
        EXPECT_TRUE(m_inside.insert(part).second) << "part " << part.second << " twice at a time";
        m_mostInside = std::max(m_mostInside, m_inside.size());
        m_threads[part.second] = std::this_thread::get_id();
        m_changed.notify_all();
        m_changed.wait(lock, [&] { return m_isOpen; });
        lock.unlock();
        const std::shared_ptr<void> atTheEnd(nullptr,
            [&](void*)
            {
                lock.lock();
                m_inside.erase(part);
            });
        return call();
    }

    std::mutex m_mutex; // guards all that follows
    std::condition_variable m_changed;
    bool m_isOpen = true;
    std::set<Part> m_inside;
    std::size_t m_mostInside = 0;
    std::map<std::size_t, std::thread::id> m_threads; // by index
};

/// Cases may leave uploads open and transfers under way.
class PipelinedUploadClientTest : public testing::Test
{
protected:
    PipelinedUploadClientTest() { getLogger().setEnabledSeverities(0); }
    ~PipelinedUploadClientTest() override
    {
        gate->setOpen(true);
        client.reset();
        awaitThreads(1);
        EXPECT_THAT(store->openUploads(), testing::IsEmpty());
        getLogger().setEnabledSeverities(m_severities);
    }

    void begin(std::size_t transfers, std::size_t memory = 1000)
    {
        client = std::make_shared<PipelinedUploadClient>(gate, PipelineSettings{transfers, memory});
        upload = client->createMultipartUpload("k", "");
    }

    PartInfo send(std::size_t index, const std::string& bytes)
    {
        std::istringstream content(bytes);
        PartInfo part{index, 0, bytes.size(), ""};
        part.Tag = client->uploadPart("k", upload, part, content);
        return part;
    }

    PartInfo copy(PartInfo part)
    {
        part.Tag = client->copyPart("k", upload, part);
        return part;
    }

    /// Wait until the transfer has ended, as an upload does that is opened with its tag.
    void await(const PartInfo& part)
    {
        client->abortMultipartUpload("k", client->createMultipartUpload("k", part.Tag));
    }

    void complete(const std::vector<PartInfo>& parts) { client->completeMultipartUpload("k", upload, parts); }

    std::uint64_t calls(Operation operation) const { return counted->callSnapshot()[operation].calls; }

    std::string storedTag() const { return store->getObjectParts("k").at(0).Tag; }

    const std::shared_ptr<MemoryClient> store = std::make_shared<MemoryClient>();
    const std::shared_ptr<FaultyClient> faults = std::make_shared<FaultyClient>(store);
    const std::shared_ptr<CountingClient> counted = std::make_shared<CountingClient>(faults);
    const std::shared_ptr<GatedClient> gate = std::make_shared<GatedClient>(counted);
    std::shared_ptr<PipelinedUploadClient> client;
    std::string upload;

private:
    const std::uint32_t m_severities = getLogger().enabledSeverities();
};

TEST_F(PipelinedUploadClientTest, SendsAndCopiesSeveralPartsAtATime)
{
    store->put("k", "0123456789");
    begin(4);
    awaitThreads(1);
    gate->setOpen(false);
    const std::vector<PartInfo> parts{
        send(0, "first "), copy({1, 2, 3, storedTag()}), send(2, " third "), send(3, "fourth "), send(4, "fifth")};
    gate->awaitInside(4);
    awaitThreads(5);
    gate->setOpen(true);
    complete(parts);
    EXPECT_EQ(store->get("k"), "first 234 third fourth fifth");
    EXPECT_EQ(gate->mostInside(), 4U);
    EXPECT_EQ(findInterface<UploadInventory>(*client), store.get());
}

TEST_F(PipelinedUploadClientTest, OneTransferIsTheCallersOwn)
{
    begin(1);
    const PartInfo part = send(0, "bytes");
    EXPECT_TRUE(gate->wasSentHere(0));
    store->completeMultipartUpload("k", upload, {part});
    EXPECT_EQ(store->get("k"), "bytes") << "expected the store's own tag";
}

TEST_F(PipelinedUploadClientTest, WithoutThreadsEverythingIsTheCallersOwn)
{
    store->put("k", "old");
    begin(4);
    pthread_attr_t usual;
    ASSERT_EQ(pthread_getattr_default_np(&usual), 0);
    pthread_attr_t impossible = usual;
    ASSERT_EQ(pthread_attr_setstacksize(&impossible, std::size_t{1} << 60U), 0);
    ASSERT_EQ(pthread_setattr_default_np(&impossible), 0);
    const PartInfo sent = send(0, "new");
    const PartInfo copied = copy({1, 0, 3, storedTag()});
    ASSERT_EQ(pthread_setattr_default_np(&usual), 0);
    EXPECT_TRUE(gate->wasSentHere(0));
    EXPECT_TRUE(gate->wasSentHere(1));
    complete({sent, copied, send(2, "newer")});
    EXPECT_FALSE(gate->wasSentHere(2)) << "there are threads again";
    EXPECT_EQ(store->get("k"), "newoldnewer");
}

TEST_F(PipelinedUploadClientTest, HoldsNoMoreBytesThanAllowed)
{
    begin(4, 25);
    gate->setOpen(false);
    std::vector<PartInfo> parts{send(0, "some bytes"), send(1, "some bytes")};
    gate->awaitInside(2);
    auto others = std::async(std::launch::async,
        [&]
        {
            for (std::size_t i = 2; i < 20; ++i)
            {
                parts.push_back(send(i, "some bytes"));
            }
        });
    gate->setOpen(true);
    others.get();
    await(parts[18]);
    await(parts[19]);
    EXPECT_EQ(gate->mostInside(), 2U) << "there were buffers for two parts";
    parts.push_back(send(20, "a part that is larger than all buffers"));
    EXPECT_TRUE(gate->wasSentHere(20));
    complete(parts);
    EXPECT_EQ(store->get("k").value().size(), 200 + parts.back().Size);
}

TEST_F(PipelinedUploadClientTest, TheLastTransferOfAPartCounts)
{
    begin(3, 35);
    gate->setOpen(false);
    std::vector<PartInfo> stale{send(0, "first")};
    gate->awaitInside(1);
    stale.push_back(send(0, "second"));
    stale.push_back(send(0, "third"));
    send(1, "");
    send(2, "");
    gate->awaitInside(3); // these two pass by the third, which waits for the first
    auto sending = std::async(std::launch::async, [&] { return send(0, std::string(40, 'x')); }); // has no buffer
    gate->setOpen(true);
    const PartInfo last = sending.get();
    stale.push_back(send(1, "other part"));
    stale.back().Index = 0;
    for (const PartInfo& part : stale)
    {
        EXPECT_THROW(complete({part}), UnknownErrorException) << part;
        EXPECT_FALSE(store->get("k"));
    }
    EXPECT_EQ(calls(Operation::UploadPart), 6U) << "expected the second, which had not begun, to be dropped";
    complete({last});
    EXPECT_EQ(store->get("k"), std::string(40, 'x'));
}

TEST_F(PipelinedUploadClientTest, AbortDropsWhatHasNotBegunAndWaitsForTheRest)
{
    begin(2, 50);
    gate->setOpen(false);
    PartInfo last;
    for (std::size_t i = 0; i < 5; ++i)
    {
        last = send(i, "some bytes");
    }
    gate->awaitInside(2);
    const std::string aborted = std::exchange(upload, client->createMultipartUpload("k", ""));
    faults->inject({.operation = Operation::UploadPart, .call = 1}); // of the two that are under way
    faults->inject({.operation = Operation::AbortMultipartUpload, .call = 1});
    auto aborting = std::async(std::launch::async, [&] { client->abortMultipartUpload("k", aborted); });
    const PartInfo part = send(0, "new bytes"); // finds a buffer when three parts were dropped
    gate->setOpen(true);
    EXPECT_THROW(aborting.get(), UnknownErrorException);
    complete({part});
    EXPECT_EQ(store->get("k"), "new bytes");
    EXPECT_EQ(calls(Operation::UploadPart), 3U);

    upload = client->createMultipartUpload("k", "");
    await(send(0, std::string(50, 'x')));
    EXPECT_FALSE(gate->wasSentHere(0)) << "expected all buffers back";
    EXPECT_THROW(client->completeMultipartUpload("k", aborted, {last}), UnknownErrorException);
    store->abortMultipartUpload("k", upload);
    EXPECT_THROW(client->abortMultipartUpload("k", upload), ResourceNotFoundException);
    const std::uint64_t aborts = calls(Operation::AbortMultipartUpload);
    client.reset();
    EXPECT_EQ(calls(Operation::AbortMultipartUpload), aborts + 1) << "expected that of what a failed abort has left";
}

TEST_F(PipelinedUploadClientTest, TagsStandForTheRealOnesWhileTheyAreKnown)
{
    begin(4);
    const PartInfo sent = send(0, "old");
    complete({sent});
    upload = client->createMultipartUpload("k", sent.Tag);
    EXPECT_EQ(store->openUploads().at(0).tag, storedTag());

    gate->setOpen(false);
    const PartInfo copied = copy(sent);
    EXPECT_THROW(copy(copied), UnknownErrorException) << "it is no stored part yet";
    auto waiting = std::async(std::launch::async, [&] { return client->createMultipartUpload("k", copied.Tag); });
    gate->awaitInside(1);
    gate->setOpen(true);
    const std::string next = waiting.get();
    complete({copied});
    EXPECT_EQ(store->openUploads().at(0).tag, storedTag()) << "expected to wait for the copy on its way";

    upload = next;
    std::vector<PartInfo> many;
    while (many.size() < 20'000)
    {
        many.push_back(send(many.size(), "x"));
    }
    complete(many);
    upload = client->createMultipartUpload("k", copied.Tag);
    EXPECT_EQ(store->openUploads().at(0).tag, "") << "it is long forgotten";
    EXPECT_THROW(copy(copied), UnknownErrorException);
}

TEST_F(PipelinedUploadClientTest, AFailureIsToldOnceAndMendedByCompletingAgain)
{
    const auto outage = std::make_exception_ptr(TransientException("Busy", "store answered 503"));
    const auto isTheOutage = testing::Throws<TransientException>(
        testing::Property(&TransientException::detail, testing::Optional(std::string("store answered 503"))));
    for (const Operation failing : {Operation::UploadPart, Operation::CopyPart})
    {
        store->put("k", "old");
        begin(4);
        const auto transfer = [&](std::size_t index) {
            return failing == Operation::UploadPart ? send(index, "new") : copy({index, 0, 3, storedTag()});
        };
        faults->inject({.operation = failing, .failure = outage});
        std::vector<PartInfo> parts{transfer(0)};
        await(parts[0]);
        EXPECT_THAT([&] { transfer(1); }, isTheOutage);
        parts.push_back(transfer(1));
        for (std::size_t round = 0; round < 2; ++round)
        {
            EXPECT_THAT([&] { complete(parts); }, isTheOutage);
            EXPECT_EQ(store->get("k"), "old");
            EXPECT_NO_THROW(parts.push_back(transfer(2 + round))) << "the completion has told it";
        }
        await(parts.back());
        faults->clearFaults();
        EXPECT_THAT([&] { transfer(1); }, isTheOutage);
        parts[1] = transfer(1);
        complete(parts);
        EXPECT_EQ(store->get("k"), failing == Operation::UploadPart ? "newnewnewnew" : "oldoldoldold");
    }
}

TEST_F(PipelinedUploadClientTest, FailedPartsThatFillTheBuffersHoldUpNobody)
{
    begin(4, 20);
    faults->inject({.operation = Operation::UploadPart});
    std::vector<PartInfo> parts;
    for (std::size_t i = 0; i < 2; ++i)
    {
        parts.push_back(send(i, "some bytes"));
        await(parts[i]);
        EXPECT_THROW(send(i, "not taken"), UnknownErrorException);
    }
    EXPECT_THROW(send(2, "last bytes"), UnknownErrorException) << "expected its own failure";
    EXPECT_TRUE(gate->wasSentHere(2));
    faults->clearFaults();
    parts[0] = send(0, "some bytes");
    EXPECT_TRUE(gate->wasSentHere(0));
    parts.push_back(send(2, "last bytes"));
    complete(parts);
    EXPECT_FALSE(gate->wasSentHere(2)) << "there was a buffer again";
    EXPECT_EQ(store->get("k"), "some bytessome byteslast bytes");
}

/// Write [begin, end) of the file "k" through the provider, in parts of 16 bytes.
/// @return whether no step has failed
bool write(const CloudClientSharedPtr& client, fsp::ByteStreamTruncate truncate, std::size_t begin, std::size_t end,
    const std::string& bytes)
{
    setenv("ZV_CLOUD_PART_SIZE_OVERRIDE", "16", 1);
    const auto provider = buildCloudProvider(client, FolderPolicy::MarkerObjects, false);
    try
    {
        const auto stream = provider->openStream(fsp::StorageIRI::fromUtf8("mem://test/k"),
            {fsp::ByteStreamReadAccess::Allowed, fsp::ByteStreamCreate::IfMissing, truncate,
                fsp::ByteStreamWritePosition::AtOffset});
        stream->seek(static_cast<std::streamoff>(begin), std::ios_base::beg);
        for (; begin < end; begin += 10)
        {
            stream->write(bytes.data() + begin, static_cast<std::streamsize>(std::min<std::size_t>(10, end - begin)));
        }
        stream->close();
        return true;
    }
    catch (const std::exception&) // of several types, for opening and for what follows
    {
        return false;
    }
}

/// How calls of the store fail.
struct Trouble
{
    const char* name;
    bool isForGood;
    Fault::Moment moment;
};

class PipelinedFileTest : public PipelinedUploadClientTest, public testing::WithParamInterface<Trouble>
{
protected:
    static constexpr std::size_t size = 73; // five parts

    /// Write the file while the n-th call fails. @return whether there were so many calls
    bool runOnce(std::size_t n, fsp::ByteStreamTruncate truncate, std::size_t begin, std::size_t end)
    {
        const std::string old(size, 'o');
        std::string changed = old;
        changed.replace(begin, end - begin, end - begin, 'n');
        EXPECT_TRUE(write(store, fsp::ByteStreamTruncate::Discard, 0, size, old));

        std::mutex mutex;
        std::vector<Operation> calls;
        faults->setHook(
            [&](Operation operation, const std::string&)
            {
                const std::lock_guard lock(mutex);
                calls.push_back(operation);
                if (GetParam().isForGood && calls.size() >= n && operation != Operation::AbortMultipartUpload)
                {
                    throw UnknownErrorException("down");
                }
            });
        if (!GetParam().isForGood)
        {
            faults->inject({.call = n, .moment = GetParam().moment});
        }
        const bool succeeded = write(
            std::make_shared<PipelinedUploadClient>(gate, PipelineSettings{4, 40}), truncate, begin, end, changed);
        awaitThreads(1);
        faults->setHook({});
        faults->clearFaults();

        const bool isStruck = calls.size() >= n;
        EXPECT_TRUE(succeeded || isStruck) << "failed untouched";
        const bool failedToOpen = isStruck && calls[n - 1] == Operation::CreateMultipartUpload;
        const auto stored = store->get("k");
        const bool mayBeOld = !succeeded || failedToOpen; // a flush says nothing of an upload that could not be opened
        EXPECT_TRUE(stored == changed || (mayBeOld && stored == old)) << stored.value_or("nothing");
        for (const OpenUpload& open : store->openUploads())
        {
            EXPECT_TRUE(failedToOpen && GetParam().moment == Fault::Moment::AfterEffect) << "an upload is left";
            store->abortMultipartUpload(open.key, open.uploadId);
        }
        return isStruck;
    }
};

TEST_P(PipelinedFileTest, IsWrittenOrSaysThatItIsNot)
{
    bool isStruck = true;
    for (std::size_t n = 1; isStruck && !HasFailure(); ++n)
    {
        SCOPED_TRACE("call " + std::to_string(n));
        isStruck = runOnce(n, fsp::ByteStreamTruncate::Discard, 0, size);
        isStruck = runOnce(n, fsp::ByteStreamTruncate::Keep, 34, 44) || isStruck; // in one part: it is written or not
    }
}

INSTANTIATE_TEST_SUITE_P(Troubles, PipelinedFileTest,
    testing::Values(Trouble{"oneCallFails", false, Fault::Moment::BeforeEffect},
        Trouble{"oneAnswerIsLost", false, Fault::Moment::AfterEffect},
        Trouble{"allCallsFailFromThenOn", true, Fault::Moment::BeforeEffect}),
    [](const auto& row) { return std::string(row.param.name); });

} // namespace

} // namespace storage::clients
