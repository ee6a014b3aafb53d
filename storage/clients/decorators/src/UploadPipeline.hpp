#pragma once

#include "BufferPool.hpp"
#include "OwnTags.hpp"
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

/// The uploads of a PipelinedUploadClient and what is on its way for them. Its operations are the client's, and so is
/// what they promise.
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
            Waiting, // a task was posted that begins it, unless one of the same part runs: then its end posts another
            Running,
            Stored,
            Failed,
            Dropped
        };

        const cloudprovider::PartInfo part;
        const std::string tag;                  // our own
        std::optional<BufferPool::Lease> bytes; // until it is stored or dropped; none: the store copies the part
        State state = State::Dropped;           // until it is queued
        std::string innerTag{};                 // once it is stored
        std::exception_ptr failure{};           // of the last try, if it failed
    };
    using TransferPtr = std::shared_ptr<Transfer>;

    struct Upload
    {
        const std::string key;
        const std::string id;
        std::map<std::size_t, TransferPtr> parts{}; // by index, the newest transfer of each
        std::set<std::size_t> running{};            // indexes under way, those that callers send themselves included
        std::size_t unfinished = 0;                 // transfers that wait or run
        std::exception_ptr unreported{};            // of the first transfer that failed since the last report
    };
    using UploadPtr = std::shared_ptr<Upload>;
    using Lock = std::unique_lock<std::mutex>;

    // A lock as argument says that m_mutex is held, as it must be for newest() too; the others take it themselves.
    UploadPtr find(const std::string& key, const std::string& id);
    void reportFailure(Upload& upload);
    template <typename Call>
    std::string transferHere(const UploadPtr& upload, std::size_t index, Call call);
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
    BufferPool m_buffers; // before what holds its buffers

    // The buffers' and the threads' own locks may be taken while this one is held, never the other way. Not held while
    // a caller waits for a buffer, and during calls of the client below.
    std::mutex m_mutex;
    std::condition_variable m_changed; // a transfer has ended or was dropped

    // Guarded by m_mutex.
    std::map<std::pair<std::string, std::string>, UploadPtr> m_uploads; // the open ones, by key and identifier
    OwnTags m_tags;

    WorkerThreads m_threads; // last: they use everything else
};

} // namespace storage::clients
