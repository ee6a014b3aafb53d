#pragma once

#include <optional>
#include <string>

/// What the provider logs, and what of it the user sees.
namespace cloudfs::diagnostics
{

/// Take the log records of this process.
///
/// @param verbose  print every record on standard error, entry and tracing records included; otherwise only the
///                 warnings, such as a temporary file that could not be deleted
void install(bool verbose);

/// Return the text of the exception that the provider caught last on this thread, and forget it.
///
/// The framework's code for "anything else" travels without a detail, so for a full temporary directory, for example,
/// the record of the cause is the only one that tells.
std::optional<std::string> takeCaughtReason();

} // namespace cloudfs::diagnostics
