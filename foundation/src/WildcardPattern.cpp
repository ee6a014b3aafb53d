#include "WildcardPattern.hpp"

#include <algorithm>
#include <cstddef>

namespace foundation::storage::provider
{

namespace
{

/// Split into characters. An unpaired surrogate, which no valid name contains, counts as one.
std::u32string characters(std::u16string_view text)
{
    std::u32string result;
    for (std::size_t i = 0; i < text.size(); ++i)
    {
        const char32_t unit = text[i];
        const char32_t following = i + 1 < text.size() ? text[i + 1] : 0;
        const bool isPair = (unit & 0xfc00U) == 0xd800U && (following & 0xfc00U) == 0xdc00U;
        result += isPair ? 0x10000U + ((unit & 0x3ffU) << 10U) + (following & 0x3ffU) : unit;
        i += isPair ? 1 : 0;
    }
    return result;
}

/// Find the "]" that ends the set whose "[" is at `open`. A "]" at the start is part of the set.
std::size_t endOfSet(const std::u32string& pattern, std::size_t open)
{
    std::size_t first = open + 1;
    if (first < pattern.size() && (pattern[first] == U'!' || pattern[first] == U'^'))
    {
        ++first;
    }
    return pattern.find(U']', first + 1);
}

} // namespace

WildcardPattern::WildcardPattern(std::u16string_view text)
{
    const std::u32string pattern = characters(text);
    for (std::size_t i = 0; i < pattern.size(); ++i)
    {
        Token token;
        const std::size_t end = pattern[i] == U'[' ? endOfSet(pattern, i) : std::u32string::npos;
        if (pattern[i] == U'*')
        {
            token.isRun = true;
        }
        else if (pattern[i] == U'?')
        {
            token.negated = true; // not in an empty set, so any character
        }
        else if (end != std::u32string::npos)
        {
            ++i;
            token.negated = pattern[i] == U'!' || pattern[i] == U'^';
            for (i += token.negated ? 1 : 0; i < end; ++i)
            {
                const bool isRange = i + 2 < end && pattern[i + 1] == U'-';
                token.ranges.emplace_back(pattern[i], pattern[isRange ? i + 2 : i]);
                i += isRange ? 2 : 0;
            }
        }
        else
        {
            token.ranges.emplace_back(pattern[i], pattern[i]);
        }
        m_tokens.push_back(std::move(token));
    }
}

bool WildcardPattern::Token::matches(char32_t character) const
{
    const bool inside = std::any_of(ranges.begin(), ranges.end(),
        [character](const Range& range) { return range.first <= character && character <= range.second; });
    return inside != negated;
}

bool WildcardPattern::matches(std::u16string_view text) const
{
    const std::u32string name = characters(text);
    std::size_t token = 0;
    std::size_t at = 0;

    // If a token does not match, let the last run take one more character and continue behind it. Earlier runs need no
    // retry, because the tokens between two runs matched at the earliest possible place.
    std::size_t lastRun = m_tokens.size();
    std::size_t lastRunEnd = 0;
    while (at < name.size())
    {
        if (token < m_tokens.size() && m_tokens[token].isRun)
        {
            lastRun = token++;
            lastRunEnd = at;
        }
        else if (token < m_tokens.size() && m_tokens[token].matches(name[at]))
        {
            ++token;
            ++at;
        }
        else if (lastRun < m_tokens.size())
        {
            token = lastRun + 1;
            at = ++lastRunEnd;
        }
        else
        {
            return false;
        }
    }
    return std::all_of(m_tokens.begin() + static_cast<std::ptrdiff_t>(token), m_tokens.end(),
        [](const Token& rest) { return rest.isRun; });
}

} // namespace foundation::storage::provider
