#pragma once

#include "LoopbackServer.hpp"

#include "http/HttpClient.hpp"

#include <boost/beast/http.hpp>

#include <algorithm>
#include <array>
#include <atomic>
#include <map>

namespace storage::clients::test
{

/// What goes wrong with one request. Of kinds that the client cannot tell apart there is one.
enum class Fault
{
    None,
    ResetBefore, ///< the store does not see the request, nor any down to Expired400
    SlowDown503,
    ErrorUnder200,
    Precondition412,
    Denied403,
    Expired400,
    ResetAfter,      ///< the store has done its work, here and below; the response is lost
    CutBodyAfter,    ///< fewer bytes than promised
    CutDocumentAfter ///< transferred whole
};

/// Those that no operation may take for a success.
inline constexpr std::array allFaults{Fault::ResetBefore, Fault::SlowDown503, Fault::ErrorUnder200,
    Fault::Precondition412, Fault::Denied403, Fault::Expired400, Fault::ResetAfter, Fault::CutBodyAfter,
    Fault::CutDocumentAfter};

inline const char* name(Fault fault)
{
    constexpr std::array names{"None", "ResetBefore", "SlowDown503", "ErrorUnder200", "Precondition412", "Denied403",
        "Expired400", "ResetAfter", "CutBodyAfter", "CutDocumentAfter"};
    return names.at(static_cast<std::size_t>(fault));
}

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
    using Verb = boost::beast::http::verb;

public:
    /// Chooses the fault for a request. Runs before the request is forwarded, on a thread of the proxy: whatever the
    /// plan itself does has then happened just before. Numbers begin at 1.
    using Plan = std::function<Fault(const Request&, std::size_t number)>;

    /// A plan with one fault.
    /// @param isPersistent  in every request from the first one on, not in that one alone
    static Plan injectAt(Fault fault, std::size_t first, bool isPersistent)
    {
        // A HEAD response has no document with the reason, so that the client asks again with GET: that fails, too.
        const bool needsDocument = fault == Fault::Denied403 || fault == Fault::Expired400;
        return [=, isReported = std::make_shared<std::atomic<bool>>(!needsDocument)](
                   const Request& request, std::size_t number)
        {
            const bool fails = number == first || (number > first && (isPersistent || !*isReported));
            *isReported = *isReported || (fails && request.method() != Verb::head);
            return fails ? fault : Fault::None;
        };
    }

    struct Seen
    {
        boost::beast::http::request_header<> head;
        Fault fault = Fault::None; ///< None, too, for a fault that does not apply to the response
    };

    /// @param store             "http://ADDRESS:PORT"
    /// @param keepsConnections  false: each request gets a connection of its own, on which the transport never resends
    explicit FaultProxy(const std::string& store, bool keepsConnections = true)
        : m_store(store)
        , m_keepsConnections(keepsConnections)
    {
    }

    std::string url() const { return m_server.url(); }

    /// Follow a plan from now on, and forget the requests seen before. An empty plan injects nothing.
    void setPlan(Plan plan)
    {
        const std::lock_guard lock(m_mutex);
        m_plan = std::move(plan);
        m_count = 0;
        m_seen.clear();
    }

    /// In the order of their responses.
    std::vector<Seen> seen() const
    {
        const std::lock_guard lock(m_mutex);
        return m_seen;
    }

    /// Whether a fault was injected into any request.
    bool hasInjected() const
    {
        const auto all = seen();
        return std::any_of(all.begin(), all.end(), [](const Seen& seen) { return seen.fault != Fault::None; });
    }

private:
    Reply respond(const Request& request)
    {
        Fault fault = Fault::None;
        {
            std::unique_lock lock(m_mutex);
            const Plan plan = m_plan;
            const std::size_t number = ++m_count;
            lock.unlock();
            fault = plan ? plan(request, number) : fault;
        }
        const auto instead = replyInstead(fault);
        Reply reply = instead ? *instead : forward(request);
        fault = instead || damage(fault, request, reply) ? fault : Fault::None;
        if (!m_keepsConnections && reply.then == Reply::Then::Keep)
        {
            reply.fields.emplace_back("Connection", "close");
            reply.then = Reply::Then::Close;
        }
        const std::lock_guard lock(m_mutex);
        m_seen.push_back({request.base(), fault});
        return reply;
    }

    /// The response in the store's place; nothing: the request is forwarded.
    static std::optional<Reply> replyInstead(Fault fault)
    {
        const auto error = [](int status, const char* code) {
            return Reply{status, {}, std::string("<Error><Code>") + code + "</Code></Error>"};
        };
        static const std::map<Fault, Reply> replies{{Fault::ResetBefore, Reply::reset()},
            {Fault::SlowDown503, error(503, "SlowDown")}, {Fault::ErrorUnder200, error(200, "InternalError")},
            {Fault::Precondition412, error(412, "PreconditionFailed")}, {Fault::Denied403, error(403, "AccessDenied")},
            {Fault::Expired400, error(400, "ExpiredToken")}};
        const auto found = replies.find(fault);
        return found == replies.end() ? std::nullopt : std::optional(found->second);
    }

    /// Damage the store's response.
    /// @return false: the fault does not apply to it, which has remained as it was
    static bool damage(Fault fault, const Request& request, Reply& reply)
    {
        const bool hasBody = request.method() != Verb::head && reply.status != 204;
        if (fault == Fault::ResetAfter)
        {
            reply = Reply::reset();
        }
        else if (fault == Fault::CutBodyAfter && hasBody)
        {
            reply.fields.emplace_back("Content-Length", std::to_string(std::max<std::size_t>(reply.body.size(), 1)));
            reply.body.resize(reply.body.size() / 2);
            reply.then = Reply::Then::Close;
        }
        else if (fault == Fault::CutDocumentAfter && reply.body.starts_with('<'))
        {
            reply.body.resize(reply.body.size() / 2);
        }
        else
        {
            return false;
        }
        return true;
    }

    Reply forward(const Request& request)
    {
        s3::TextBody body(request.body());
        s3::HttpRequest forwarded{std::string(request.method_string()), m_store + std::string(request.target())};
        forwarded.body = request.body().empty() ? nullptr : &body;
        for (const auto& field : request)
        {
            if (field.name() != boost::beast::http::field::content_length)
            {
                forwarded.headers.add(std::string(field.name_string()), std::string(field.value()));
            }
        }
        s3::HttpResponse response = m_client.perform(forwarded);
        Reply reply{response.status, {}, std::move(response.body)};
        for (const auto& [field, value] : response.headers)
        {
            // A length counts what HEAD does not send; that of other responses comes from the body.
            if (field != "Transfer-Encoding" && field != "Connection" &&
                (field != "Content-Length" || request.method() == Verb::head))
            {
                reply.fields.emplace_back(field, value);
            }
        }
        return reply;
    }

    const std::string m_store;
    const bool m_keepsConnections;
    s3::HttpClient m_client{{}};
    mutable std::mutex m_mutex;
    std::size_t m_count = 0; // guarded by m_mutex, as is all below; requests since the plan was set
    std::vector<Seen> m_seen;
    Plan m_plan;
    LoopbackServer m_server{[this](const Request& request) { return respond(request); }}; // last: it uses the others
};

} // namespace storage::clients::test
