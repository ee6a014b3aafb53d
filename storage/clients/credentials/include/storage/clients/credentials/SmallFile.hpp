#pragma once

#include <cstddef>
#include <filesystem>
#include <string>

namespace storage::clients
{

/// Read a file that another program keeps up to date, such as one with a token.
///
/// @param role     why this file is read, for errors: which VARIABLE names
/// @param maxSize  in bytes; services accept no token that is larger than the default
/// @return its contents without blanks and line breaks at the end; never empty
/// @throws cloudprovider::InvalidCredentialsException when it cannot be read, is empty, or is too large
std::string readSmallFile(const std::filesystem::path& path, const std::string& role, std::size_t maxSize = 64 << 10);

/// Replace such a file at once. Only its owner can read the new one (mode 0600).
///
/// @throws std::exception when that fails; the old file remains
void replaceSmallFile(const std::filesystem::path& path, const std::string& text);

} // namespace storage::clients
