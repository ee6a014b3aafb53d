#pragma once

#include "LoopbackServer.hpp"

#include <storage/clients/http/HttpClient.hpp>

#include <boost/beast/http.hpp>

namespace storage::clients::test
{

/// What goes wrong with one request. All faults that the client cannot tell apart count as one.
struct Fault
{
    const char* name;
    /// The response in the store's place; nothing: the store does its work, and its response is damaged.
    std::optional<Reply> instead;
    /// @return whether the response can be damaged in this way
    bool (*damage)(const Request& request, Reply& reply) = nullptr;
};

/// Stands in front of a store, forwards requests and responses unchanged, and injects faults. Each request needs a
/// connection of its own, on which the transport never resends. Safe for concurrent calls on one instance.
class FaultProxy
{
public:
    /// Chooses the fault for the request with this number, from 1; null: none. Runs on a thread of the proxy, just
    /// before the request is forwarded.
    using Plan = std::function<const Fault*(std::size_t number)>;

    struct SeenRequest
    {
        boost::beast::http::request_header<> head;
        bool isFaulty = false; ///< a fault was injected
    };

    /// @param store  "http://ADDRESS:PORT"
    explicit FaultProxy(std::string store)
        : m_store(std::move(store))
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
    std::vector<SeenRequest> seen() const
    {
        const std::lock_guard lock(m_mutex);
        return m_seen;
    }

private:
    Reply respond(const Request& request)
    {
        std::unique_lock lock(m_mutex);
        const Plan plan = m_plan;
        const std::size_t number = ++m_count;
        lock.unlock();
        const Fault* const fault = plan ? plan(number) : nullptr;
        const bool isReplaced = fault != nullptr && fault->instead;
        Reply reply = isReplaced ? *fault->instead : forward(request);
        const bool isFaulty = isReplaced || (fault != nullptr && fault->damage(request, reply));
        reply.fields.emplace_back("Connection", "close");
        reply.then = reply.then == Reply::Then::Keep ? Reply::Then::Close : reply.then;
        lock.lock();
        m_seen.push_back({request.base(), isFaulty});
        return reply;
    }

    Reply forward(const Request& request)
    {
        TextBody body(request.body());
        HttpRequest forwarded{std::string(request.method_string()), m_store + std::string(request.target())};
        forwarded.body = request.body().empty() ? nullptr : &body;
        for (const auto& field : request)
        {
            if (field.name() != boost::beast::http::field::content_length)
            {
                forwarded.headers.add(std::string(field.name_string()), std::string(field.value()));
            }
        }
        HttpResponse response = m_client.perform(forwarded);
        Reply reply{response.status, {}, std::move(response.body)};
        for (const auto& [field, value] : response.headers)
        {
            // A length counts what HEAD does not send; that of other responses comes from the body.
            if (field != "Transfer-Encoding" && field != "Connection" &&
                (field != "Content-Length" || request.method() == boost::beast::http::verb::head))
            {
                reply.fields.emplace_back(field, value);
            }
        }
        return reply;
    }

    const std::string m_store;
    HttpClient m_client{{}};
    mutable std::mutex m_mutex;
    std::size_t m_count = 0; // guarded by m_mutex, as is all below; requests since the plan was set
    std::vector<SeenRequest> m_seen;
    Plan m_plan;
    LoopbackServer m_server{[this](const Request& request) { return respond(request); }}; // last: it uses the others
};

} // namespace storage::clients::test
