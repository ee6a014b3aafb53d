#pragma once

#include <cstddef>
#include <string>

namespace storage::clients
{

/// Maximum length of a key in bytes; the limit of S3. An object with a longer key could not be moved to another store.
constexpr std::size_t maxKeyBytes = 1024;

/// Check that an object may be stored under the key.
///
/// Refused are: the empty key, a key of more than maxKeyBytes, text that is not UTF-8 (including overlong forms and
/// surrogates), and characters that XML cannot contain, because an S3 store could store such an object but never list
/// it: the control characters below U+0020 except tab, line feed and carriage return, and U+FFFE and U+FFFF. Everything
/// else is accepted, including blanks, quotes and "." segments: the provider decides what a path means.
///
/// Call this only where an object or an upload is created. A lookup or removal does not check its key: an object with
/// such a key does not exist, and that is not an error.
/// @throws InvalidLocationException whose detail contains the key and the reason
void checkKey(const std::string& key);

/// Check a file name, which is the last segment of a key. Refused are: what checkKey() refuses, a name that contains
/// "/", and "." and "..", which in a path refer to other folders.
///
/// @throws InvalidLocationException whose detail contains the name and the reason
void checkObjectName(const std::string& name);

/// The key for a message: in double quotes, with control characters and bytes that are not UTF-8 as \xHH, and cut off
/// after 200 bytes.
std::string quoted(const std::string& key);

} // namespace storage::clients
