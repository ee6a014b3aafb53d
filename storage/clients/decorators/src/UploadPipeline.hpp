#pragma once

#include "BufferPool.hpp"
#include "ProvisionalTags.hpp"
#include "WorkerThreads.hpp"

#include <storage/clients/decorators/PipelinedUploadClient.hpp>
#include <storage/cloudprovider/CloudClient.hpp>

#include <condition_variable>
#include <cstddef>
#include <exception>
#include <iosfwd>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace storage::clients
{

/// The open uploads of a PipelinedUploadClient and their transfers. Each operation is the client's operation of the
/// similar name, with the same contract.
class UploadPipeline
{
public:
    UploadPipeline(cloudprovider::CloudClient& inner, const PipelineSettings& settings);
    UploadPipeline(const UploadPipeline&) = delete;
    UploadPipeline& operator=(const UploadPipeline&) = delete;
    ~UploadPipeline();

    std::string create(const std::string& key, const std::string& tag);
    std::string send(
        const std::string& key, const std::string& id, const cloudprovider::PartInfo& part, std::istream& content);
    std::string copy(const std::string& key, const std::string& id, const cloudprovider::PartInfo& part);
    void abort(const std::string& key, const std::string& id);
    void complete(const std::string& key, const std::string& id, const std::vector<cloudprovider::PartInfo>& parts);

private:
    struct Transfer
    {
        enum class State
        {
            Waiting, // a posted task starts it; if a transfer of the same part runs then, the end of that posts another
            Running,
            Stored,
            Failed,
            Dropped
        };

        const cloudprovider::PartInfo part;
        const std::string tag;                  // provisional
        std::optional<BufferPool::Lease> bytes; // until stored or dropped; none: a server-side copy
        State state = State::Dropped;           // until enqueue() has posted it
        std::string innerTag{};                 // once Stored
        std::exception_ptr failure{};           // of the last attempt, if it failed
    };
    using TransferPtr = std::shared_ptr<Transfer>;

    struct Upload
    {
        const std::string key;
        const std::string id;
        std::map<std::size_t, TransferPtr> parts{}; // by index; the newest transfer of each part
        std::set<std::size_t> running{};            // indexes in flight, on callers' threads, too
        std::size_t unfinished = 0;                 // transfers that are Waiting or Running
        std::exception_ptr unreported{};            // of the first transfer that failed since the last report
    };
    using UploadPtr = std::shared_ptr<Upload>;
    using Lock = std::unique_lock<std::mutex>;

    // Functions with a Lock parameter, and newest(), are called with m_mutex held. The others take it themselves.
    UploadPtr find(const std::string& key, const std::string& id);
    void reportFailure(Upload& upload);
    template <typename Call>
    std::string transferOnCallersThread(const UploadPtr& upload, std::size_t index, Call call);
    std::string enqueue(
        const UploadPtr& upload, const cloudprovider::PartInfo& part, std::optional<BufferPool::Lease> bytes);
    void post(const UploadPtr& upload, const TransferPtr& transfer);
    void run(const UploadPtr& upload, const TransferPtr& transfer);
    std::string perform(const Upload& upload, Transfer& transfer);
    void finish(const UploadPtr& upload, std::size_t index, const Lock& lock);
    void drop(Upload& upload, Transfer& transfer, const Lock& lock);
    void dropUnstored(Upload& upload, const Lock& lock);
    void waitUntilIdle(const Upload& upload, Lock& lock);
    void retryFailed(const UploadPtr& upload, const std::vector<cloudprovider::PartInfo>& parts, Lock& lock);
    std::string storedTag(const Upload& upload, const cloudprovider::PartInfo& part, const Lock& lock) const;
    TransferPtr newest(const Upload& upload, std::size_t index) const;
    std::string baseTag(const std::string& tag);
    std::string sourceTag(const std::string& tag);
    void end(Upload& upload);

    cloudprovider::CloudClient& m_inner;
    BufferPool m_buffers; // before the uploads, whose transfers hold its buffers

    // Lock order: the locks of m_buffers and m_threads may be taken while this one is held, never the other way. Not
    // held while a caller waits for a buffer, nor during calls of the inner client.
    std::mutex m_mutex;
    std::condition_variable m_changed; // a transfer ended or was dropped

    // Guarded by m_mutex.
    std::map<std::pair<std::string, std::string>, UploadPtr> m_uploads; // the open ones, by key and upload id
    ProvisionalTags m_tags;

    WorkerThreads m_threads; // last: destroyed first, since its tasks use all other members
};

} // namespace storage::clients
