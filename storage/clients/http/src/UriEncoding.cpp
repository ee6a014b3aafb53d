#include <storage/clients/http/UriEncoding.hpp>

#include <storage/clients/http/Hashing.hpp>

#include <algorithm>

namespace storage::clients
{

namespace
{

bool needsNoEncoding(char c, bool inPath)
{
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '.' ||
           c == '_' || c == '~' || (inPath && c == '/');
}

std::string encode(std::string_view text, bool inPath)
{
    constexpr std::string_view digits = "0123456789ABCDEF";
    std::string encoded;
    encoded.reserve(text.size());
    for (const char c : text)
    {
        if (needsNoEncoding(c, inPath))
        {
            encoded += c;
            continue;
        }
        const auto byte = static_cast<unsigned char>(c);
        encoded += {'%', digits[byte >> 4U], digits[byte & 15U]};
    }
    return encoded;
}

} // namespace

std::string uriEncode(std::string_view text)
{
    return encode(text, false);
}

std::string uriEncodePath(std::string_view key)
{
    return encode(key, true);
}

std::string uriDecode(std::string_view text)
{
    std::string decoded;
    decoded.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i)
    {
        const std::string byte = text[i] == '%' ? fromHex(text.substr(i + 1, 2)) : std::string();
        if (byte.size() == 1)
        {
            decoded += byte;
            i += 2;
            continue;
        }
        decoded += text[i] == '+' ? ' ' : text[i];
    }
    return decoded;
}

std::string encodeQuery(const QueryParameters& parameters)
{
    QueryParameters pairs;
    pairs.reserve(parameters.size());
    for (const auto& [name, value] : parameters)
    {
        pairs.emplace_back(uriEncode(name), uriEncode(value));
    }
    std::sort(pairs.begin(), pairs.end());
    std::string query;
    for (const auto& [name, value] : pairs)
    {
        query += query.empty() ? "" : "&";
        query += name;
        query += '=';
        query += value;
    }
    return query;
}

} // namespace storage::clients
