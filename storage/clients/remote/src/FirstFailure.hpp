#pragma once

#include "Retry.hpp"

#include <atomic>
#include <exception>

namespace storage::clients
{

/// The first failure of several requests that run at the same time, and what ends the others: those that wait for
/// another attempt, too. Safe for concurrent calls.
class FirstFailure
{
public:
    /// @param outage  of the requests; borrowed
    explicit FirstFailure(Outage& outage)
        : m_outage(outage)
    {
    }
    FirstFailure(const FirstFailure&) = delete;
    FirstFailure& operator=(const FirstFailure&) = delete;

    bool isThere() const noexcept { return m_isThere; }

    /// Keep the exception that is being handled, unless there is one already.
    void keep()
    {
        if (!m_isThere.exchange(true))
        {
            m_exception = std::current_exception();
            m_outage.setAborting(true);
        }
    }

    /// Call this when all requests have ended. Others may begin then.
    void throwIfThere()
    {
        if (m_exception)
        {
            m_outage.setAborting(false);
            std::rethrow_exception(m_exception);
        }
    }

private:
    Outage& m_outage;
    std::atomic<bool> m_isThere = false;
    std::exception_ptr m_exception;
};

} // namespace storage::clients
