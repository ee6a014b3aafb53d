#include "CredentialsDocument.hpp"

#define BOOST_BIND_GLOBAL_PLACEHOLDERS // json_parser.hpp still uses them, and Boost.Bind says so at every compilation
#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>

#include <pugixml.hpp>

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string_view>
#include <utility>

namespace storage::clients::s3
{

namespace
{

using Document = boost::property_tree::ptree;

constexpr std::ptrdiff_t maxBrackets = 100; // a document with credentials has one

CredentialsDocumentError badExpiry()
{
    return CredentialsDocumentError("its expiry is not a time");
}

/// Parse and remove digits, and the mark that follows them, at the front of the text.
int takeNumber(std::string_view& text, std::size_t digits, std::string_view marks)
{
    int number = -1;
    if (text.size() < digits ||
        std::from_chars(text.data(), text.data() + digits, number).ptr != text.data() + digits || number < 0)
    {
        throw badExpiry();
    }
    text.remove_prefix(digits);
    if (!marks.empty())
    {
        if (text.empty() || marks.find(text.front()) == marks.npos)
        {
            throw badExpiry();
        }
        text.remove_prefix(1);
    }
    return number;
}

/// Parse a time of RFC 3339, such as "2024-05-01T12:34:56Z". Fractions of a second are dropped.
std::chrono::sys_seconds readTime(std::string_view text)
{
    using namespace std::chrono;
    const year y{takeNumber(text, 4, "-")};
    const month m{static_cast<unsigned>(takeNumber(text, 2, "-"))};
    const day d{static_cast<unsigned>(takeNumber(text, 2, "Tt "))};
    const hours hour{takeNumber(text, 2, ":")};
    const minutes minute{takeNumber(text, 2, ":")};
    const seconds second{takeNumber(text, 2, "")};
    if (text.starts_with('.'))
    {
        text.remove_prefix(std::min(text.find_first_not_of("0123456789", 1), text.size()));
    }
    minutes offset{0};
    if (text.starts_with('+') || text.starts_with('-'))
    {
        const int sign = text.front() == '-' ? -1 : 1;
        text.remove_prefix(1);
        const hours offsetHours{takeNumber(text, 2, ":")};
        offset = sign * (offsetHours + minutes{takeNumber(text, 2, "")});
    }
    else if (text.starts_with('Z') || text.starts_with('z'))
    {
        text.remove_prefix(1);
    }
    else
    {
        throw badExpiry();
    }
    const year_month_day date{y, m, d};
    if (!date.ok() || hour > 23h || minute > 59min || second > 60s || !text.empty())
    {
        throw badExpiry();
    }
    return sys_days(date) + hour + minute + second - offset;
}

/// Parse a number of milliseconds since 1970.
std::chrono::sys_seconds readMilliseconds(const std::string& text)
{
    std::int64_t number = 0;
    if (std::from_chars(text.data(), text.data() + text.size(), number).ptr != text.data() + text.size())
    {
        throw badExpiry();
    }
    return std::chrono::sys_seconds(std::chrono::floor<std::chrono::seconds>(std::chrono::milliseconds(number)));
}

Document parse(const std::string& text)
{
    // The parser calls itself for each bracket, so that a long row of them would overflow the stack.
    if (std::count_if(text.begin(), text.end(), [](char c) { return c == '[' || c == '{'; }) > maxBrackets)
    {
        throw CredentialsDocumentError("it has too many brackets");
    }
    Document document;
    try
    {
        std::istringstream stream(text);
        boost::property_tree::read_json(stream, document);
    }
    catch (const boost::property_tree::json_parser_error&)
    {
        throw CredentialsDocumentError("it is not JSON");
    }
    return document;
}

IssuedCredentials issued(Credentials credentials)
{
    if (credentials.keyId.empty() || credentials.secret.empty())
    {
        throw CredentialsDocumentError("it has no keys");
    }
    return {std::move(credentials)};
}

/// The keys in a document whose names differ in that of the token.
IssuedCredentials readKeys(const Document& document, const char* token)
{
    IssuedCredentials result = issued({document.get<std::string>("AccessKeyId", ""),
        document.get<std::string>("SecretAccessKey", ""), document.get<std::string>(token, "")});
    if (const auto expiry = document.get_optional<std::string>("Expiration"))
    {
        result.expiry = readTime(*expiry);
    }
    return result;
}

} // namespace

IssuedCredentials readCredentialsDocument(const std::string& text)
{
    const Document document = parse(text);
    if (const auto code = document.get<std::string>("Code", "Success"); code != "Success")
    {
        throw CredentialsDocumentError("it reports " + code);
    }
    return readKeys(document, "Token");
}

IssuedCredentials readPrintedCredentials(const std::string& text)
{
    const Document document = parse(text);
    if (document.get<std::string>("Version", "") != "1")
    {
        throw CredentialsDocumentError("its Version is not 1");
    }
    return readKeys(document, "SessionToken");
}

IssuedCredentials readPortalCredentials(const std::string& text)
{
    const Document document = parse(text).get_child("roleCredentials", Document());
    IssuedCredentials result = issued({document.get<std::string>("accessKeyId", ""),
        document.get<std::string>("secretAccessKey", ""), document.get<std::string>("sessionToken", "")});
    if (const auto expiry = document.get_optional<std::string>("expiration"))
    {
        result.expiry = readMilliseconds(*expiry);
    }
    return result;
}

IssuedCredentials readAssumedRole(const std::string& text)
{
    pugi::xml_document document;
    if (!document.load_buffer(text.data(), text.size()))
    {
        throw CredentialsDocumentError("it is not XML");
    }
    const auto textOf = [found = document.document_element().first_child().child("Credentials")](const char* name)
    { return std::string(found.child(name).text().as_string()); };
    IssuedCredentials result = issued({textOf("AccessKeyId"), textOf("SecretAccessKey"), textOf("SessionToken")});
    result.expiry = readTime(textOf("Expiration"));
    return result;
}

std::string readLogin(const std::string& text)
{
    std::string token = parse(text).get<std::string>("accessToken", "");
    if (token.empty())
    {
        throw CredentialsDocumentError("it has no accessToken");
    }
    return token;
}

} // namespace storage::clients::s3
