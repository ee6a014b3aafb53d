#include <foundation/storage/provider/StorageIRI.hpp>

#include <foundation/storage/provider/Exception.hpp>

#include <fl/i18n.hpp>

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <new>
#include <optional>
#include <ostream>
#include <stdexcept>
#include <utility>

namespace foundation::storage::provider
{

namespace
{

constexpr std::u16string_view afterScheme = u"://";
constexpr char16_t separator = u'/';

bool isLetter(char16_t c)
{
    return (c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z');
}

bool isDigit(char16_t c)
{
    return c >= u'0' && c <= u'9';
}

char16_t toLower(char16_t c)
{
    return c >= u'A' && c <= u'Z' ? static_cast<char16_t>(c - u'A' + u'a') : c;
}

bool isControl(char16_t c)
{
    return c < 0x20 || (c >= 0x7f && c < 0xa0);
}

/// Tell whether a parser or a person could misread the character: it has a meaning of its own in an IRI, is a blank or
/// a line break of any kind, or is a control character that makes text look different from what it is.
bool needsEscape(char16_t c)
{
    constexpr std::u16string_view reserved = u" \"%#<>?[\\]^`{|}\u00a0";
    return isControl(c) || reserved.find(c) != std::u16string_view::npos || (c >= 0x200b && c <= 0x200f) ||
           (c >= 0x2028 && c <= 0x202e) || (c >= 0x2060 && c <= 0x206f) || c == 0xfeff;
}

void appendEscaped(std::string& text, unsigned char byte)
{
    constexpr std::string_view digits = "0123456789ABCDEF";
    text += '%';
    text += digits[byte >> 4U];
    text += digits[byte & 0xfU];
}

/// Convert well-formed UTF-16 to UTF-8, and escape the code units for which `escaped` is true.
template <class Predicate>
std::string escape(std::u16string_view text, Predicate escaped)
{
    std::string result;
    while (!text.empty())
    {
        const auto special = std::find_if(text.begin(), text.end(), escaped);
        const auto plain = static_cast<std::size_t>(special - text.begin());
        result += fl::i18n::ustring_to_utf8(text.substr(0, plain));
        text.remove_prefix(plain);
        if (text.empty())
        {
            break;
        }
        for (const char byte : fl::i18n::ustring_to_utf8(text.substr(0, 1)))
        {
            appendEscaped(result, static_cast<unsigned char>(byte));
        }
        text.remove_prefix(1);
    }
    return result;
}

std::optional<unsigned> hexValue(char16_t c)
{
    if (isDigit(c))
    {
        return c - u'0';
    }
    const char16_t lower = toLower(c);
    if (lower >= u'a' && lower <= u'f')
    {
        return lower - u'a' + 10U;
    }
    return std::nullopt;
}

/// Thrown only while parsing. The text says what is wrong with the IRI.
struct Malformed : std::runtime_error
{
    using std::runtime_error::runtime_error;
};

/// Decode the run of escapes at the start of `text` and remove it from `text`. Escapes are decoded together, because
/// one character may need several.
std::u16string decodeRun(std::u16string_view& text)
{
    std::string bytes;
    while (!text.empty() && text.front() == u'%')
    {
        const auto high = text.size() > 1 ? hexValue(text[1]) : std::nullopt;
        const auto low = text.size() > 2 ? hexValue(text[2]) : std::nullopt;
        if (!high || !low)
        {
            throw Malformed("a '%' is not followed by two hexadecimal digits");
        }
        bytes += static_cast<char>(*high << 4U | *low);
        text.remove_prefix(3);
    }
    try
    {
        return fl::i18n::utf8_to_ustring(bytes);
    }
    catch (const std::range_error&)
    {
        throw Malformed("the escapes do not decode to well-formed UTF-8");
    }
}

std::u16string decode(std::u16string_view text)
{
    std::u16string result;
    while (!text.empty())
    {
        const std::size_t plain = std::min(text.find(u'%'), text.size());
        result += text.substr(0, plain);
        text.remove_prefix(plain);
        if (!text.empty())
        {
            result += decodeRun(text);
        }
    }
    return result;
}

void checkSurrogates(std::u16string_view text)
{
    for (std::size_t i = 0; i < text.size(); ++i)
    {
        const auto isHigh = [&](std::size_t at) { return at < text.size() && (text[at] & 0xfc00U) == 0xd800U; };
        const auto isLow = [&](std::size_t at) { return at < text.size() && (text[at] & 0xfc00U) == 0xdc00U; };
        if (isHigh(i) && isLow(i + 1))
        {
            ++i;
        }
        else if (isHigh(i) || isLow(i))
        {
            throw Malformed("a surrogate is unpaired");
        }
    }
}

/// Convert the host to lower case. The host follows the user name, if there is one.
std::u16string normalizedAuthority(std::u16string_view text)
{
    std::u16string result(text);
    const std::size_t at = result.rfind(u'@');
    const std::size_t host = at == std::u16string::npos ? 0 : at + 1;
    std::transform(result.begin() + static_cast<std::ptrdiff_t>(host), result.end(),
        result.begin() + static_cast<std::ptrdiff_t>(host), toLower);
    return result;
}

} // namespace

struct StorageIRI::Representation
{
    // Well-formed: "scheme://authority/path", with the scheme and the host in lower case and the path decoded. A scheme
    // contains no ":" and an authority no "/", so different IRIs have different texts. Malformed: the text as given.
    std::u16string text;
    std::size_t schemeEnd = 0;         // of the scheme, at the ":"
    std::size_t authorityEnd = 0;      // where the path begins
    std::optional<std::string> defect; // why the text is malformed; empty: it is well-formed

    std::u16string_view scheme() const { return std::u16string_view(text).substr(0, schemeEnd); }
    std::u16string_view path() const { return std::u16string_view(text).substr(authorityEnd); }

    std::u16string_view authority() const
    {
        const std::size_t begin = std::min(schemeEnd + afterScheme.size(), authorityEnd);
        return std::u16string_view(text).substr(begin, authorityEnd - begin);
    }

    /// Get the path up to the end of its last name; empty if it has none.
    std::u16string_view pathToName() const { return path().substr(0, path().find_last_not_of(separator) + 1); }

    /// Get an IRI with the same scheme and authority, but another path.
    std::shared_ptr<const Representation> withPath(std::u16string_view path) const;

    static std::shared_ptr<const Representation> parse(std::u16string text);
};

std::shared_ptr<const StorageIRI::Representation> StorageIRI::Representation::withPath(
    std::u16string_view newPath) const
{
    auto result = std::make_shared<Representation>(*this);
    result->text.resize(authorityEnd);
    result->text += newPath;
    try
    {
        checkSurrogates(newPath);
    }
    catch (const Malformed& malformed)
    {
        result->defect = malformed.what();
    }
    return result;
}

std::shared_ptr<const StorageIRI::Representation> StorageIRI::Representation::parse(std::u16string text)
{
    auto result = std::make_shared<Representation>();
    try
    {
        const std::size_t schemeEnd = text.find(u':');
        const auto isSchemeLetter = [](char16_t c)
        { return isLetter(c) || isDigit(c) || c == u'+' || c == u'-' || c == u'.'; };
        if (schemeEnd == std::u16string::npos || text.compare(schemeEnd, afterScheme.size(), afterScheme) != 0 ||
            !isLetter(text.front()) ||
            !std::all_of(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(schemeEnd), isSchemeLetter))
        {
            throw Malformed("it does not begin with a scheme and \"://\"");
        }
        if (text.find_first_of(u"?#") != std::u16string::npos)
        {
            throw Malformed("a '?' or '#' in a name must be written %3F or %23");
        }
        checkSurrogates(text);

        const std::size_t authorityBegin = schemeEnd + afterScheme.size();
        const std::size_t pathBegin = std::min(text.find(separator, authorityBegin), text.size());
        const auto authority = std::u16string_view(text).substr(authorityBegin, pathBegin - authorityBegin);
        if (std::any_of(authority.begin(), authority.end(), [](char16_t c) { return c == u' ' || isControl(c); }))
        {
            throw Malformed("the authority contains a blank or a control character");
        }

        std::transform(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(schemeEnd),
            std::back_inserter(result->text), toLower);
        result->text += afterScheme;
        result->text += normalizedAuthority(authority);
        result->text += decode(std::u16string_view(text).substr(pathBegin));
        result->schemeEnd = schemeEnd;
        result->authorityEnd = pathBegin;
    }
    catch (const Malformed& malformed)
    {
        result->text = std::move(text);
        result->defect = malformed.what();
    }
    return result;
}

StorageIRI::StorageIRI(std::u16string text)
    : m_representation(Representation::parse(std::move(text)))
{
}

StorageIRI::StorageIRI(std::shared_ptr<const Representation> representation) noexcept
    : m_representation(std::move(representation))
{
}

StorageIRI StorageIRI::fromUtf8(std::string_view text)
{
    try
    {
        return StorageIRI(fl::i18n::utf8_to_ustring(text));
    }
    catch (const std::range_error&)
    {
        std::string printable;
        for (const char byte : text)
        {
            if (static_cast<unsigned char>(byte) < 0x80)
            {
                printable += byte;
            }
            else
            {
                appendEscaped(printable, static_cast<unsigned char>(byte));
            }
        }
        throw Exception(ErrorCode(ErrorCode::InvalidLocation, "the text is not well-formed UTF-8"),
            StorageIRI(fl::i18n::utf8_to_ustring(printable)));
    }
}

const StorageIRI::Representation& StorageIRI::representation() const noexcept
{
    // Never destroyed, because IRIs may be compared and printed until the process ends.
    alignas(Representation) static std::byte place[sizeof(Representation)];
    static const Representation* const empty = new (place) Representation();
    return m_representation ? *m_representation : *empty;
}

const StorageIRI::Representation& StorageIRI::wellFormed() const
{
    const Representation& result = representation();
    if (result.defect)
    {
        throw Exception(ErrorCode(ErrorCode::InvalidLocation, result.defect), *this);
    }
    return result;
}

std::string StorageIRI::toUtf8() const
{
    const Representation& parsed = representation();
    if (!parsed.defect)
    {
        const auto beforePath = std::u16string_view(parsed.text).substr(0, parsed.authorityEnd);
        return fl::i18n::ustring_to_utf8(beforePath) + escape(parsed.path(), needsEscape);
    }
    std::u16string printable = parsed.text;
    for (std::size_t i = 0; i < printable.size(); ++i)
    {
        const bool isPair =
            (printable[i] & 0xfc00U) == 0xd800U && i + 1 < printable.size() && (printable[i + 1] & 0xfc00U) == 0xdc00U;
        if (isPair)
        {
            ++i;
        }
        else if ((printable[i] & 0xf800U) == 0xd800U)
        {
            printable[i] = u'\ufffd';
        }
    }
    return escape(printable, [](char16_t c) { return needsEscape(c) && c != u'%' && c != u'?' && c != u'#'; });
}

StorageIRI StorageIRI::getResolvedIRI() const
{
    if (wellFormed().text.empty())
    {
        throw Exception(ErrorCode(ErrorCode::InvalidLocation, "the IRI is empty"), *this);
    }
    return *this;
}

std::u16string StorageIRI::getScheme() const
{
    return std::u16string(wellFormed().scheme());
}

std::u16string StorageIRI::getAuthority() const
{
    return std::u16string(wellFormed().authority());
}

bool StorageIRI::hasPath() const
{
    return !wellFormed().path().empty();
}

std::u16string StorageIRI::getPath() const
{
    return std::u16string(wellFormed().path());
}

bool StorageIRI::hasParent() const
{
    return !wellFormed().pathToName().empty();
}

StorageIRI StorageIRI::getParent() const
{
    const std::u16string_view path = wellFormed().pathToName();
    if (path.empty())
    {
        throw Exception(ErrorCode(ErrorCode::InvalidLocation, "the root has no parent"), *this);
    }
    const std::u16string_view above = path.substr(0, path.find_last_of(separator));
    const std::u16string_view parent = above.substr(0, above.find_last_not_of(separator) + 1);
    return StorageIRI(representation().withPath(parent.empty() ? u"/" : parent));
}

std::u16string StorageIRI::getName() const
{
    const std::u16string_view path = wellFormed().pathToName();
    return std::u16string(path.substr(path.find_last_of(separator) + 1));
}

StorageIRI StorageIRI::getChild(std::u16string_view name) const
{
    name.remove_prefix(std::min(name.find_first_not_of(separator), name.size()));
    if (name.empty())
    {
        return *this;
    }
    std::u16string path(getResolvedIRI().wellFormed().path());
    if (path.empty() || path.back() != separator)
    {
        path += separator;
    }
    path += name;
    return StorageIRI(representation().withPath(path));
}

bool operator==(const StorageIRI& left, const StorageIRI& right) noexcept
{
    return (left <=> right) == std::strong_ordering::equal;
}

std::strong_ordering operator<=>(const StorageIRI& left, const StorageIRI& right) noexcept
{
    if (left.m_representation == right.m_representation)
    {
        return std::strong_ordering::equal;
    }
    const auto& l = left.representation();
    const auto& r = right.representation();
    if (const auto order = l.defect.has_value() <=> r.defect.has_value(); order != std::strong_ordering::equal)
    {
        return order;
    }
    return l.text <=> r.text;
}

std::ostream& operator<<(std::ostream& stream, const StorageIRI& iri)
{
    return stream << iri.toUtf8();
}

} // namespace foundation::storage::provider
