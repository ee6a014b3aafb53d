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

Reply errorReply(int status, const std::string& code, std::vector<std::pair<std::string, std::string>> fields = {})
{
    return {status, std::move(fields), "<Error><Code>" + code + "</Code><RequestId>tx-proxy</RequestId></Error>"};
}

/// What is answered in the store's place; nothing: the store is asked.
std::optional<Reply> replyInstead(Fault fault)
{
    switch (fault)
    {
    case Fault::ResetBefore:
        return Reply::reset();
    case Fault::StallBefore:
        return Reply::stall();
    case Fault::InternalError500:
        return errorReply(500, "InternalError");
    case Fault::SlowDown503:
        return errorReply(503, "SlowDown", {{"Retry-After", "1"}});
    case Fault::TooMany429:
        return Reply{429};
    case Fault::ErrorUnder200:
        return errorReply(200, "InternalError");
    case Fault::Precondition412:
        return errorReply(412, "PreconditionFailed");
    case Fault::Denied403:
        return errorReply(403, "AccessDenied");
    case Fault::Moved301:
        return errorReply(301, "PermanentRedirect", {{"x-amz-bucket-region", "elsewhere"}});
    case Fault::Moved307:
        return errorReply(307, "TemporaryRedirect", {{"x-amz-bucket-region", "elsewhere"}});
    case Fault::Moved400:
        return errorReply(400, "AuthorizationHeaderMalformed", {{"x-amz-bucket-region", "elsewhere"}});
    case Fault::Expired400:
        return errorReply(400, "ExpiredToken");
    default:
        return std::nullopt;
    }
}

/// @return false: there is none
bool flipABit(std::string& bytes)
{
    if (!bytes.empty())
    {
        bytes[bytes.size() / 2] ^= 1;
    }
    return !bytes.empty();
}

/// Spoil the store's answer.
/// @return false: there is nothing about it to spoil
bool spoil(Fault fault, const Request& request, Reply& reply)
{
    const bool isDocument = reply.body.starts_with('<');
    switch (fault)
    {
    case Fault::ResetAfter:
        reply = Reply::reset();
        return true;
    case Fault::StallAfter:
        reply = Reply::stall();
        return true;
    case Fault::GarbageAfter:
        reply = Reply::raw("\x01?? this is no HTTP\r\n\r\n", Reply::Then::Close);
        return true;
    case Fault::CutBodyAfter:
        reply.fields.emplace_back("Content-Length", std::to_string(std::max<std::size_t>(reply.body.size(), 1)));
        reply.body.resize(reply.body.size() / 2);
        reply.then = Reply::Then::Close;
        return request.method() != http::verb::head && reply.status != 204;
    case Fault::CutDocumentAfter:
        reply.body.resize(isDocument ? reply.body.size() / 2 : reply.body.size());
        return isDocument;
    case Fault::HollowAfter:
    {
        static const std::regex contents(R"(^(<\?[^>]*>)?\s*<(\w+)[^]*)");
        const auto tags = std::erase_if(reply.fields, [](const auto& field) { return field.first == "ETag"; });
        reply.body = isDocument ? std::regex_replace(reply.body, contents, "$1<$2/>") : reply.body;
        return isDocument || tags > 0;
    }
    case Fault::FlippedAfter:
        return !isDocument && flipABit(reply.body);
    default:
        return false;
    }
}

asio::ip::tcp::endpoint endpointOf(const std::string& url)
{
    static const std::regex form("http://([0-9.]+):([0-9]+)");
    std::smatch match;
    if (!std::regex_match(url, match, form))
    {
        throw std::invalid_argument(url);
    }
    return {asio::ip::make_address(match.str(1)), static_cast<std::uint16_t>(std::stoul(match.str(2)))};
}

} // namespace

const char* name(Fault fault)
{
    static constexpr std::array names{"None", "ResetBefore", "ResetAfter", "StallBefore", "StallAfter", "CutBodyAfter",
        "InternalError500", "SlowDown503", "TooMany429", "ErrorUnder200", "Precondition412", "Denied403", "Moved301",
        "Moved307", "Moved400", "Expired400", "GarbageAfter", "CutDocumentAfter", "HollowAfter", "FlippedBefore",
        "FlippedAfter"};
    return names.at(static_cast<std::size_t>(fault));
}

bool isAfter(Fault fault)
{
    return std::string_view(name(fault)).ends_with("After");
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

std::size_t FaultProxy::struck() const
{
    const std::lock_guard lock(m_mutex);
    return static_cast<std::size_t>(
        std::count_if(m_seen.begin(), m_seen.end(), [](const Seen& seen) { return seen.fault != Fault::None; }));
}

std::uint64_t FaultProxy::largestRange() const
{
    static const std::regex form("bytes=([0-9]+)-([0-9]+)");
    std::uint64_t largest = 0;
    for (const Seen& request : seen())
    {
        const std::string range(request.head["Range"]);
        if (std::smatch match; std::regex_match(range, match, form))
        {
            largest = std::max<std::uint64_t>(largest, std::stoull(match.str(2)) - std::stoull(match.str(1)) + 1);
        }
    }
    return largest;
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
    auto reply = replyInstead(fault);
    bool struck = reply.has_value();
    if (!reply)
    {
        Request sent = request;
        const bool isDamaged = fault == Fault::FlippedBefore && flipABit(sent.body());
        reply = forward(sent);
        Reply spoilt = *reply;
        struck = spoil(fault, request, spoilt);
        reply = struck ? spoilt : *reply;
        struck = struck || isDamaged;
    }
    if (!m_keepsConnections && reply->then == Reply::Then::Keep)
    {
        reply->fields.emplace_back("Connection", "close");
        reply->then = Reply::Then::Close;
    }
    const std::lock_guard lock(m_mutex);
    m_seen.push_back({request.base(), request.body().size(), struck ? fault : Fault::None});
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
        if (field.name() != http::field::transfer_encoding && field.name() != http::field::connection)
        {
            reply.fields.emplace_back(field.name_string(), field.value());
        }
    }
    if (request.method() != http::verb::head) // else it counts what would come
    {
        std::erase_if(reply.fields, [](const auto& field) { return field.first == "Content-Length"; });
    }
    reply.body = std::move(parser.get().body());
    return reply;
}

} // namespace storage::clients::test
