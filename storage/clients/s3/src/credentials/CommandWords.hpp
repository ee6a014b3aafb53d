#pragma once

#include <optional>
#include <string>
#include <vector>

namespace storage::clients::s3
{

/// Split a command line into words as a shell does: at blanks, with single and double quotes and backslashes. Nothing
/// is expanded.
///
/// @return nothing when a quote is not closed or nothing follows a backslash
std::optional<std::vector<std::string>> splitWords(const std::string& line);

} // namespace storage::clients::s3
