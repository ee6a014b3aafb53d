#pragma once

#include <foundation/Export.hpp>

#include <string>
#include <string_view>

/// Strict conversion of text: ill-formed text is an error and is never repaired, replaced or truncated. Any thread may
/// call these functions.
namespace fl::i18n
{

/// Convert UTF-8 to UTF-16.
///
/// @throws std::range_error if `text` is ill-formed: overlong, truncated or stray bytes, surrogates, or a code point
///         above U+10FFFF
FOUNDATION_EXPORT std::u16string utf8_to_ustring(std::string_view text);

/// Convert UTF-16 to UTF-8.
///
/// @throws std::range_error if `text` contains an unpaired surrogate
FOUNDATION_EXPORT std::string ustring_to_utf8(std::u16string_view text);

/// The same as ustring_to_utf8: narrow text is UTF-8 everywhere in this framework.
FOUNDATION_EXPORT std::string to_string(std::u16string_view text);

/// Get the value of an environment variable, or an empty string if it is not set.
///
/// As with std::getenv, no other thread may change the environment at the same time.
/// @throws std::range_error if the value is not UTF-8
FOUNDATION_EXPORT std::u16string getenv(const std::string& name);

} // namespace fl::i18n
