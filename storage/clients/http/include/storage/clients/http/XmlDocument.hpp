#pragma once

#include <boost/date_time/posix_time/ptime.hpp>

#include <pugixml.hpp>

#include <cstdint>
#include <stdexcept>
#include <string>

/// Documents in the responses and requests of object stores.
namespace storage::clients
{

/// A document that lacks something, or of another kind than requested.
class MalformedResponse : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

/// The text of a child; empty when there is no such child.
std::string textOf(const pugi::xml_node& parent, const char* name);

// Each of these throws MalformedResponse when there is no such child, or when it has no such value.
std::string requiredText(const pugi::xml_node& parent, const char* name);
std::uint64_t requiredNumber(const pugi::xml_node& parent, const char* name);
boost::posix_time::ptime requiredTime(const pugi::xml_node& parent, const char* name); ///< as readIsoTime()

/// A document as it is sent.
std::string textOf(const pugi::xml_document& document);

/// A document that was received. It may be truncated.
class XmlDocument
{
public:
    explicit XmlDocument(const std::string& text);

    /// Throw unless the document is complete and has this root.
    ///
    /// @param action  the store's name for the request
    /// @throws MalformedResponse for another root; HttpFailure for a document that is truncated
    void requireRoot(const char* name, const char* action) const;

    bool isComplete() const noexcept { return m_isComplete; }
    pugi::xml_node root() const { return m_document.document_element(); }

private:
    pugi::xml_document m_document;
    bool m_isComplete;
};

} // namespace storage::clients
