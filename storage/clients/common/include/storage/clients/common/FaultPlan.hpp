#pragma once

#include <storage/clients/common/Operation.hpp>

#include <chrono>
#include <cstdint>
#include <exception>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

namespace storage::clients
{

/// One thing that is to go wrong.
struct Fault
{
    /// When a call fails: the store has not looked at it yet, or has done it and only the answer is lost.
    enum class Moment
    {
        BeforeEffect,
        AfterEffect
    };

    std::optional<Operation> operation = std::nullopt; ///< which calls count; empty: those of every operation
    std::uint64_t call = 0; ///< the one that fails, 1 being the next to arrive; 0: every one until cleared
    Moment moment = Moment::BeforeEffect;
    std::exception_ptr failure = nullptr; ///< thrown; null: an UnknownErrorException that names operation and key
};

/// Decides, for tests, which calls of a store fail, wait or are watched.
///
/// Safe for concurrent calls; what is set counts for calls that arrive later. Nothing is held while the hook runs,
/// while a call waits, or during the call itself.
class FaultPlan
{
public:
    using Hook = std::function<void(Operation operation, const std::string& key)>;

    /// Add a fault. Faults are independent: each counts the calls that arrive after it was added, and the first added
    /// of several that strike is the one that is thrown.
    void inject(Fault fault);

    /// Forget all faults.
    void clearFaults();

    /// Run this at the beginning of every call, on the calling thread: a gate, a record, or a failure of choice, as
    /// what the hook throws is what the call throws. An empty hook removes it; calls that are inside it stay there.
    void setHook(Hook hook);

    /// Let every call take at least so long, as if the store were far away. Zero: none.
    void setDelay(std::chrono::nanoseconds delay);

    /// Run `body` as one call of the operation and return what it returns. The order is hook, delay, early faults,
    /// body, late faults; a body that throws is past its late faults.
    template <typename Body>
    std::invoke_result_t<Body> run(Operation operation, const std::string& key, Body&& body)
    {
        const std::exception_ptr late = begin(operation, key);
        if constexpr (std::is_void_v<std::invoke_result_t<Body>>)
        {
            body();
            rethrow(late);
        }
        else
        {
            auto result = body();
            rethrow(late);
            return result;
        }
    }

private:
    /// @return what is to be thrown once the call has been done; null: nothing
    std::exception_ptr begin(Operation operation, const std::string& key);

    static void rethrow(const std::exception_ptr& failure)
    {
        if (failure)
        {
            std::rethrow_exception(failure);
        }
    }

    std::mutex m_mutex;                  // innermost: released before anything of others runs
    std::vector<Fault> m_faults;         // guarded by m_mutex; `call` counts down to the call that fails
    Hook m_hook;                         // guarded by m_mutex; copied for each call
    std::chrono::nanoseconds m_delay{0}; // guarded by m_mutex
};

} // namespace storage::clients
