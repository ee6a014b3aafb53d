#pragma once

#include "LoopbackServer.hpp"

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace storage::clients::test
{

/// What goes wrong with one request. Before the store has heard of it, unless it says "after".
enum class Fault
{
    None,
    ResetBefore,
    ResetAfter, ///< the answer is lost
    StallBefore,
    StallAfter,
    CutBodyAfter, ///< fewer bytes than promised
    InternalError500,
    SlowDown503, ///< with a Retry-After of one second
    TooMany429,
    ErrorUnder200,
    Precondition412,
    Denied403,
    Moved301, ///< to the region "elsewhere"
    Moved307,
    Moved400,
    Expired400,       ///< the credentials
    GarbageAfter,     ///< instead of HTTP
    CutDocumentAfter, ///< transferred whole
    HollowAfter,      ///< a document without contents, or an answer without an entity tag
    FlippedBefore,    ///< one bit of the body, on its way to the store
    FlippedAfter      ///< one bit of an object; only who reads the whole of it can tell
};

/// Those that no operation may take for a success.
inline constexpr std::array allFaults{Fault::ResetBefore, Fault::ResetAfter, Fault::StallBefore, Fault::StallAfter,
    Fault::CutBodyAfter, Fault::InternalError500, Fault::SlowDown503, Fault::TooMany429, Fault::ErrorUnder200,
    Fault::Precondition412, Fault::Denied403, Fault::Moved301, Fault::Moved307, Fault::Moved400, Fault::Expired400,
    Fault::GarbageAfter, Fault::CutDocumentAfter, Fault::HollowAfter, Fault::FlippedBefore};

const char* name(Fault fault);

/// Whether the store has done its work all the same.
bool isAfter(Fault fault);

/// Stands in front of a store, passes requests and answers on as they are, and lets things go wrong.
///
/// Safe for concurrent calls on one instance.
class FaultProxy
{
public:
    /// Chooses what goes wrong. Runs before the request is passed on, on a thread of the proxy; what it does itself has
    /// then happened just before. Numbers begin at 1.
    using Plan = std::function<Fault(const Request&, std::size_t number)>;

    struct Seen
    {
        boost::beast::http::request_header<> head;
        std::size_t bodySize = 0;  ///< bytes
        Fault fault = Fault::None; ///< None, too, for one that does not fit the answer
    };

    /// @param store             "http://ADDRESS:PORT"
    /// @param keepsConnections  false: each request gets one of its own, on which nobody repeats it in secret
    explicit FaultProxy(const std::string& store, bool keepsConnections = true);

    std::string url() const { return m_server.url(); }

    /// Follow a plan from now on, and forget what was seen. An empty plan lets everything pass.
    void setPlan(Plan plan);

    std::vector<Seen> seen() const;

    /// How many requests something went wrong with.
    std::size_t struck() const;

    /// Bytes of the largest range that was asked for; 0: none was.
    std::uint64_t largestRange() const;

private:
    Reply answer(const Request& request);
    Reply forward(const Request& request) const;

    const boost::asio::ip::tcp::endpoint m_store;
    const bool m_keepsConnections;
    mutable std::mutex m_mutex;
    std::size_t m_count = 0;  // guarded by m_mutex, as is all below; requests since the plan was set
    std::vector<Seen> m_seen; // in the order of their answers
    Plan m_plan;
    LoopbackServer m_server; // last: it uses the others
};

} // namespace storage::clients::test
