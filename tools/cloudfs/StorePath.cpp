#include "StorePath.hpp"

#include "CommandError.hpp"

#include <fl/i18n.hpp>

#include <foundation/storage/provider/Exception.hpp>

#include <algorithm>
#include <cstddef>
#include <stdexcept>

namespace cloudfs
{

namespace
{

const std::string iriPrefix = "cloudfs://store";

/// Call `use` for every segment of the path, including empty ones.
template <typename Use>
void forEachSegment(std::string_view path, Use use)
{
    for (std::size_t begin = 0; begin <= path.size();)
    {
        const std::size_t end = std::min(path.find('/', begin), path.size());
        use(path.substr(begin, end - begin));
        begin = end + 1;
    }
}

std::string decodedPath(const std::string& argument)
{
    try
    {
        const fsp::StorageIRI iri = fsp::StorageIRI::fromUtf8(argument).getResolvedIRI();
        if (iri.getAuthority() != StorePath().iri().getAuthority())
        {
            throw CommandError(
                argument, "the address must begin with " + iriPrefix + "/", fsp::ErrorCode::InvalidLocation);
        }
        return fl::i18n::ustring_to_utf8(iri.getPath());
    }
    catch (const fsp::Exception& exception)
    {
        throw CommandError(
            argument, exception.errorCode().detail().value_or("malformed address"), exception.errorCode());
    }
}

} // namespace

StorePath::StorePath()
    : m_iri(fsp::StorageIRI::fromUtf8(iriPrefix + "/"))
    , m_text("/")
{
}

StorePath StorePath::parse(const std::string& argument)
{
    const bool isIri = argument.starts_with("cloudfs://");
    const std::string path = isIri ? decodedPath(argument) : argument;
    if (path.empty() && !isIri)
    {
        throw CommandError(argument, "the path is empty", fsp::ErrorCode::InvalidLocation);
    }
    StorePath result;
    forEachSegment(path,
        [&](std::string_view segment)
        {
            if (!segment.empty() && segment != ".")
            {
                result.append(segment, argument);
            }
        });
    result.m_namesFolder = result.isRoot() || path.ends_with('/') || path.ends_with("/.");
    return result;
}

StorePath StorePath::child(std::string_view name) const
{
    StorePath result(*this);
    const std::string whole = m_text + (isRoot() ? "" : "/") + std::string(name);
    forEachSegment(name, [&](std::string_view segment) { result.append(segment, whole); });
    result.m_namesFolder = false;
    return result;
}

StorePath StorePath::parent() const
{
    StorePath result;
    result.m_iri = m_iri.getParent();
    result.m_text = m_text.substr(0, std::max<std::size_t>(m_text.rfind('/'), 1));
    return result;
}

void StorePath::append(std::string_view segment, const std::string& argument)
{
    if (segment.empty())
    {
        throw CommandError(argument, "empty names are not supported", fsp::ErrorCode::InvalidLocation);
    }
    if (segment.ends_with('.'))
    {
        throw CommandError(argument,
            segment == ".." ? "\"..\" is not supported" : "names that end in a dot are not supported",
            fsp::ErrorCode::InvalidLocation);
    }
    try
    {
        m_iri = m_iri.getChild(fl::i18n::utf8_to_ustring(segment));
    }
    catch (const std::range_error&)
    {
        throw CommandError(argument, "the name is not valid UTF-8", fsp::ErrorCode::InvalidLocation);
    }
    m_text += isRoot() ? "" : "/";
    m_text += segment;
}

} // namespace cloudfs
