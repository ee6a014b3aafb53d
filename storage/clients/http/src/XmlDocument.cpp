#include <storage/clients/http/XmlDocument.hpp>

#include <storage/clients/http/HttpFailure.hpp>
#include <storage/clients/http/ResponseFields.hpp>
#include <storage/clients/http/Times.hpp>

#include <fmt/format.h>

#include <sstream>
#include <string_view>

namespace storage::clients
{

std::string textOf(const pugi::xml_node& parent, const char* name)
{
    return parent.child(name).text().as_string();
}

std::string requiredText(const pugi::xml_node& parent, const char* name)
{
    std::string text = textOf(parent, name);
    if (text.empty())
    {
        throw MalformedResponse(std::string("the response lacks ") + name);
    }
    return text;
}

std::uint64_t requiredNumber(const pugi::xml_node& parent, const char* name)
{
    const auto number = readNumber(requiredText(parent, name));
    if (!number)
    {
        throw MalformedResponse(std::string(name) + " in the response is not a number");
    }
    return *number;
}

boost::posix_time::ptime requiredTime(const pugi::xml_node& parent, const char* name)
{
    const auto time = readIsoTime(requiredText(parent, name));
    if (time.is_special())
    {
        throw MalformedResponse(std::string(name) + " in the response is not a time");
    }
    return time;
}

std::string textOf(const pugi::xml_document& document)
{
    std::ostringstream out;
    document.save(out, "", pugi::format_raw);
    return std::move(out).str();
}

XmlDocument::XmlDocument(const std::string& text)
    // Keys may consist of blanks, and ends of lines in keys must not be normalised.
    : m_isComplete(m_document.load_buffer(
          text.data(), text.size(), (pugi::parse_default | pugi::parse_ws_pcdata_single) & ~pugi::parse_eol))
{
}

void XmlDocument::requireRoot(const char* name, const char* action) const
{
    if (std::string_view(root().name()) != name)
    {
        throw MalformedResponse(fmt::format("the response is not a {} document: either the store does not support {}, "
                                            "or a proxy has responded for it",
            name, action));
    }
    if (!m_isComplete)
    {
        throw HttpFailure(HttpFailure::Kind::Broken, fmt::format("the {} document in the response is truncated", name));
    }
}

} // namespace storage::clients
