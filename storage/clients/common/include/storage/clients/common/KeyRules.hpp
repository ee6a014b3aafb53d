#pragma once

#include <cstddef>
#include <string>

namespace storage::clients
{

/// Bytes of the longest key, as in S3. A store that took longer ones could not be moved to another.
constexpr std::size_t maxKeyBytes = 1024;

/// Refuse a key under which nothing may be stored.
///
/// Refused are: the empty key, more than maxKeyBytes, text that is not UTF-8 (overlong forms and surrogates included),
/// and characters that an XML answer cannot carry, since such an object could be stored and never be listed: the
/// control characters below U+0020 other than tab, line feed and carriage return, and U+FFFE and U+FFFF.
/// Everything else is taken, blanks, quotes and "." segments too: what a path means is the provider's business.
///
/// Only operations that create something ask. A lookup under such a key finds nothing, and that is no failure of its
/// own.
/// @throws InvalidLocationException whose detail names the key and the reason
void checkKey(const std::string& key);

/// Refuse a file name, the last segment of a key: what checkKey() refuses, a name with "/" in it, and "." and "..",
/// which name another place wherever paths are written.
///
/// @throws InvalidLocationException whose detail names the name and the reason
void checkObjectName(const std::string& name);

/// The key as a message may show it: in double quotes, control characters and bytes that are not UTF-8 as \xHH, and
/// cut after 200 bytes.
std::string quoted(const std::string& key);

} // namespace storage::clients
