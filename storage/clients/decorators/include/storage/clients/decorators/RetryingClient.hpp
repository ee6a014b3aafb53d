#pragma once

#include <storage/clients/common/Operation.hpp>
#include <storage/clients/decorators/ForwardingClient.hpp>

#include <chrono>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace storage::clients
{

class TransientException;

/// How patient a RetryingClient is. Nothing is negative.
struct RetryPolicy
{
    std::chrono::milliseconds firstDelay{100}; ///< most that the first wait takes; doubled for each that follows
    std::chrono::milliseconds maxDelay = std::chrono::seconds(20); ///< what doubling ends at
    std::chrono::milliseconds budget = std::chrono::minutes(2); ///< no wait ends later than this after the call began,
                                                                ///< or after the last try that got further
};

/// A span of 0 to `most`, both included, any as likely as any other. From any thread.
std::chrono::steady_clock::duration uniformJitter(std::chrono::steady_clock::duration most);

/// Time and chance, which a test replaces by its own. Each is called from any thread, also at the same time.
struct RetryClock
{
    using Duration = std::chrono::steady_clock::duration;

    std::function<std::chrono::steady_clock::time_point()> now = std::chrono::steady_clock::now;
    std::function<void(Duration)> sleep = std::this_thread::sleep_for<Duration::rep, Duration::period>;
    std::function<Duration(Duration most)> jitter = uniformJitter;
};

/// Make a call again that failed with a TransientException, after a wait, until it succeeds or time is up.
///
/// Waits: the k-th, k = 0 first, is uniformly random in [0, min(maxDelay, firstDelay * 2^k)], so that clients which
/// failed together do not return together. A store that said how long to wait is left alone for that long plus the same
/// random time. A wait that would end beyond the budget is not begun. CancellableClient::cancelAll() ends waits
/// within a tenth of a second. The budget does not end a try that is under way: how long one may take is the limit of
/// the client below. A try that failed but got further, as its TransientException says, is no sign that the call is in
/// vain: the waits begin again with the first, and so does the budget.
///
/// Who gives up throws the last failure, again as TransientException, whose detail adds to the store's own how many
/// tries there were, in what time, and why there is none to follow. Everything else that a call throws passes at once.
///
/// Content streams: a stream that can tell its position is brought back to it before a further try, which reads the
/// same bytes again or overwrites what the failed one wrote. A stream that cannot is kept from harm: the call is made
/// again only as long as no byte has been taken from it or put into it. A file opened to append is not fit for
/// getObjectRange(), as it writes elsewhere than it is told to. If a further try of getObjectRange() asks for the whole
/// object, and that has become shorter than what was written already, the call fails: the surplus could not be removed.
///
/// Threads: any, at the same time; no lock is held, here, while a call waits or runs. How many calls may be on their
/// way to the store is not limited here but by the client below. Destroy it when no call is under way.
class RetryingClient : public ForwardingClient
{
public:
    explicit RetryingClient(
        std::shared_ptr<cloudprovider::CloudClient> inner, RetryPolicy policy = {}, RetryClock clock = {});

    cloudprovider::ObjectInfo getObjectInfo(const std::string& key) override;
    void validateObjectName(const std::string& name) override;
    std::vector<cloudprovider::ObjectEntry> listObjects(
        const std::string& prefix, std::string& continuationToken, const cloudprovider::ListOptions& options) override;
    void deleteObject(const std::string& key) override;
    void getObjectRange(const std::string& key, std::ostream& out, std::uint64_t first, std::uint64_t last) override;
    void putObject(const std::string& key, std::istream& content, std::uint64_t size) override;
    std::vector<cloudprovider::PartInfo> getObjectParts(const std::string& key) override;
    std::string createMultipartUpload(const std::string& key, const std::string& tag) override;
    std::string uploadPart(const std::string& key, const std::string& uploadId, const cloudprovider::PartInfo& part,
        std::istream& content) override;
    std::string copyPart(
        const std::string& key, const std::string& uploadId, const cloudprovider::PartInfo& part) override;
    void abortMultipartUpload(const std::string& key, const std::string& uploadId) override;
    void completeMultipartUpload(const std::string& key, const std::string& uploadId,
        const std::vector<cloudprovider::PartInfo>& parts) override;

private:
    struct Tries;

    template <typename Call>
    auto retrying(Operation operation, const std::string& key, Call call) const;
    template <typename Call, typename Rewind>
    auto retrying(Operation operation, const std::string& key, Call call, Rewind rewind) const;

    RetryClock::Duration firstBound() const;
    void waitForNext(Tries& tries, const TransientException& failure) const;
    bool sleep(RetryClock::Duration time) const;
    [[noreturn]] void giveUp(const Tries& tries, const TransientException& failure, const std::string& whyNoMore) const;

    const RetryPolicy m_policy;
    const RetryClock m_clock;
};

} // namespace storage::clients
