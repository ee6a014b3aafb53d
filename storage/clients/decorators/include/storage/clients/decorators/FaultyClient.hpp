#pragma once

#include <storage/clients/decorators/InterceptingClient.hpp>

#include <atomic>
#include <cstdint>
#include <exception>
#include <functional>
#include <limits>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace storage::clients
{

/// One failure to inject.
struct Fault
{
    /// When a call fails: before the inner client is called, or after the inner call has succeeded, as if only the
    /// response were lost.
    enum class Moment
    {
        BeforeEffect,
        AfterEffect
    };

    std::optional<Operation> operation = std::nullopt; ///< the operation that fails; empty: any operation
    std::uint64_t call = 0; ///< the call that fails; 1 is the next one; 0: every call until the fault is cleared
    Moment moment = Moment::BeforeEffect;
    std::exception_ptr failure = nullptr; ///< thrown; null: an UnknownErrorException that names operation and key
};

/// Inject faults into any client, for tests: failures, hooks, truncated downloads and empty pages.
///
/// Safe for concurrent calls on one instance, including the functions that configure it. These affect only calls that
/// arrive later. No lock is held while a hook or the inner client runs. The order of one call is: hook, faults before
/// the effect, the inner client, faults after the effect. If the inner client fails, the call throws the inner client's
/// failure.
class FaultyClient : public InterceptingClient
{
public:
    using Hook = std::function<void(Operation operation, const std::string& key)>;

    using InterceptingClient::InterceptingClient;

    /// Add a fault. Faults are independent: each counts the calls that arrive after it was added. If several apply to
    /// one call, the call throws the one that was added first.
    void inject(Fault fault);

    /// Remove all faults.
    void clearFaults();

    /// Run this at the beginning of every call, on the calling thread. It may block, record the call, or throw, and the
    /// call throws what the hook throws. An empty hook removes the current one, but does not end calls that are inside
    /// it.
    void setHook(Hook hook);

    /// Let getObjectRange() succeed after at most this many bytes, like a client that does not notice a broken
    /// connection. Without an argument, which is the initial state, all bytes are delivered.
    void setDownloadLimit(std::uint64_t bytes = std::numeric_limits<std::uint64_t>::max()) noexcept;

    /// Send this many empty pages before each page of a listing; initially 0.
    void setEmptyPages(unsigned pages) noexcept;

    std::vector<cloudprovider::ObjectEntry> listObjects(
        const std::string& prefix, std::string& continuationToken, const cloudprovider::ListOptions& options) override;
    void getObjectRange(const std::string& key, std::ostream& out, std::uint64_t first, std::uint64_t last) override;

protected:
    void around(const Call& call, const std::function<void()>& proceed) override;

private:
    /// Count the call for every fault that applies to it. @return the fault that this call throws
    std::optional<Fault> takeFault(const Call& call);

    std::mutex m_mutex;          // innermost: released before a hook or the inner client runs
    std::vector<Fault> m_faults; // guarded by m_mutex; `call` counts down to the call that fails
    Hook m_hook;                 // guarded by m_mutex; copied for each call
    std::atomic<std::uint64_t> m_downloadLimit = std::numeric_limits<std::uint64_t>::max();
    std::atomic<unsigned> m_emptyPages = 0;
};

} // namespace storage::clients
