#pragma once

#include "LoopbackServer.hpp"

#include <array>
#include <cstddef>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace storage::clients::test
{

/// What goes wrong with one request. Of kinds that the client cannot tell apart there is one.
enum class Fault
{
    None,
    ResetBefore, ///< the store does not see the request, nor any other up to FlippedBefore
    SlowDown503, ///< with a Retry-After of one second
    ErrorUnder200,
    Precondition412,
    Denied403,
    Expired400,
    FlippedBefore,    ///< one bit of the body is wrong when it reaches the store
    ResetAfter,       ///< the store has done its work, here and below; the response is lost
    CutBodyAfter,     ///< fewer bytes than promised
    CutDocumentAfter, ///< transferred whole
    HollowAfter       ///< a document without contents, or a response without an entity tag
};

/// Those that no operation may take for a success.
inline constexpr std::array allFaults{Fault::ResetBefore, Fault::SlowDown503, Fault::ErrorUnder200,
    Fault::Precondition412, Fault::Denied403, Fault::Expired400, Fault::FlippedBefore, Fault::ResetAfter,
    Fault::CutBodyAfter, Fault::CutDocumentAfter, Fault::HollowAfter};

const char* name(Fault fault);

/// Whether the store has done its work all the same.
constexpr bool isAfter(Fault fault)
{
    return fault >= Fault::ResetAfter;
}

/// Stands in front of a store, forwards requests and responses unchanged, and injects faults.
///
/// Safe for concurrent calls on one instance.
class FaultProxy
{
public:
    /// Chooses the fault for a request. Runs before the request is forwarded, on a thread of the proxy: whatever the
    /// plan itself does has then happened just before. Numbers begin at 1.
    using Plan = std::function<Fault(const Request&, std::size_t number)>;

    struct Seen
    {
        boost::beast::http::request_header<> head;
        Fault fault = Fault::None; ///< None, too, for a fault that does not apply to the response
    };

    /// @param store             "http://ADDRESS:PORT"
    /// @param keepsConnections  false: each request gets a connection of its own, on which the transport never resends
    explicit FaultProxy(const std::string& store, bool keepsConnections = true);

    std::string url() const { return m_server.url(); }

    /// Follow a plan from now on, and forget the requests seen before. An empty plan injects nothing.
    void setPlan(Plan plan);

    std::vector<Seen> seen() const;

    /// The number of requests that a fault was injected into.
    std::size_t injected() const;

private:
    Reply answer(const Request& request);
    Reply forward(const Request& request) const;

    const boost::asio::ip::tcp::endpoint m_store;
    const bool m_keepsConnections;
    mutable std::mutex m_mutex;
    std::size_t m_count = 0;  // guarded by m_mutex, as is all below; requests since the plan was set
    std::vector<Seen> m_seen; // in the order of their responses
    Plan m_plan;
    LoopbackServer m_server; // last: it uses the others
};

} // namespace storage::clients::test
