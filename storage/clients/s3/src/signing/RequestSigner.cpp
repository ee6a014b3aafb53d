#include "RequestSigner.hpp"

#include <storage/clients/http/Hashing.hpp>

#include <boost/algorithm/string/case_conv.hpp>
#include <boost/algorithm/string/trim_all.hpp>

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <map>

namespace storage::clients::s3
{

namespace
{

constexpr std::string_view algorithm = "AWS4-HMAC-SHA256";

/// Fields by lower-case name, with runs of blanks reduced to one, as the protocol canonicalises them.
std::map<std::string, std::string> canonicalFields(const HttpRequest& request, const std::string& host)
{
    std::map<std::string, std::string> fields{{"host", host}};
    for (const HttpHeaders::Field& field : request.headers)
    {
        fields[boost::algorithm::to_lower_copy(field.name)] = boost::algorithm::trim_all_copy(field.value);
    }
    return fields;
}

std::string signingKey(const std::string& secret, const std::string& day, const SigningContext& context)
{
    const std::string dayKey = hmacSha256("AWS4" + secret, day);
    const std::string regionKey = hmacSha256(dayKey, context.region);
    return hmacSha256(hmacSha256(regionKey, context.service), "aws4_request");
}

} // namespace

void sign(HttpRequest& request, const SigningContext& context, const Credentials& credentials)
{
    request.headers.add("x-amz-content-sha256", context.payloadHash);
    if (credentials.isAnonymous())
    {
        return;
    }
    const std::tm utc = fmt::gmtime(context.time);
    const std::string time = fmt::format("{:%Y%m%dT%H%M%SZ}", utc);
    const std::string day = time.substr(0, 8);
    request.headers.add("x-amz-date", time);
    if (!credentials.sessionToken.empty())
    {
        request.headers.add("x-amz-security-token", credentials.sessionToken);
    }

    std::string fields;
    std::string names;
    for (const auto& [name, value] : canonicalFields(request, context.host))
    {
        fields += fmt::format("{}:{}\n", name, value);
        names += fmt::format("{}{}", names.empty() ? "" : ";", name);
    }
    const std::string canonical = fmt::format(
        "{}\n{}\n{}\n{}\n{}\n{}", request.method, context.path, context.query, fields, names, context.payloadHash);
    const std::string scope = fmt::format("{}/{}/{}/aws4_request", day, context.region, context.service);
    const std::string toSign = fmt::format("{}\n{}\n{}\n{}", algorithm, time, scope, sha256Hex(canonical));
    const std::string signature = toHex(hmacSha256(signingKey(credentials.secret, day, context), toSign));
    request.headers.add("Authorization", fmt::format("{} Credential={}/{},SignedHeaders={},Signature={}", algorithm,
                                             credentials.keyId, scope, names, signature));
}

} // namespace storage::clients::s3
