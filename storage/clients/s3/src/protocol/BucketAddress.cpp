#include "BucketAddress.hpp"

#include "credentials/ServiceEndpoints.hpp"

#include <storage/clients/common/KeyRules.hpp>
#include <storage/clients/http/UriEncoding.hpp>
#include <storage/clients/remote/StoreUrl.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <regex>

namespace storage::clients::s3
{

namespace
{

[[noreturn]] void refuse(const std::string& reason)
{
    throw cloudprovider::InvalidLocationException(
        "Invalid store", reason + "; the form is s3://BUCKET/PREFIX?endpoint=URL&region=REGION&path-style=1");
}

constexpr std::size_t maxArn = 200; // characters; for long texts, matching needs more stack than there is

/// Whether the bucket can be a part of the host name: the endpoint's certificate covers only one more label, and a
/// numeric address has no labels.
bool fitsIntoHostName(const std::string& bucket, const std::string& endpointHost)
{
    static const std::regex label("[a-z0-9]([a-z0-9-]*[a-z0-9])?");
    static const std::regex number(R"((\d+\.){3}\d+(:\d+)?|\[.*)");
    return std::regex_match(bucket, label) && !std::regex_match(endpointHost, number);
}

/// Throw unless the region is valid as a part of a host name.
void requireRegion(const std::string& region)
{
    static const std::regex form("[A-Za-z0-9-]{1,63}");
    if (!std::regex_match(region, form))
    {
        refuse(quoted(region) + " is not a valid region name"); // quoted: the store may have sent it
    }
}

} // namespace

BucketAddress::BucketAddress(const S3Settings& settings)
    : m_bucket(settings.bucket)
    , m_label(settings.bucket)
    , m_region(settings.region)
    , m_scheme("https")
    , m_prefix(settings.prefix)
{
    if (m_bucket.starts_with("arn:"))
    {
        static const std::regex form("arn:aws[a-z-]*:s3:([a-z0-9-]+):([0-9]{12}):accesspoint/([a-z0-9-]{3,50})");
        std::smatch match;
        if (m_bucket.size() > maxArn || !std::regex_match(m_bucket, match, form))
        {
            refuse("the ARN of an access point is like arn:aws:s3:REGION:ACCOUNT:accesspoint/NAME");
        }
        m_region = match.str(1);
        m_label = match.str(3) + "-" + match.str(2);
        m_service = "s3-accesspoint";
    }
    const bool isName =
        m_label.size() >= 3 && m_label.size() <= 255 &&
        std::all_of(m_label.begin(), m_label.end(),
            [](unsigned char c) { return std::isalnum(c) != 0 || c == '-' || c == '.' || c == '_' || c == ':'; });
    if (!isName || m_label == "..")
    {
        refuse("\"" + m_bucket + "\" is not a valid bucket name");
    }
    requireRegion(m_region);
    if (!settings.endpoint.empty())
    {
        const auto endpoint = readEndpoint(settings.endpoint);
        if (!endpoint)
        {
            refuse(
                "the endpoint must be like https://HOST or http://HOST:PORT"); // not quoted: it may contain a password
        }
        m_scheme = endpoint->scheme;
        m_endpointHost = endpoint->host;
        m_basePath = endpoint->path;
    }
    m_pathStyle = settings.pathStyle.value_or(!fitsIntoHostName(m_label, m_endpointHost));
}

BucketAddress BucketAddress::inRegion(std::string region) const
{
    requireRegion(region);
    BucketAddress address = *this;
    address.m_region = std::move(region);
    return address;
}

std::string BucketAddress::host() const
{
    const std::string endpoint =
        m_endpointHost.empty() ? fmt::format("{}.{}.{}", m_service, m_region, domainOf(m_region)) : m_endpointHost;
    return m_pathStyle ? endpoint : m_label + "." + endpoint;
}

std::string BucketAddress::path(std::string_view key) const
{
    if (key.size() + m_prefix.size() > maxKeyBytes)
    {
        throw cloudprovider::InvalidLocationException("Invalid name",
            fmt::format("key {} is refused: it has {} bytes and the prefix of the store {}, at most {} are allowed",
                quoted(std::string(key)), key.size(), m_prefix.size(), maxKeyBytes));
    }
    return m_basePath + (m_pathStyle ? "/" + uriEncode(m_label) : "") + "/" +
           (key.empty() ? "" : uriEncodePath(m_prefix + std::string(key)));
}

std::string BucketAddress::copySource(std::string_view key) const
{
    std::string parent = m_label == m_bucket ? "/" + m_bucket + "/" : m_bucket + "/object/";
    return uriEncodePath(parent.append(m_prefix).append(key));
}

std::string BucketAddress::origin() const
{
    return m_scheme + "://" + host();
}

} // namespace storage::clients::s3
