#include <storage/clients/s3/S3Settings.hpp>

#include "protocol/BucketAddress.hpp"
#include <storage/clients/remote/StoreUrl.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>

#include <boost/algorithm/string/predicate.hpp>

#include <fmt/format.h>

#include <algorithm>
#include <fstream>
#include <stdexcept>
#include <vector>

namespace storage::clients::s3
{

namespace
{

constexpr const char* form = "s3://BUCKET/PREFIX?endpoint=URL&region=REGION&path-style=1";

[[noreturn]] void refuse(const std::string& reason)
{
    throw cloudprovider::InvalidLocationException("Invalid store", reason + "; the form is " + form);
}

/// Read text that will be the value of a request's field.
std::string readField(const std::string& value)
{
    if (value.empty() || !std::all_of(value.begin(), value.end(), [](char c) { return c > ' ' && c <= '~'; }))
    {
        throw std::invalid_argument("must be printable ASCII characters without blanks");
    }
    return value;
}

std::string readChoice(const std::string& value, const std::vector<std::string>& choices)
{
    if (std::find(choices.begin(), choices.end(), value) == choices.end())
    {
        throw std::invalid_argument(fmt::format("must be {}", fmt::join(choices, " or ")));
    }
    return value;
}

/// @return the key in a file that has nothing else
std::string readKey(const std::string& path)
{
    constexpr std::size_t size = 32;
    std::ifstream file(path, std::ios::binary);
    std::string key(size + 1, '\0');
    file.read(key.data(), size + 1);
    key.resize(static_cast<std::size_t>(file.gcount()));
    if (key.size() != size)
    {
        throw std::invalid_argument(fmt::format("must name a file of exactly {} bytes that can be read", size));
    }
    return key;
}

void requireConsistent(const ObjectSettings& objects, const std::string& endpoint)
{
    if (!objects.encryptionKey.empty() && !objects.encryption.starts_with("aws:kms"))
    {
        refuse("\"sse-key\" is only for sse=aws:kms and sse=aws:kms:dsse");
    }
    if (!objects.customerKey.empty() && !objects.encryption.empty())
    {
        refuse("\"sse\" and \"sse-c-key-file\" exclude each other");
    }
    if (!objects.customerKey.empty() && boost::algorithm::istarts_with(endpoint, "http:"))
    {
        refuse("\"sse-c-key-file\" needs an endpoint with https, because requests contain the key");
    }
}

} // namespace

S3Settings parseS3Url(const std::string& url)
{
    const StoreUrl parsed(url, "s3", form);
    S3Settings settings;
    std::size_t slash = parsed.place().find('/');
    if (parsed.place().starts_with("arn:") && slash != std::string::npos)
    {
        slash = parsed.place().find('/', slash + 1); // the first one is in the access point's name
    }
    settings.bucket = parsed.place().substr(0, slash);
    settings.prefix = parsed.prefixAfter(slash);
    bool anonymous = false;
    StoreUrl::Readers readers = transferReaders(settings);
    const auto flag = [&](const char* name, bool& target)
    { readers[name] = [&](const auto& value) { target = readFlag(value); }; };
    readers.insert({{"region", [&](const auto& value) { settings.region = value; }},
        {"path-style", [&](const auto& value) { settings.pathStyle = readFlag(value); }},
        {"profile", [&](const auto& value) { settings.profile = value; }},
        {"request-payer",
            [&](const auto& value) { settings.objects.requesterPays = !readChoice(value, {"requester"}).empty(); }},
        {"storage-class", [&](const auto& value) { settings.objects.storageClass = readField(value); }},
        {"sse",
            [&](const auto& value) {
                settings.objects.encryption = readChoice(value, {"AES256", "aws:kms", "aws:kms:dsse"});
            }},
        {"sse-key", [&](const auto& value) { settings.objects.encryptionKey = readField(value); }},
        {"sse-c-key-file", [&](const auto& value) { settings.objects.customerKey = readKey(value); }}});
    flag("anonymous", anonymous);
    flag("conditional-copies", settings.capabilities.conditionalCopies);
    flag("conditional-completion", settings.capabilities.conditionalCompletion);
    flag("conditional-writes", settings.capabilities.conditionalWrites);
    flag("copies-any-key", settings.capabilities.copiesAnyKey);
    flag("equal-parts", settings.capabilities.equalParts);
    parsed.read(readers);
    if (settings.endpoint.empty())
    {
        settings.endpoint = defaultEndpoint(settings.profile);
    }
    if (settings.region.empty())
    {
        settings.region = defaultRegion(settings.profile);
    }
    if (settings.region.empty())
    {
        settings.region = "us-east-1";
    }
    if (settings.authorities.empty())
    {
        settings.authorities = defaultAuthorities(settings.profile);
    }
    if (anonymous)
    {
        settings.credentials = anonymousCredentials();
    }
    requireConsistent(settings.objects, settings.endpoint);
    const BucketAddress valid(settings);
    return settings;
}

} // namespace storage::clients::s3
