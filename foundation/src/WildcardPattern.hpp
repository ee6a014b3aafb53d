#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace foundation::storage::provider
{

/// A glob over one name, as IProvider's wildcard listings describe it. Immutable once built.
class WildcardPattern
{
public:
    explicit WildcardPattern(std::u16string_view pattern);

    /// Tell whether the pattern matches the whole of `name`. Time: at worst pattern times name.
    bool matches(std::u16string_view name) const;

private:
    using Range = std::pair<char32_t, char32_t>; // both ends included

    /// Matches one character: one inside of the ranges, or one outside of them if negated. Or any run of characters.
    struct Token
    {
        bool isRun = false;
        bool negated = false;
        std::vector<Range> ranges;

        bool matches(char32_t character) const;
    };

    std::vector<Token> m_tokens;
};

} // namespace foundation::storage::provider
