#include "CredentialsDocument.hpp"

#include <storage/clients/credentials/JsonDocument.hpp>

#include <fmt/chrono.h>
#include <pugixml.hpp>

#include <charconv>
#include <cstdint>
#include <cstring>
#include <utility>

namespace storage::clients::s3
{

namespace
{

/// Parse milliseconds since 1970, or a time of RFC 3339 such as "2024-05-01T12:34:56Z". Fractions of a second are
/// dropped.
std::chrono::sys_seconds readTime(const std::string& text)
{
    using namespace std::chrono;
    std::int64_t number = 0;
    const char* const end = text.data() + text.size();
    if (const auto [rest, error] = std::from_chars(text.data(), end, number); error == std::errc() && rest == end)
    {
        return floor<seconds>(sys_time<milliseconds>(milliseconds(number)));
    }
    std::tm time{};
    const char* rest = ::strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &time);
    if (rest != nullptr && *rest == '.')
    {
        rest += 1 + std::strspn(rest + 1, "0123456789");
    }
    rest = rest == nullptr ? nullptr : ::strptime(rest, "%z", &time);
    const seconds offset(time.tm_gmtoff);
    const int day = time.tm_mday;
    const sys_seconds result(seconds(::timegm(&time)) - offset);
    if (rest != end || time.tm_mday != day) // timegm() turns the 30th of February into the 1st of March
    {
        throw CredentialsDocumentError("its expiry is not a time");
    }
    return result;
}

IssuedCredentials issued(Credentials credentials, const boost::optional<std::string>& expiry)
{
    if (credentials.keyId.empty() || credentials.secret.empty())
    {
        throw CredentialsDocumentError("it has no keys");
    }
    IssuedCredentials result{std::move(credentials)};
    if (expiry)
    {
        result.expiry = readTime(*expiry);
    }
    return result;
}

/// The keys in a document whose names differ in that of the token.
IssuedCredentials readKeys(const JsonDocument& document, const char* token)
{
    return issued({textOf(document, "AccessKeyId"), textOf(document, "SecretAccessKey"), textOf(document, token)},
        document.get_optional<std::string>("Expiration"));
}

std::string requireToken(const JsonDocument& document)
{
    std::string token = textOf(document, "accessToken");
    if (token.empty())
    {
        throw CredentialsDocumentError("it has no accessToken");
    }
    return token;
}

} // namespace

IssuedCredentials readCredentialsDocument(const std::string& text)
{
    const JsonDocument document = parseJson(text);
    if (const auto code = document.get<std::string>("Code", "Success"); code != "Success")
    {
        throw CredentialsDocumentError("it reports " + code);
    }
    return readKeys(document, "Token");
}

IssuedCredentials readPrintedCredentials(const std::string& text)
{
    const JsonDocument document = parseJson(text);
    if (textOf(document, "Version") != "1")
    {
        throw CredentialsDocumentError("its Version is not 1");
    }
    return readKeys(document, "SessionToken");
}

IssuedCredentials readPortalCredentials(const std::string& text)
{
    const JsonDocument document = parseJson(text).get_child("roleCredentials", JsonDocument());
    return issued(
        {textOf(document, "accessKeyId"), textOf(document, "secretAccessKey"), textOf(document, "sessionToken")},
        document.get_optional<std::string>("expiration"));
}

IssuedCredentials readAssumedRole(const std::string& text)
{
    pugi::xml_document document;
    if (!document.load_buffer(text.data(), text.size()))
    {
        throw CredentialsDocumentError("it is not XML");
    }
    const auto child = [found = document.document_element().first_child().child("Credentials")](const char* name)
    { return std::string(found.child(name).text().as_string()); };
    return issued({child("AccessKeyId"), child("SecretAccessKey"), child("SessionToken")}, child("Expiration"));
}

std::string readLogin(const std::string& text)
{
    return requireToken(parseJson(text));
}

std::optional<std::string> renewalRequest(const std::string& text)
{
    const JsonDocument login = parseJson(text);
    JsonDocument request;
    request.put("grantType", "refresh_token");
    for (const char* name : {"clientId", "clientSecret", "refreshToken"})
    {
        const std::string value = textOf(login, name);
        if (value.empty())
        {
            return std::nullopt;
        }
        request.put(name, value);
    }
    return toText(request);
}

std::string renewedLogin(const std::string& text, const std::string& response, std::time_t now)
{
    JsonDocument login = parseJson(text);
    const JsonDocument renewed = parseJson(response);
    login.put("accessToken", requireToken(renewed));
    login.put("expiresAt", fmt::format("{:%FT%TZ}", fmt::gmtime(now + renewed.get<std::time_t>("expiresIn", 0))));
    // Without a new one, the old one stays valid.
    login.put("refreshToken", renewed.get<std::string>("refreshToken", textOf(login, "refreshToken")));
    return toText(login);
}

} // namespace storage::clients::s3
