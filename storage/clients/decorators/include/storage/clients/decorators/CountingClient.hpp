#pragma once

#include <storage/clients/common/StoreCounters.hpp>
#include <storage/clients/decorators/InterceptingClient.hpp>

#include <mutex>

namespace storage::clients
{

/// Count the calls of the inner client, and the bytes and parts that they move.
///
/// Wrap it directly around a store to count what the store is asked, retries and prefetches included. Calls count when
/// they arrive; bytes and parts count when their call has succeeded. Bytes of getObjectRange() are those written to the
/// output stream. Safe for concurrent calls on one instance.
class CountingClient : public InterceptingClient, public StoreCounters
{
public:
    using InterceptingClient::InterceptingClient;

    void getObjectRange(const std::string& key, std::ostream& out, std::uint64_t first, std::uint64_t last) override;

    CallSnapshot callSnapshot() const override;

protected:
    void around(const Call& call, const std::function<void()>& proceed) override;

private:
    mutable std::mutex m_mutex; // innermost; never held during a call of the inner client
    CallSnapshot m_counted;     // guarded by m_mutex
};

} // namespace storage::clients
