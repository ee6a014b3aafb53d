#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace storage::clients::s3
{

/// Percent-encode every byte but letters, digits, "-", ".", "_" and "~". Signatures depend on this very form.
std::string uriEncode(std::string_view text);

/// The same for a key in a path, where "/" stays.
std::string uriEncodePath(std::string_view key);

/// Undo percent-encoding; "+" is a blank, as listings may write it. What is no escape stays as it is.
std::string uriDecode(std::string_view text);

/// Names and values, not encoded.
using QueryParameters = std::vector<std::pair<std::string, std::string>>;

/// "name=value&…", encoded, in the order that signing asks for.
std::string encodeQuery(const QueryParameters& parameters);

} // namespace storage::clients::s3
