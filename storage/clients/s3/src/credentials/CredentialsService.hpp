#pragma once

#include "CredentialsProvider.hpp"

#include <storage/clients/http/HttpClient.hpp>

#include <chrono>
#include <filesystem>
#include <functional>
#include <string>

namespace storage::clients::s3
{

/// A server that provides credentials. Errors name it and contain nothing of its responses.
class CredentialsService
{
public:
    struct Settings
    {
        std::string name;                       ///< for errors
        std::chrono::milliseconds deadline;     ///< for each request
        std::filesystem::path authorities = {}; ///< see HttpClient
        std::function<bool()> interrupted = {}; ///< see HttpClient
        std::chrono::milliseconds connect = {}; ///< for connecting; 0: the default of HttpTimeouts
        bool bypassProxy = false;               ///< requests never go through a proxy
    };

    explicit CredentialsService(Settings settings);

    /// Send a request.
    ///
    /// @return the response, of any status not mentioned below
    /// @throws HttpFailure when there is no response
    /// @throws TransientException for status 429, and 500 and above
    HttpResponse send(HttpRequest request);

    /// Parse the credentials in a response.
    ///
    /// @param parse  throws CredentialsDocumentError for a document without credentials
    /// @throws cloudprovider::InvalidCredentialsException when the response is a refusal or malformed
    IssuedCredentials read(const HttpResponse& response, IssuedCredentials (*parse)(const std::string& text)) const;

    /// Report that a request has no response.
    ///
    /// @throws TransientException, or cloudprovider::InvalidCredentialsException when a retry cannot succeed
    [[noreturn]] void fail(const HttpFailure& failure) const;

    /// What fail() reports.
    std::string describe(const HttpFailure& failure) const;

    const std::string& name() const noexcept { return m_settings.name; }

private:
    const Settings m_settings;
    HttpClient m_client;
};

} // namespace storage::clients::s3
