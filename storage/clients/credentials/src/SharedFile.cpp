#include <storage/clients/credentials/SharedFile.hpp>

#include <storage/clients/credentials/CredentialsFailure.hpp>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <string_view>
#include <system_error>

namespace storage::clients
{

namespace
{

constexpr std::string_view blanks = " \t\r";

std::string_view trimmed(std::string_view text)
{
    const std::size_t begin = text.find_first_not_of(blanks);
    return begin == text.npos ? std::string_view() : text.substr(begin, text.find_last_not_of(blanks) + 1 - begin);
}

bool isComment(std::string_view text)
{
    return text.starts_with('#') || text.starts_with(';');
}

std::string_view withoutComment(std::string_view value)
{
    for (std::size_t at = value.find_first_of(blanks); at != value.npos; at = value.find_first_of(blanks, at + 1))
    {
        if (isComment(value.substr(at + 1)))
        {
            return value.substr(0, at);
        }
    }
    return value;
}

std::string lowerCase(std::string_view text)
{
    std::string result(text);
    std::transform(result.begin(), result.end(), result.begin(),
        [](char letter) { return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter; });
    return result;
}

class Parser
{
public:
    explicit Parser(SharedFile::Kind kind)
        : m_kind(kind)
    {
    }

    /// @return what is wrong with the line; empty when nothing is
    std::string_view take(std::string_view line)
    {
        const std::string_view text = trimmed(line);
        if (text.empty() || isComment(text))
        {
            return {};
        }
        const std::size_t indent = line.find_first_not_of(blanks);
        if (indent > m_indent)
        {
            return takeNested(text);
        }
        return text.starts_with('[') ? takeSection(text) : takeSetting(text, indent);
    }

    SharedSections takeSections() { return std::move(m_sections); }

private:
    static constexpr std::size_t noSetting = std::string_view::npos; // no line can be indented deeper

    std::string_view takeSection(std::string_view text)
    {
        const std::size_t end = text.find(']');
        const std::string_view rest = end == text.npos ? text : trimmed(text.substr(end + 1));
        if (!rest.empty() && !isComment(rest))
        {
            return "a section must be written [NAME]";
        }
        m_settings = &m_sections[nameOf(trimmed(text.substr(1, end - 1)))];
        m_indent = noSetting;
        return {};
    }

    SharedSections::key_type nameOf(std::string_view section) const
    {
        if (m_kind == SharedFile::Kind::Profiles || section == "default")
        {
            return {"profile", std::string(section)};
        }
        const std::string_view kind = section.substr(0, section.find_first_of(blanks));
        return {std::string(kind), std::string(trimmed(section.substr(kind.size())))};
    }

    std::string_view takeSetting(std::string_view text, std::size_t indent)
    {
        const std::size_t sign = text.find('=');
        if (sign == text.npos || sign == 0)
        {
            return "expected [SECTION] or NAME = VALUE";
        }
        if (m_settings == nullptr)
        {
            return "a setting before the first section";
        }
        m_parent = lowerCase(trimmed(text.substr(0, sign)));
        m_indent = indent;
        keep(m_parent, text.substr(sign + 1));
        return {};
    }

    /// Lines of other forms continue a value. No setting that is used has such a value.
    std::string_view takeNested(std::string_view text)
    {
        if (text.starts_with('['))
        {
            // Ignored, it would add its settings to the section before: the keys of one profile to another.
            return "a section must not be indented deeper than the setting before it";
        }
        if (const std::size_t sign = text.find('='); sign != text.npos)
        {
            keep(m_parent + '.' + lowerCase(trimmed(text.substr(0, sign))), text.substr(sign + 1));
        }
        return {};
    }

    void keep(const std::string& name, std::string_view value)
    {
        m_settings->insert_or_assign(name, std::string(trimmed(withoutComment(value))));
    }

    const SharedFile::Kind m_kind;
    SharedSections m_sections;
    SharedSettings* m_settings = nullptr; // of the current section
    std::string m_parent;                 // the setting that deeper indented lines belong to
    std::size_t m_indent = noSetting;     // its indentation
};

[[noreturn]] void failReading(const SharedFile& file, int error)
{
    throw invalidCredentials(
        "reading " + file.path.string() + ": " + std::generic_category().message(error == 0 ? EIO : error));
}

} // namespace

SharedSections readSharedFile(const SharedFile& file)
{
    errno = 0;
    std::ifstream content(file.path, std::ios::binary);
    if (!content.is_open())
    {
        const int error = errno;
        if (error == ENOENT || error == ENOTDIR)
        {
            return {};
        }
        failReading(file, error);
    }
    Parser parser(file.kind);
    std::string line;
    for (std::size_t number = 1; std::getline(content, line); ++number)
    {
        if (const std::string_view fault = parser.take(line); !fault.empty())
        {
            throw invalidCredentials(
                file.path.string() + ", line " + std::to_string(number) + ": " + std::string(fault));
        }
    }
    if (content.bad())
    {
        failReading(file, errno);
    }
    return parser.takeSections();
}

} // namespace storage::clients
