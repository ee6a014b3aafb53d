#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace storage::clients
{

/// Percent-encode every byte except letters, digits, "-", ".", "_" and "~". Signatures require exactly this form.
std::string uriEncode(std::string_view text);

/// The same for a key in a path, where "/" is not encoded.
std::string uriEncodePath(std::string_view key);

/// Decode percent-encoding and "+" for a blank, which listings may contain. Invalid escapes are left unchanged.
std::string uriDecode(std::string_view text);

/// Names and values, not encoded.
using QueryParameters = std::vector<std::pair<std::string, std::string>>;

/// "name=value&…", encoded, in the order that signing requires.
std::string encodeQuery(const QueryParameters& parameters);

} // namespace storage::clients
