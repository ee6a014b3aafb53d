#include <storage/clients/remote/StoreUrl.hpp>

#include <storage/clients/common/KeyRules.hpp>
#include <storage/clients/http/ResponseFields.hpp>
#include <storage/clients/http/UriEncoding.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>

#include <boost/algorithm/string/case_conv.hpp>
#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/replace.hpp>
#include <boost/algorithm/string/split.hpp>
#include <boost/algorithm/string/trim.hpp>

#include <fmt/format.h>

#include <regex>
#include <set>
#include <stdexcept>
#include <vector>

namespace storage::clients
{

namespace
{

/// Decode a part of a URL. It is not form data: a "+" in a path is a plus.
std::string decoded(std::string text)
{
    boost::algorithm::replace_all(text, "+", "%2B");
    return uriDecode(text);
}

} // namespace

StoreUrl::StoreUrl(const std::string& url, const std::string& scheme, const char* form)
    : m_form(form)
{
    const std::string start = scheme + "://";
    if (!url.starts_with(start))
    {
        refuse("not an " + start + " URL");
    }
    const std::size_t question = url.find('?');
    m_place = url.substr(start.size(), question == std::string::npos ? question : question - start.size());
    m_query = question == std::string::npos ? "" : url.substr(question + 1);
    if (m_place.find('@') != std::string::npos) // also behind the first "/", which may be part of a secret
    {
        refuse("credentials must not be part of a store's URL; write \"@\" in a prefix as %40");
    }
}

std::string StoreUrl::prefixAfter(std::size_t slash) const
{
    if (slash >= m_place.size() - 1)
    {
        return {};
    }
    std::string prefix = decoded(m_place.substr(slash + 1));
    prefix += prefix.ends_with('/') ? "" : "/";
    checkKey(prefix);
    return prefix;
}

void StoreUrl::read(const Readers& readers) const
{
    std::set<std::string> names;
    std::vector<std::string> pairs;
    boost::algorithm::split(pairs, m_query, boost::algorithm::is_any_of("&"));
    std::erase(pairs, "");
    for (const std::string& pair : pairs)
    {
        const std::size_t equals = pair.find('=');
        const std::string name = pair.substr(0, equals);
        const auto reader = readers.find(name);
        if (reader == readers.end())
        {
            // Anything else may be a secret.
            const bool isName = !name.empty() && name.find_first_not_of("abcdefghijklmnopqrstuvwxyz-") == name.npos;
            refuse(isName ? "unknown parameter \"" + name + "\"" : "unknown parameter");
        }
        if (!names.insert(name).second)
        {
            refuse("\"" + name + "\" is given twice");
        }
        try
        {
            reader->second(equals == std::string::npos ? "" : decoded(pair.substr(equals + 1)));
        }
        catch (const std::invalid_argument& wrong)
        {
            refuse("\"" + name + "\" " + wrong.what());
        }
    }
}

void StoreUrl::refuse(const std::string& reason) const
{
    throw cloudprovider::InvalidLocationException("Invalid store", reason + "; the form is " + m_form);
}

std::optional<Endpoint> readEndpoint(const std::string& url)
{
    constexpr std::size_t maxSize = 2'000; // characters; for long texts, matching needs more stack than there is
    // A path of these characters has only one encoded form, so client and store compute the same signature.
    static const std::regex form(
        R"((https?)://([a-z0-9.-]+|\[[0-9a-f:.]+\])(:\d{1,5})?(/([a-z0-9._~/-]|%[0-9a-f]{2})*)?)", std::regex::icase);
    std::smatch match;
    if (url.size() > maxSize || !std::regex_match(url, match, form))
    {
        return std::nullopt;
    }
    Endpoint endpoint{boost::algorithm::to_lower_copy(match.str(1)), boost::algorithm::to_lower_copy(match.str(2)),
        boost::algorithm::trim_right_copy_if(match.str(4), boost::algorithm::is_any_of("/"))};
    if (match.str(3) != (endpoint.scheme == "https" ? ":443" : ":80"))
    {
        endpoint.host += match.str(3);
    }
    return endpoint;
}

std::string readFolder(const std::string& value)
{
    if (value.empty())
    {
        throw std::invalid_argument("must name a folder");
    }
    return value;
}

bool readFlag(const std::string& value)
{
    if (value != "0" && value != "1")
    {
        throw std::invalid_argument("must be 0 or 1");
    }
    return value == "1";
}

std::uint64_t readNumber(const std::string& value, std::uint64_t min, std::uint64_t max)
{
    const auto number = readNumber(value);
    if (!number || *number < min || *number > max)
    {
        throw std::invalid_argument(fmt::format("must be a number from {} to {}", min, max));
    }
    return *number;
}

} // namespace storage::clients
