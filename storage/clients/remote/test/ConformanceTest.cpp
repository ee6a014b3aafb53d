#include "MemoryRemoteStore.hpp"

#include <storage/clients/remote/RemoteClient.hpp>
#include <storage/clients/testing/CloudClientConformance.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>

#include <chrono>
#include <memory>
#include <optional>
#include <random>

namespace storage::clients
{

namespace
{

using cloudprovider::CloudClientSharedPtr;
using test::Fault;
using test::MemoryBucket;
using test::StoreRequest;

constexpr StoreAbilities everything{.minPartSize = 2'000,
    .maxParts = 1'000,
    .maxObjectSize = 1U << 20U,
    .maxCopySize = 80'000,
    .maxTakeSize = 80'000,
    .maxDeletions = 1,
    .conditionalTakes = true,
    .conditionalWrites = true,
    .conditionalCreation = true,
    .conditionalCompletion = true};
constexpr StoreAbilities noConditions{.minPartSize = 2'000, .maxCopySize = 80'000, .maxTakeSize = 80'000};
constexpr StoreAbilities equalParts{.minPartSize = 2'000,
    .maxCopySize = 80'000,
    .maxTakeSize = 80'000,
    .equalParts = true,
    .conditionalCompletion = true};

/// A store with small and empty pages. Either every third request fails, or tags are hashes, so that an object may get
/// a tag again that it had before; not both: after a lost response, two writers of the same bytes could not be told
/// apart. A store whose requests do not fail refuses to take parts, although it is said to do so.
class RemoteHarness : public conformance::Harness
{
public:
    RemoteHarness(std::size_t transfers, const StoreAbilities& abilities, bool isFaulty = true)
        : m_transfers(transfers)
    {
        m_bucket->abilities = abilities;
        m_bucket->tagsAreHashes = !isFaulty;
        m_bucket->refusesTakes = !isFaulty;
        m_bucket->pageSize = 3;
        m_bucket->emptyPages = 2;
        m_bucket->faults = [isFaulty](const StoreRequest& request)
        {
            thread_local std::minstd_rand random;
            const bool fails =
                isFaulty && random() % 3 == 0 && request.operation != "abortUpload"; // might have taken effect
            return fails ? std::optional(Fault()) : std::nullopt;
        };
        m_client = connect(*m_bucket);
    }

    cloudprovider::CloudClient& client() override { return *m_client; }
    CloudClientSharedPtr openAnother() override { return connect(*m_bucket); }

    CloudClientSharedPtr openReadOnly() override
    {
        const auto bucket = std::make_shared<MemoryBucket>();
        bucket->faults = [](const StoreRequest&) -> std::optional<Fault>
        { throw cloudprovider::PermissionDeniedException("Denied", "this store is read-only"); };
        return connect(*bucket);
    }

    conformance::Capabilities capabilities() const override
    {
        return {m_bucket->abilities.minPartSize, "", "", "an object is cut by rule", "",
            "the store hears of an upload with its first part", ""};
    }

private:
    /// Memory is for two small parts, so that callers wait, and not enough for large ones.
    CloudClientSharedPtr connect(MemoryBucket& bucket) const
    {
        return std::make_shared<RemoteClient>(
            bucket.connect(), RemoteSettings{.transfers = m_transfers,
                                  .memory = 9'000,
                                  .partSize = 1'100,
                                  .retry = {.firstDelay = std::chrono::milliseconds(0)}});
    }

    const std::size_t m_transfers;
    const std::shared_ptr<MemoryBucket> m_bucket = std::make_shared<MemoryBucket>();
    CloudClientSharedPtr m_client;
};

CLOUD_CLIENT_CONFORMANCE(Remote, [] { return std::make_unique<RemoteHarness>(8, everything); });
CLOUD_CLIENT_CONFORMANCE(RemoteWithoutThreads, [] { return std::make_unique<RemoteHarness>(1, noConditions); });
CLOUD_CLIENT_CONFORMANCE(RemoteWithEqualParts, [] { return std::make_unique<RemoteHarness>(8, equalParts, false); });

} // namespace

} // namespace storage::clients
