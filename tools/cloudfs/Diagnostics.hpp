#pragma once

#include <string_view>

/// What the program prints on standard error.
namespace cloudfs::diagnostics
{

/// Print the line "cloudfs: TEXT". Any thread may call this; lines do not mix.
///
/// A failure is ignored, because there is no other place to report it.
void printLine(std::string_view text);

/// Print text without a line break. A failure is ignored.
void print(std::string_view text) noexcept;

/// Receive the log records of this process. Call once, before the first store is opened.
///
/// @param verbose  true: print every record on standard error, entry and tracing records included; false: print only
///                 warnings, such as a temporary file that could not be deleted
void install(bool verbose);

} // namespace cloudfs::diagnostics
