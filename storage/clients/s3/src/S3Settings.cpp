#include <storage/clients/s3/S3Settings.hpp>

#include "protocol/BucketAddress.hpp"
#include <storage/clients/common/KeyRules.hpp>
#include <storage/clients/http/UriEncoding.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>

#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/predicate.hpp>
#include <boost/algorithm/string/replace.hpp>
#include <boost/algorithm/string/split.hpp>

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <fstream>
#include <functional>
#include <map>
#include <string_view>
#include <vector>

namespace storage::clients::s3
{

namespace
{

[[noreturn]] void refuse(const std::string& reason)
{
    throw cloudprovider::InvalidLocationException(
        "Invalid store", reason + "; the form is s3://BUCKET/PREFIX?endpoint=URL&region=REGION&path-style=1");
}

bool readFlag(const std::string& name, const std::string& value)
{
    if (value != "0" && value != "1")
    {
        refuse("\"" + name + "\" must be 0 or 1");
    }
    return value == "1";
}

std::uint64_t readNumber(const std::string& name, const std::string& value, std::uint64_t min, std::uint64_t max)
{
    std::uint64_t number = 0;
    const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), number);
    if (error != std::errc() || end != value.data() + value.size() || number < min || number > max)
    {
        refuse(fmt::format("\"{}\" must be a number from {} to {}", name, min, max));
    }
    return number;
}

/// Read text that will be the value of a request's field.
std::string readField(const std::string& name, const std::string& value)
{
    if (value.empty() || !std::all_of(value.begin(), value.end(), [](char c) { return c > ' ' && c <= '~'; }))
    {
        refuse("\"" + name + "\" must be printable ASCII characters without blanks");
    }
    return value;
}

std::string readChoice(const std::string& name, const std::string& value, const std::vector<std::string>& choices)
{
    if (std::find(choices.begin(), choices.end(), value) == choices.end())
    {
        refuse(fmt::format("\"{}\" must be {}", name, fmt::join(choices, " or ")));
    }
    return value;
}

/// @return the key in a file that has nothing else
std::string readKey(const std::string& name, const std::string& path)
{
    constexpr std::size_t size = 32;
    std::ifstream file(path, std::ios::binary);
    std::string key(size + 1, '\0');
    file.read(key.data(), size + 1);
    key.resize(static_cast<std::size_t>(file.gcount()));
    if (key.size() != size)
    {
        refuse(fmt::format("\"{}\" must name a file of exactly {} bytes that can be read", name, size));
    }
    return key;
}

/// Decode a part of a URL. It is not form data: a "+" in a path is a plus.
std::string decoded(std::string text)
{
    boost::algorithm::replace_all(text, "+", "%2B");
    return uriDecode(text);
}

std::map<std::string, std::string> readParameters(std::string_view query)
{
    std::map<std::string, std::string> parameters;
    std::vector<std::string> pairs;
    boost::algorithm::split(pairs, query, boost::algorithm::is_any_of("&"));
    for (const std::string& pair : pairs)
    {
        const std::size_t equals = pair.find('=');
        if (pair.empty())
        {
            continue;
        }
        const std::string value = equals == std::string::npos ? "" : decoded(pair.substr(equals + 1));
        if (!parameters.emplace(pair.substr(0, equals), value).second)
        {
            refuse("\"" + pair.substr(0, equals) + "\" is given twice");
        }
    }
    return parameters;
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
    constexpr std::string_view scheme = "s3://";
    if (!url.starts_with(scheme))
    {
        refuse("not an s3:// URL");
    }
    const std::size_t question = url.find('?');
    S3Settings settings;
    const std::string place =
        url.substr(scheme.size(), question == std::string::npos ? question : question - scheme.size());
    if (place.find('@') != std::string::npos) // also behind the first "/", which may be part of a secret
    {
        refuse("credentials must not be part of a store's URL; write \"@\" in a prefix as %40");
    }
    std::size_t slash = place.find('/');
    if (place.starts_with("arn:") && slash != std::string::npos)
    {
        slash = place.find('/', slash + 1); // the first one is in the access point's name
    }
    settings.bucket = place.substr(0, slash);
    if (slash < place.size() - 1)
    {
        settings.prefix = decoded(place.substr(slash + 1));
        settings.prefix += settings.prefix.ends_with('/') ? "" : "/";
        checkKey(settings.prefix);
    }
    bool anonymous = false;
    const std::map<std::string_view, std::function<void(const std::string& name, const std::string& value)>> known{
        {"endpoint", [&](const auto&, const auto& value) { settings.endpoint = value; }},
        {"region", [&](const auto&, const auto& value) { settings.region = value; }},
        {"path-style", [&](const auto& name, const auto& value) { settings.pathStyle = readFlag(name, value); }},
        {"transfers",
            [&](const auto& name, const auto& value) { settings.transfers = readNumber(name, value, 1, 64); }},
        {"memory",
            [&](const auto& name, const auto& value) { settings.memory = readNumber(name, value, 0, 1ULL << 40U); }},
        {"part-size", [&](const auto& name, const auto& value)
            { settings.partSize = readNumber(name, value, 64 << 10, 1 << 30); }},
        {"profile", [&](const auto&, const auto& value) { settings.profile = value; }},
        {"request-payer", [&](const auto& name, const auto& value)
            { settings.objects.requesterPays = !readChoice(name, value, {"requester"}).empty(); }},
        {"storage-class",
            [&](const auto& name, const auto& value) { settings.objects.storageClass = readField(name, value); }},
        {"sse",
            [&](const auto& name, const auto& value) {
                settings.objects.encryption = readChoice(name, value, {"AES256", "aws:kms", "aws:kms:dsse"});
            }},
        {"sse-key",
            [&](const auto& name, const auto& value) { settings.objects.encryptionKey = readField(name, value); }},
        {"sse-c-key-file",
            [&](const auto& name, const auto& value) { settings.objects.customerKey = readKey(name, value); }},
        {"anonymous", [&](const auto& name, const auto& value) { anonymous = readFlag(name, value); }},
        {"ca-file", [&](const auto&, const auto& value) { settings.authorities = value; }},
        {"conditional-copies", [&](const auto& name, const auto& value)
            { settings.capabilities.conditionalCopies = readFlag(name, value); }},
        {"conditional-completion", [&](const auto& name, const auto& value)
            { settings.capabilities.conditionalCompletion = readFlag(name, value); }},
        {"conditional-writes", [&](const auto& name, const auto& value)
            { settings.capabilities.conditionalWrites = readFlag(name, value); }},
        {"copies-any-key",
            [&](const auto& name, const auto& value) { settings.capabilities.copiesAnyKey = readFlag(name, value); }},
        {"equal-parts",
            [&](const auto& name, const auto& value) { settings.capabilities.equalParts = readFlag(name, value); }}};
    if (question != std::string::npos)
    {
        for (const auto& [name, value] : readParameters(std::string_view(url).substr(question + 1)))
        {
            const auto parameter = known.find(name);
            if (parameter == known.end())
            {
                refuse("unknown parameter \"" + name + "\"");
            }
            parameter->second(name, value);
        }
    }
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
