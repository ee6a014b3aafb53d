#pragma once

/// The provider's log records, and which of them the user sees.
namespace cloudfs::diagnostics
{

/// Receive the log records of this process. Call once, before the first store is opened.
///
/// @param verbose  true: print every record on standard error, entry and tracing records included; false: print only
///                 warnings, such as a temporary file that could not be deleted
void install(bool verbose);

} // namespace cloudfs::diagnostics
