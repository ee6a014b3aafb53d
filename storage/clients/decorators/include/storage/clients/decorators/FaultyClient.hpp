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

    std::optional<Operation> operation = std::nullopt; ///< whose calls count; empty: those of every operation
    std::uint64_t call = 0; ///< the one that fails, 1 being the next to arrive; 0: every one until cleared
    Moment moment = Moment::BeforeEffect;
    std::exception_ptr failure = nullptr; ///< thrown; null: an UnknownErrorException that names operation and key
};

/// Let any client misbehave on command, for tests: fail, run a hook, deliver too few bytes, send empty pages.
///
/// Safe for concurrent calls, also of the controls, on one instance. A control affects the calls that arrive later. No
/// lock is held while a hook or the inner client runs. The order of one call is: hook, faults before the effect, the
/// inner client, faults after the effect. A call that the inner client fails throws the inner client's failure.
class FaultyClient : public InterceptingClient
{
public:
    using Hook = std::function<void(Operation operation, const std::string& key)>;

    using InterceptingClient::InterceptingClient;

    /// Add a fault. Faults are independent: each counts the calls that arrive after it was added, and when several
    /// concern one call the first added is thrown.
    void inject(Fault fault);

    /// Remove all faults.
    void clearFaults();

    /// Run this at the beginning of every call, on the calling thread: a gate, a record, or a failure of choice, since
    /// the call throws what the hook throws. An empty hook removes it; calls that are inside it stay there.
    void setHook(Hook hook);

    /// End getObjectRange() with success after at most so many bytes, as a careless client of a broken connection
    /// would. Without an argument, as at first, every byte is delivered.
    void setDownloadLimit(std::uint64_t bytes = std::numeric_limits<std::uint64_t>::max()) noexcept;

    /// Send so many empty pages before each page of a listing; 0, as at first: none.
    void setEmptyPages(unsigned pages) noexcept;

    std::vector<cloudprovider::ObjectEntry> listObjects(
        const std::string& prefix, std::string& continuationToken, const cloudprovider::ListOptions& options) override;
    void getObjectRange(const std::string& key, std::ostream& out, std::uint64_t first, std::uint64_t last) override;

protected:
    void around(const Call& call, const std::function<void()>& proceed) override;

private:
    /// Count the call for every fault that concerns it. @return the fault that this call gets
    std::optional<Fault> takeFault(const Call& call);

    std::mutex m_mutex;          // innermost: released before a hook or the inner client runs
    std::vector<Fault> m_faults; // guarded by m_mutex; `call` counts down to the call that fails
    Hook m_hook;                 // guarded by m_mutex; copied for each call
    std::atomic<std::uint64_t> m_downloadLimit = std::numeric_limits<std::uint64_t>::max();
    std::atomic<unsigned> m_emptyPages = 0;
};

} // namespace storage::clients
