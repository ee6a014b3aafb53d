#include "ContainerCredentials.hpp"

#include "CredentialsFailure.hpp"
#include "MetadataService.hpp"

#include <arpa/inet.h>
#include <curl/curl.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <iterator>
#include <memory>
#include <new>
#include <system_error>
#include <utility>

namespace storage::clients::s3
{

namespace
{

using namespace std::chrono_literals;

constexpr const char* relative = "AWS_CONTAINER_CREDENTIALS_RELATIVE_URI";
constexpr const char* full = "AWS_CONTAINER_CREDENTIALS_FULL_URI";
constexpr const char* tokenFile = "AWS_CONTAINER_AUTHORIZATION_TOKEN_FILE";
constexpr auto deadline = 5s; // the host itself may have to send requests

/// Parse a part of a URL with the library that will connect to it, so that both see the same host.
std::string partOf(CURLU* address, CURLUPart part)
{
    char* text = nullptr;
    if (curl_url_get(address, part, &text, 0) != CURLUE_OK)
    {
        return {};
    }
    const std::unique_ptr<char, decltype(&curl_free)> owner(text, &curl_free);
    return text;
}

/// Whether requests to the host stay on this machine.
bool isLocal(const std::string& host)
{
    in_addr address{};
    if (::inet_pton(AF_INET, host.c_str(), &address) == 1)
    {
        return host.starts_with("127.") || host == "169.254.170.2" || host == "169.254.170.23";
    }
    return host == "localhost" || host == "[::1]" || host == "[fd00:ec2::23]";
}

void checkAddress(const std::string& text)
{
    const std::unique_ptr<CURLU, decltype(&curl_url_cleanup)> address(curl_url(), &curl_url_cleanup);
    if (address == nullptr)
    {
        throw std::bad_alloc();
    }
    if (curl_url_set(address.get(), CURLUPART_URL, text.c_str(), 0) != CURLUE_OK)
    {
        throw invalidCredentials(std::string(full) + " is not a valid URL");
    }
    const std::string scheme = partOf(address.get(), CURLUPART_SCHEME);
    if (!partOf(address.get(), CURLUPART_USER).empty())
    {
        throw invalidCredentials(std::string(full) + " must not contain a user name");
    }
    if (scheme != "https" && (scheme != "http" || !isLocal(partOf(address.get(), CURLUPART_HOST))))
    {
        throw invalidCredentials(std::string(full) + " must be https, or http on this machine");
    }
}

std::string authorization(const Environment& environment)
{
    const std::string& path = environment[tokenFile];
    std::string token = environment["AWS_CONTAINER_AUTHORIZATION_TOKEN"];
    if (!path.empty())
    {
        errno = 0;
        std::ifstream file(path, std::ios::binary);
        std::getline(file, token, '\0'); // the whole file
        if (!file.is_open() || file.bad() || token.empty())
        {
            const int error = errno;
            throw invalidCredentials("reading " + path + ", which " + tokenFile + " names: " +
                                     (error == 0 ? "it is empty" : std::generic_category().message(error)));
        }
    }
    token.erase(token.find_last_not_of(" \t\r\n") + 1);
    if (std::any_of(token.begin(), token.end(), [](char letter) { return letter >= 0 && letter < ' '; }))
    {
        throw invalidCredentials("the authorization token of the container has more than one line");
    }
    return token;
}

} // namespace

ContainerCredentials::ContainerCredentials(Environment environment)
    : m_environment(std::move(environment))
{
}

CredentialsProvider::LoadResult ContainerCredentials::load()
{
    const auto url = address(m_environment);
    if (!url)
    {
        return NoCredentials{std::string("neither ") + relative + " nor " + full + " is set"};
    }
    HttpHeaders headers;
    // Read each time: the file may be replaced while the program runs.
    if (std::string token = authorization(m_environment); !token.empty())
    {
        headers.add("Authorization", std::move(token));
    }
    MetadataService service("the container's credentials endpoint", deadline);
    try
    {
        return service.read(service.send("GET", *url, headers));
    }
    catch (const HttpFailure& failure)
    {
        const std::string detail = service.name() + " does not respond: " + failure.what();
        if (failure.isTransient())
        {
            throw credentialsUnavailable(detail);
        }
        throw invalidCredentials(detail);
    }
}

std::optional<std::string> ContainerCredentials::address(const Environment& environment)
{
    if (const std::string& path = environment[relative]; !path.empty())
    {
        if (!path.starts_with('/'))
        {
            throw invalidCredentials(std::string(relative) + " must begin with \"/\"");
        }
        return "http://169.254.170.2" + path;
    }
    const std::string& url = environment[full];
    if (url.empty())
    {
        return std::nullopt;
    }
    checkAddress(url);
    return url;
}

} // namespace storage::clients::s3
