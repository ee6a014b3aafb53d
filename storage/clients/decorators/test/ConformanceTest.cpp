#include <storage/clients/common/TransientException.hpp>
#include <storage/clients/decorators/CancellableClient.hpp>
#include <storage/clients/decorators/CountingClient.hpp>
#include <storage/clients/decorators/FailureRecordingClient.hpp>
#include <storage/clients/decorators/FaultyClient.hpp>
#include <storage/clients/decorators/PipelinedUploadClient.hpp>
#include <storage/clients/decorators/ReadAheadClient.hpp>
#include <storage/clients/decorators/RetryingClient.hpp>
#include <storage/clients/memory/MemoryClient.hpp>
#include <storage/clients/testing/CloudClientConformance.hpp>

#include <array>
#include <atomic>
#include <chrono>
#include <exception>
#include <memory>
#include <utility>

namespace storage::clients
{

namespace
{

/// A decorator over a store in memory: what it does not change must stay as it is.
template <typename Decorator>
class DecoratorHarness : public conformance::Harness
{
public:
    cloudprovider::CloudClient& client() override { return m_client; }

    cloudprovider::CloudClientSharedPtr openAnother() override { return std::make_shared<Decorator>(m_store); }

private:
    const std::shared_ptr<MemoryClient> m_store = std::make_shared<MemoryClient>();
    Decorator m_client{m_store};
};

/// With buffers for two small parts, so that callers wait, and large parts find none.
template <std::size_t transfers>
class Pipelined : public PipelinedUploadClient
{
public:
    explicit Pipelined(std::shared_ptr<cloudprovider::CloudClient> inner)
        : PipelinedUploadClient(std::move(inner), {.transfers = transfers, .memory = 250})
    {
    }
};

/// What a listing is must not depend on how it is paged.
class OddPages : public FaultyClient
{
public:
    explicit OddPages(const std::shared_ptr<MemoryClient>& inner)
        : FaultyClient(inner)
    {
        inner->setPageSize(3);
        setEmptyPages(2);
    }
};

/// A store that fails every call of one thread once, in turn before it and after it has had its effect.
class UnreliableHarness : public conformance::Harness
{
public:
    UnreliableHarness()
    {
        m_faults->setHook(
            [this](Operation operation, const std::string&)
            {
                const unsigned phase = ++m_calls.at(static_cast<std::size_t>(operation)) % 4;
                if (phase == 1)
                {
                    throw TransientException("Busy");
                }
                // To the store in memory an upload that has ended is not there, so what ended it must not be repeated.
                // And content that has arrived must not have become shorter when it arrives once more.
                if (phase == 2 && operation != Operation::AbortMultipartUpload &&
                    operation != Operation::CompleteMultipartUpload && operation != Operation::GetObjectRange)
                {
                    m_faults->inject({operation, 1, Fault::Moment::AfterEffect, m_lostAnswer});
                }
            });
    }

    cloudprovider::CloudClient& client() override { return m_client; }

private:
    const std::exception_ptr m_lostAnswer = std::make_exception_ptr(TransientException("Answer lost"));
    std::array<std::atomic<unsigned>, allOperations.size()> m_calls{};
    const std::shared_ptr<FaultyClient> m_faults = std::make_shared<FaultyClient>(std::make_shared<MemoryClient>());
    RetryingClient m_client{m_faults, {.firstDelay = std::chrono::milliseconds(0)}};
};

CLOUD_CLIENT_CONFORMANCE(Retrying, [] { return std::make_unique<UnreliableHarness>(); });
CLOUD_CLIENT_CONFORMANCE(Cancellable, [] { return std::make_unique<DecoratorHarness<CancellableClient>>(); });
CLOUD_CLIENT_CONFORMANCE(FailureRecording, [] { return std::make_unique<DecoratorHarness<FailureRecordingClient>>(); });
CLOUD_CLIENT_CONFORMANCE(Counting, [] { return std::make_unique<DecoratorHarness<CountingClient>>(); });
CLOUD_CLIENT_CONFORMANCE(FaultyWithOddPages, [] { return std::make_unique<DecoratorHarness<OddPages>>(); });
CLOUD_CLIENT_CONFORMANCE(ReadAhead, [] { return std::make_unique<DecoratorHarness<ReadAheadClient>>(); });
CLOUD_CLIENT_CONFORMANCE(PipelinedUpload, [] { return std::make_unique<DecoratorHarness<Pipelined<4>>>(); });
CLOUD_CLIENT_CONFORMANCE(SingleUpload, [] { return std::make_unique<DecoratorHarness<Pipelined<1>>>(); });

} // namespace

} // namespace storage::clients
