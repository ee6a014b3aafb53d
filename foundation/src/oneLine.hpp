#pragma once

#include <algorithm>
#include <string>

namespace foundation
{

/// Replace every ASCII control character, line breaks included, by a space: a store's error detail may be a whole
/// document, and controls could change what a terminal shows.
inline std::string onOneLine(std::string text)
{
    std::replace_if(
        text.begin(), text.end(), [](unsigned char c) { return c < 0x20 || c == 0x7f; }, ' ');
    return text;
}

} // namespace foundation
