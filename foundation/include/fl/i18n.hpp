#pragma once

#include <foundation/Export.hpp>

#include <string>
#include <string_view>

/// Strict conversion of text. "Strict" means: no text is ever repaired, replaced or cut. Stateless; any thread.
namespace fl::i18n
{

/// Convert UTF-8 to UTF-16.
///
/// @throws std::range_error if `text` is ill-formed: overlong, truncated or stray bytes, surrogates, beyond U+10FFFF
FOUNDATION_EXPORT std::u16string utf8_to_ustring(std::string_view text);

/// Convert UTF-16 to UTF-8.
///
/// @throws std::range_error if a surrogate in `text` is unpaired
FOUNDATION_EXPORT std::string ustring_to_utf8(std::u16string_view text);

/// The same as ustring_to_utf8: narrow text is UTF-8 everywhere in this framework.
FOUNDATION_EXPORT std::string to_string(std::u16string_view text);

/// Read a variable of the environment. Empty if it is not set.
///
/// The environment must not be changed meanwhile, as for std::getenv.
/// @throws std::range_error if the value is not UTF-8
FOUNDATION_EXPORT std::u16string getenv(const std::string& name);

} // namespace fl::i18n
