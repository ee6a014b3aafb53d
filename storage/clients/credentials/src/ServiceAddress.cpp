#include <storage/clients/credentials/ServiceAddress.hpp>

#include <storage/clients/credentials/CredentialsFailure.hpp>

#include <curl/curl.h>

#include <memory>
#include <new>

#include <arpa/inet.h>

namespace storage::clients
{

namespace
{

std::string partOf(CURLU* address, CURLUPart part)
{
    char* text = nullptr;
    if (curl_url_get(address, part, &text, CURLU_NO_DEFAULT_PORT) != CURLUE_OK)
    {
        return {};
    }
    const std::unique_ptr<char, decltype(&curl_free)> owner(text, &curl_free);
    return text;
}

} // namespace

ServiceAddress parseAddress(const std::string& name, const std::string& url)
{
    const std::string base = url.substr(0, url.find_last_not_of('/') + 1);
    const std::unique_ptr<CURLU, decltype(&curl_url_cleanup)> parsed(curl_url(), &curl_url_cleanup);
    if (parsed == nullptr)
    {
        throw std::bad_alloc();
    }
    if (curl_url_set(parsed.get(), CURLUPART_URL, base.c_str(), CURLU_PATH_AS_IS) != CURLUE_OK)
    {
        throw invalidCredentials(name + " is not a valid URL");
    }
    if (!partOf(parsed.get(), CURLUPART_USER).empty())
    {
        throw invalidCredentials(name + " must not contain a user name");
    }
    return {base, partOf(parsed.get(), CURLUPART_SCHEME), partOf(parsed.get(), CURLUPART_HOST),
        partOf(parsed.get(), CURLUPART_PORT), partOf(parsed.get(), CURLUPART_PATH)};
}

bool isLoopback(const std::string& host)
{
    return host == "localhost" || host == "[::1]" || isAddressIn(host, "127.");
}

bool isPrivate(const ServiceAddress& address)
{
    return address.scheme == "https" || (address.scheme == "http" && isLoopback(address.host));
}

bool isAddressIn(const std::string& host, const char* prefix)
{
    in_addr address{};
    return ::inet_pton(AF_INET, host.c_str(), &address) == 1 && host.starts_with(prefix);
}

} // namespace storage::clients
