#include <storage/clients/credentials/CredentialsService.hpp>

#include <utility>

namespace storage::clients
{

namespace
{

using namespace std::chrono_literals;

constexpr auto connectDeadlineNear = 1s;
constexpr auto deadlineNear = 5s; // the service itself may have to send requests
constexpr auto deadlineFar = 20s;

HttpTimeouts timeoutsAt(CredentialsService::Place place)
{
    HttpTimeouts timeouts;
    timeouts.connect = place == CredentialsService::Place::Near ? connectDeadlineNear : timeouts.connect;
    return timeouts;
}

} // namespace

CredentialsService::CredentialsService(const ServiceContext& context, std::string name, Place place)
    : m_name(std::move(name))
    , m_place(place)
    , m_client({timeoutsAt(place), context.authorities, context.interrupted})
{
}

HttpResponse CredentialsService::send(HttpRequest request)
try
{
    request.deadline = m_place == Place::Near ? deadlineNear : deadlineFar;
    request.bypassProxy = m_place == Place::Near;
    HttpResponse response = m_client.perform(request);
    if (response.status == 429 || response.status >= 500)
    {
        throw credentialsUnavailable(m_name + " returned status " + std::to_string(response.status));
    }
    return response;
}
catch (const HttpFailure& failure)
{
    const std::string detail = m_name + " does not respond: " + failure.what();
    if (failure.kind() == HttpFailure::Kind::Unreachable)
    {
        throw UnreachableService(detail);
    }
    if (failure.isTransient())
    {
        throw credentialsUnavailable(detail);
    }
    throw invalidCredentials(
        detail + (failure.kind() == HttpFailure::Kind::Certificate
                         ? "; if it has its own certificate authority, name the PEM file as ca-file in the store's URL"
                         : ""));
}

} // namespace storage::clients
