#include <storage/clients/credentials/JsonDocument.hpp>

#include <storage/clients/credentials/CredentialsFailure.hpp>

#define BOOST_BIND_GLOBAL_PLACEHOLDERS // json_parser.hpp still uses them, and Boost.Bind says so at every compilation
#include <boost/property_tree/json_parser.hpp>

#include <algorithm>
#include <cstddef>
#include <sstream>

namespace storage::clients
{

namespace
{

constexpr std::size_t maxDepth = 100; // documents with credentials have less than ten

/// How deep objects and arrays are nested.
std::size_t depthOf(const std::string& text)
{
    std::size_t depth = 0;
    std::size_t deepest = 0;
    bool isInString = false;
    for (std::size_t i = 0; i < text.size(); ++i)
    {
        const char letter = text[i];
        if (letter == '\\')
        {
            ++i; // a quote after it does not end the string
        }
        else if (letter == '"')
        {
            isInString = !isInString;
        }
        else if (!isInString && (letter == '[' || letter == '{'))
        {
            deepest = std::max(deepest, ++depth);
        }
        else if (!isInString && (letter == ']' || letter == '}') && depth > 0)
        {
            --depth;
        }
    }
    return deepest;
}

} // namespace

JsonDocument parseJson(const std::string& text)
{
    // The parser calls itself for each level, so that a long row of brackets would overflow the stack.
    if (depthOf(text) > maxDepth)
    {
        throw CredentialsDocumentError("it has too many brackets");
    }
    JsonDocument document;
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

std::string textOf(const JsonDocument& document, const char* path)
{
    return document.get<std::string>(path, "");
}

std::string toText(const JsonDocument& document)
{
    std::ostringstream stream;
    boost::property_tree::write_json(stream, document, false);
    return stream.str();
}

} // namespace storage::clients
