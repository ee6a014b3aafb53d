#include <fl/i18n.hpp>

#include <boost/locale/encoding_utf.hpp>

#include <cstdlib>
#include <stdexcept>

namespace fl::i18n
{

namespace
{

/// Convert text, and translate Boost's exception: callers expect only standard exceptions.
template <class To, class From>
std::basic_string<To> convert(std::basic_string_view<From> text, const char* message)
{
    namespace conv = boost::locale::conv;
    try
    {
        return conv::utf_to_utf<To>(text.data(), text.data() + text.size(), conv::stop);
    }
    catch (const conv::conversion_error&)
    {
        throw std::range_error(message);
    }
}

} // namespace

std::u16string utf8_to_ustring(std::string_view text)
{
    return convert<char16_t>(text, "the text is not well-formed UTF-8");
}

std::string ustring_to_utf8(std::u16string_view text)
{
    return convert<char>(text, "the text is not well-formed UTF-16");
}

std::string to_string(std::u16string_view text)
{
    return ustring_to_utf8(text);
}

std::u16string getenv(const std::string& name)
{
    const char* const value = std::getenv(name.c_str()); // NOLINT(concurrency-mt-unsafe)
    return value == nullptr ? std::u16string() : utf8_to_ustring(value);
}

} // namespace fl::i18n
