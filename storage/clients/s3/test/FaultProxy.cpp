#include "FaultProxy.hpp"

#include <boost/beast/http.hpp>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <optional>
#include <regex>

namespace storage::clients::test
{

namespace
{

namespace asio = boost::asio;
namespace http = boost::beast::http;

Reply error(int status, const std::string& code, std::vector<std::pair<std::string, std::string>> fields = {})
{
    return {status, std::move(fields), "<Error><Code>" + code + "</Code><RequestId>tx-proxy</RequestId></Error>"};
}

bool isDocument(const Reply& reply)
{
    return reply.body.starts_with('<');
}

bool loseResponse(const Request&, Reply& reply)
{
    reply = Reply::reset();
    return true;
}

bool cutBody(const Request& request, Reply& reply)
{
    reply.fields.emplace_back("Content-Length", std::to_string(std::max<std::size_t>(reply.body.size(), 1)));
    reply.body.resize(reply.body.size() / 2);
    reply.then = Reply::Then::Close;
    return request.method() != http::verb::head && reply.status != 204;
}

bool cutDocument(const Request&, Reply& reply)
{
    reply.body.resize(reply.body.size() / 2);
    return reply.body.starts_with('<');
}

bool hollow(const Request&, Reply& reply)
{
    static const std::regex contents(R"(^(<\?[^>]*>)?\s*<(\w+)[^]*)");
    const auto tags = std::erase_if(reply.fields, [](const auto& field) { return field.first == "ETag"; });
    reply.body = isDocument(reply) ? std::regex_replace(reply.body, contents, "$1<$2/>") : reply.body;
    return isDocument(reply) || tags > 0;
}

struct Kind
{
    const char* name;
    std::optional<Reply> instead = {};                // the store does not see the request
    bool (*damage)(const Request&, Reply&) = nullptr; // its response; returns false where that does not apply
};

const Kind& kindOf(Fault fault)
{
    static const std::array<Kind, 12> kinds{{{"None"}, {"ResetBefore", Reply::reset()},
        {"SlowDown503", error(503, "SlowDown", {{"Retry-After", "1"}})}, {"ErrorUnder200", error(200, "InternalError")},
        {"Precondition412", error(412, "PreconditionFailed")}, {"Denied403", error(403, "AccessDenied")},
        {"Expired400", error(400, "ExpiredToken")}, {"FlippedBefore"}, {"ResetAfter", {}, loseResponse},
        {"CutBodyAfter", {}, cutBody}, {"CutDocumentAfter", {}, cutDocument}, {"HollowAfter", {}, hollow}}};
    return kinds.at(static_cast<std::size_t>(fault));
}

asio::ip::tcp::endpoint endpointOf(const std::string& url)
{
    const std::size_t host = std::string_view("http://").size();
    const std::size_t colon = url.rfind(':');
    return {asio::ip::make_address(url.substr(host, colon - host)),
        static_cast<std::uint16_t>(std::stoul(url.substr(colon + 1)))};
}

} // namespace

const char* name(Fault fault)
{
    return kindOf(fault).name;
}

FaultProxy::FaultProxy(const std::string& store, bool keepsConnections)
    : m_store(endpointOf(store))
    , m_keepsConnections(keepsConnections)
    , m_server([this](const Request& request) { return answer(request); })
{
}

void FaultProxy::setPlan(Plan plan)
{
    const std::lock_guard lock(m_mutex);
    m_plan = std::move(plan);
    m_count = 0;
    m_seen.clear();
}

std::vector<FaultProxy::Seen> FaultProxy::seen() const
{
    const std::lock_guard lock(m_mutex);
    return m_seen;
}

std::size_t FaultProxy::injected() const
{
    const auto requests = seen();
    return static_cast<std::size_t>(
        std::count_if(requests.begin(), requests.end(), [](const Seen& seen) { return seen.fault != Fault::None; }));
}

Reply FaultProxy::answer(const Request& request)
{
    Plan plan;
    std::size_t number = 0;
    {
        const std::lock_guard lock(m_mutex);
        plan = m_plan;
        number = ++m_count;
    }
    const Fault fault = plan ? plan(request, number) : Fault::None;
    auto reply = kindOf(fault).instead;
    bool isInjected = reply.has_value();
    if (!reply)
    {
        Request sent = request;
        if (fault == Fault::FlippedBefore && !sent.body().empty())
        {
            sent.body()[sent.body().size() / 2] ^= 1;
            isInjected = true;
        }
        reply = forward(sent);
        Reply damaged = *reply;
        if (kindOf(fault).damage != nullptr && kindOf(fault).damage(request, damaged))
        {
            reply = damaged;
            isInjected = true;
        }
    }
    if (!m_keepsConnections && reply->then == Reply::Then::Keep)
    {
        reply->fields.emplace_back("Connection", "close");
        reply->then = Reply::Then::Close;
    }
    const std::lock_guard lock(m_mutex);
    m_seen.push_back({request.base(), isInjected ? fault : Fault::None});
    return *std::move(reply);
}

Reply FaultProxy::forward(const Request& request) const
{
    asio::io_context context;
    asio::ip::tcp::socket socket(context);
    socket.connect(m_store);
    socket.set_option(asio::ip::tcp::no_delay(true));
    http::write(socket, request);
    boost::beast::flat_buffer buffer;
    http::response_parser<http::string_body> parser;
    parser.body_limit(std::numeric_limits<std::uint64_t>::max());
    parser.skip(request.method() == http::verb::head);
    http::read(socket, buffer, parser);
    Reply reply{static_cast<int>(parser.get().result_int())};
    for (const auto& field : parser.get())
    {
        // A length counts what HEAD does not send; of other responses it is set from the body.
        const bool isLength = field.name() == http::field::content_length && request.method() != http::verb::head;
        if (!isLength && field.name() != http::field::transfer_encoding && field.name() != http::field::connection)
        {
            reply.fields.emplace_back(field.name_string(), field.value());
        }
    }
    reply.body = std::move(parser.get().body());
    return reply;
}

} // namespace storage::clients::test
