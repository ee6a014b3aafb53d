#pragma once

#include <storage/clients/common/StoreCounters.hpp>
#include <storage/clients/decorators/InterceptingClient.hpp>

#include <mutex>

namespace storage::clients
{

/// Count the calls of the inner client, and the bytes and parts that they move.
///
/// A call is counted when it arrives, its bytes and its part only when it has succeeded. The bytes of getObjectRange()
/// are those written to the output stream. A RemoteClient needs no such decorator: it counts its requests itself. Safe
/// for concurrent calls on one instance.
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
