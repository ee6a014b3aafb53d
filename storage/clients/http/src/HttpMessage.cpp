#include <storage/clients/http/HttpMessage.hpp>

#include <storage/clients/http/HttpTimeouts.hpp>

#include <boost/algorithm/string/predicate.hpp>

#include <algorithm>

namespace storage::clients
{

const std::string* HttpHeaders::find(std::string_view name) const
{
    const auto found = std::find_if(m_fields.rbegin(), m_fields.rend(),
        [name](const Field& field) { return boost::algorithm::iequals(field.name, name); });
    return found == m_fields.rend() ? nullptr : &found->value;
}

void allowServerSideWork(HttpRequest& request, const HttpTimeouts& timeouts, std::uint64_t bytes)
{
    request.stallWindow =
        timeouts.serverSideStallWindow + std::chrono::seconds(bytes / timeouts.serverSideBytesPerSecond);
    if (bytes > 0)
    {
        request.deadline = std::max<std::chrono::milliseconds>(timeouts.request, *request.stallWindow);
    }
}

} // namespace storage::clients
