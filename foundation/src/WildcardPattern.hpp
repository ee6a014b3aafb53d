#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace foundation::storage::provider
{

/// A glob pattern for one name. IProvider describes the syntax at its listings. Immutable.
class WildcardPattern
{
public:
    explicit WildcardPattern(std::u16string_view pattern);

    /// Tell whether the pattern matches the whole `name`. Takes at most time proportional to the product of the
    /// lengths.
    bool matches(std::u16string_view name) const;

private:
    using Range = std::pair<char32_t, char32_t>; // both ends included

    /// Matches any run of characters, or one character that is in one of the ranges or, if negated, in none.
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
