#pragma once

#include <boost/property_tree/ptree.hpp>

#include <string>

namespace storage::clients
{

/// The values of a JSON document as text; null is "null".
using JsonDocument = boost::property_tree::ptree;

/// @throws CredentialsDocumentError when the text is not JSON
JsonDocument parseJson(const std::string& text);

/// The value with this path, whose names are separated by "."; empty when there is none.
std::string textOf(const JsonDocument& document, const char* path);

/// The document on one line. All values are written as text.
std::string toText(const JsonDocument& document);

} // namespace storage::clients
