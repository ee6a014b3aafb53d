#include <storage/clients/common/KeyRules.hpp>

#include <storage/cloudprovider/CloudExceptions.hpp>

#include <fmt/format.h>

#include <cstdint>
#include <string_view>

namespace storage::clients
{

namespace
{

struct Character
{
    std::uint32_t codePoint = 0;
    std::size_t bytes = 0; // 0: the text does not begin with a valid character
};

Character firstCharacter(std::string_view text)
{
    const auto byteAt = [text](std::size_t i)
    { return static_cast<std::uint32_t>(static_cast<unsigned char>(text[i])); };
    const std::uint32_t lead = byteAt(0);
    if (lead < 0x80)
    {
        return {lead, 1};
    }
    const std::size_t bytes = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
    if (lead < 0xC0 || lead > 0xF4 || text.size() < bytes)
    {
        return {};
    }
    std::uint32_t codePoint = lead & (0x7FU >> bytes);
    for (std::size_t i = 1; i < bytes; ++i)
    {
        if ((byteAt(i) & 0xC0) != 0x80)
        {
            return {};
        }
        codePoint = codePoint << 6 | (byteAt(i) & 0x3F);
    }
    constexpr std::uint32_t minCodePoints[] = {0, 0, 0x80, 0x800, 0x10000}; // by length; lower ones are overlong forms
    const bool surrogate = codePoint >= 0xD800 && codePoint <= 0xDFFF;
    if (codePoint < minCodePoints[bytes] || surrogate || codePoint > 0x10FFFF)
    {
        return {};
    }
    return {codePoint, bytes};
}

bool fitsXml(std::uint32_t codePoint)
{
    return codePoint >= 0x20 ? codePoint != 0xFFFE && codePoint != 0xFFFF
                             : codePoint == '\t' || codePoint == '\n' || codePoint == '\r';
}

void check(const std::string& text, std::string_view noun)
{
    const auto refuse = [&](const std::string& reason)
    {
        throw cloudprovider::InvalidLocationException(
            "Invalid name", fmt::format("{} {} is refused: {}", noun, quoted(text), reason));
    };
    if (text.empty())
    {
        refuse("it is empty");
    }
    if (text.size() > maxKeyBytes)
    {
        refuse(fmt::format("it has {} bytes, at most {} are allowed", text.size(), maxKeyBytes));
    }
    for (std::string_view rest = text; !rest.empty();)
    {
        const Character character = firstCharacter(rest);
        if (character.bytes == 0)
        {
            refuse(fmt::format("it is not UTF-8 at byte {}", text.size() - rest.size()));
        }
        if (!fitsXml(character.codePoint))
        {
            refuse(fmt::format(
                "the character U+{:04X} at byte {} is not allowed", character.codePoint, text.size() - rest.size()));
        }
        rest.remove_prefix(character.bytes);
    }
}

} // namespace

void checkKey(const std::string& key)
{
    check(key, "key");
}

void checkObjectName(const std::string& name)
{
    check(name, "name");
    if (name == "." || name == ".." || name.find('/') != std::string::npos)
    {
        throw cloudprovider::InvalidLocationException(
            "Invalid name", fmt::format("name {} is refused: it would refer to another folder", quoted(name)));
    }
}

std::string quoted(const std::string& key)
{
    constexpr std::size_t maxLength = 200; // bytes; enough to recognise a key in a one-line message
    std::string result = "\"";
    std::string_view rest = key;
    while (!rest.empty() && key.size() - rest.size() < maxLength)
    {
        const Character character = firstCharacter(rest);
        if (character.bytes != 0 && character.codePoint >= 0x20 && character.codePoint != 0x7F)
        {
            result += rest.substr(0, character.bytes);
            rest.remove_prefix(character.bytes);
        }
        else
        {
            result += fmt::format("\\x{:02X}", static_cast<unsigned char>(rest.front()));
            rest.remove_prefix(1);
        }
    }
    return result + (rest.empty() ? "\"" : "...\"");
}

} // namespace storage::clients
