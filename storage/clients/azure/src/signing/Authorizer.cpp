#include "Authorizer.hpp"

#include <storage/clients/http/Hashing.hpp>
#include <storage/clients/http/RequestBody.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>

#include <boost/algorithm/string/case_conv.hpp>
#include <boost/algorithm/string/trim.hpp>

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <utility>

namespace storage::clients::azure
{

namespace
{

std::string signatureOf(const std::string& text, const Credentials& credentials)
{
    const std::string key = fromBase64(credentials.accountKey);
    if (key.empty())
    {
        throw cloudprovider::InvalidCredentialsException(
            "Invalid credentials", "the account key is not a key: it must be base64, as the service shows it");
    }
    return toBase64(hmacSha256(key, text));
}

/// The text that is signed for a request.
std::string textToSign(const HttpRequest& request, const SigningContext& context)
{
    constexpr const char* names[] = {"Content-MD5", "Content-Type", "Date", "If-Modified-Since", "If-Match",
        "If-None-Match", "If-Unmodified-Since", "Range"};
    const std::uint64_t length = request.body == nullptr ? 0 : request.body->size();
    // Behind the method come Content-Encoding and Content-Language, which requests never have.
    std::string text = fmt::format("{}\n\n\n{}\n", request.method, length == 0 ? "" : std::to_string(length));
    for (const char* const name : names)
    {
        const std::string* const value = request.headers.find(name);
        text += (value == nullptr ? "" : *value) + "\n";
    }
    std::map<std::string, std::pair<std::string, std::string>> fields; // in the order of the service: "_" before digits
    for (const auto& [name, value] : request.headers)
    {
        const std::string lower = boost::algorithm::to_lower_copy(name);
        std::string order = lower;
        std::ranges::replace(order, '_', '!');
        fields[order] = {lower, boost::algorithm::trim_copy(value)};
    }
    for (const auto& [order, field] : fields)
    {
        text += order.starts_with("x-ms-") ? fmt::format("{}:{}\n", field.first, field.second) : "";
    }
    text += "/" + context.account + context.path;
    for (const auto& [name, value] : std::map(context.query.begin(), context.query.end()))
    {
        text += fmt::format("\n{}:{}", name, value);
    }
    return text;
}

} // namespace

void authorize(HttpRequest& request, const SigningContext& context, const Credentials& credentials)
{
    request.headers.add("x-ms-date", fmt::format("{:%a, %d %b %Y %H:%M:%S GMT}", fmt::gmtime(context.time)));
    request.headers.add("x-ms-version", protocolVersion);
    if (!credentials.accountKey.empty())
    {
        request.headers.add("Authorization",
            fmt::format("SharedKey {}:{}", context.account, signatureOf(textToSign(request, context), credentials)));
    }
    else if (!credentials.sas.empty())
    {
        request.url += (context.query.empty() ? "?" : "&") + credentials.sas;
    }
    else if (!credentials.bearerToken.empty())
    {
        request.headers.add("Authorization", "Bearer " + credentials.bearerToken);
    }
}

void addSource(HttpHeaders& headers, const std::string& url, const std::string& resource, std::time_t time,
    const Credentials& credentials)
{
    std::string query = credentials.sas;
    if (!credentials.accountKey.empty())
    {
        constexpr std::time_t validity = 4 * 3'600; // seconds; longer than any copy takes
        const std::string expiry = fmt::format("{:%Y-%m-%dT%H:%M:%SZ}", fmt::gmtime(time + validity));
        // Permissions, start, expiry, resource, policy, addresses, protocol, version, kind of resource, and seven more.
        const std::string text =
            fmt::format("r\n\n{}\n{}\n\n\n\n{}\nb\n\n\n\n\n\n\n", expiry, resource, protocolVersion);
        query = encodeQuery({{"sp", "r"}, {"se", expiry}, {"sv", protocolVersion}, {"sr", "b"},
            {"sig", signatureOf(text, credentials)}});
    }
    headers.add("x-ms-copy-source", url + (query.empty() ? "" : "?" + query));
    if (!credentials.bearerToken.empty())
    {
        headers.add("x-ms-copy-source-authorization", "Bearer " + credentials.bearerToken);
    }
}

} // namespace storage::clients::azure
