#pragma once

/// What the provider logs, and what of it the user sees.
namespace cloudfs::diagnostics
{

/// Take the log records of this process.
///
/// @param verbose  print every record on standard error, entry and tracing records included; otherwise only the
///                 warnings, such as a temporary file that could not be deleted
void install(bool verbose);

} // namespace cloudfs::diagnostics
