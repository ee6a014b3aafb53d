#pragma once

#include <storage/clients/credentials/CredentialsFailure.hpp>
#include <storage/clients/credentials/CredentialsLoader.hpp>
#include <storage/clients/http/HttpClient.hpp>

#include <string>

namespace storage::clients
{

/// A server that provides credentials. Errors name it and contain nothing of its responses.
class CredentialsService
{
public:
    enum class Place
    {
        Near, ///< on this machine or its host: connects fast or not at all, and never through a proxy
        Far
    };

    /// @param name  for errors
    CredentialsService(const ServiceContext& context, std::string name, Place place);

    /// Send a request.
    ///
    /// @return the response, of any status not mentioned below
    /// @throws UnreachableService when there is no connection; TransientException when there is no response, and for
    ///         status 429, and 500 and above; cloudprovider::InvalidCredentialsException when a retry cannot succeed
    HttpResponse send(HttpRequest request);

    /// Parse the document in a response.
    ///
    /// @param parse  throws CredentialsDocumentError for another document
    /// @throws cloudprovider::InvalidCredentialsException when the response is a refusal or malformed
    template <typename Parse>
    auto read(const HttpResponse& response, const Parse& parse) const
    {
        if (response.status != 200)
        {
            throw invalidCredentials(m_name + " returned no credentials: status " + std::to_string(response.status));
        }
        try
        {
            return parse(response.body);
        }
        catch (const CredentialsDocumentError& fault)
        {
            throw invalidCredentials("the response of " + m_name + " is not a credentials document: " + fault.what());
        }
    }

    const std::string& name() const noexcept { return m_name; }

private:
    const std::string m_name;
    const Place m_place;
    HttpClient m_client;
};

} // namespace storage::clients
