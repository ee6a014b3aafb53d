#include "CommandWords.hpp"

#include <utility>

namespace storage::clients::s3
{

std::optional<std::vector<std::string>> splitWords(const std::string& line)
{
    std::vector<std::string> words;
    std::string word;
    bool isInWord = false; // also while it is empty: "" is a word
    char quote = 0;
    for (std::size_t i = 0; i < line.size(); ++i)
    {
        const char letter = line[i];
        const bool isBlank = letter == ' ' || letter == '\t';
        if (quote == 0 && isBlank)
        {
            if (isInWord)
            {
                words.push_back(std::move(word));
                word.clear();
            }
            isInWord = false;
            continue;
        }
        isInWord = true;
        if (letter == '\\' && quote != '\'')
        {
            if (++i == line.size())
            {
                return std::nullopt;
            }
            // In double quotes, a backslash before another character is an ordinary one.
            word += quote != 0 && line[i] != '"' && line[i] != '\\' ? "\\" : "";
            word += line[i];
        }
        else if (letter == quote)
        {
            quote = 0;
        }
        else if (quote == 0 && (letter == '"' || letter == '\''))
        {
            quote = letter;
        }
        else
        {
            word += letter;
        }
    }
    if (quote != 0)
    {
        return std::nullopt;
    }
    if (isInWord)
    {
        words.push_back(std::move(word));
    }
    return words;
}

} // namespace storage::clients::s3
