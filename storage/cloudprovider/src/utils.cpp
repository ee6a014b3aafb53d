#include <storage/cloudprovider/utils.hpp>

#include <fl/i18n.hpp>

#include <boost/date_time/posix_time/posix_time_types.hpp>

#include <cstdint>
#include <limits>

namespace storage::cloudprovider::utils
{

namespace
{

/// Return the text without each `dropped` that is immediately followed by a `follower`.
std::u16string dropBefore(const std::u16string& text, char16_t dropped, char16_t follower)
{
    std::u16string kept;
    kept.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i)
    {
        const bool drop = text[i] == dropped && i + 1 < text.size() && text[i + 1] == follower;
        if (!drop)
        {
            kept.push_back(text[i]);
        }
    }
    return kept;
}

/// Return the time `microseconds` after 1970-01-01, with unsigned wrap-around.
///
/// Uses the tick count, because Boost's duration arithmetic overflows or turns extreme counts into infinities.
boost::posix_time::ptime fromEpoch(std::uint64_t microseconds)
{
    constexpr std::uint64_t epochTicks = 2'440'588ULL * 86'400'000'000ULL; // microseconds from tick 0 to 1970-01-01
    using Ticks = boost::date_time::int_adapter<std::int64_t>;
    return boost::posix_time::ptime(
        boost::posix_time::ptime::time_rep_type(Ticks(static_cast<std::int64_t>(epochTicks + microseconds))));
}

} // namespace

std::u16string canonicalize(const std::u16string& path)
{
    std::u16string working = dropBefore(path, dot(), separator());
    if (!working.empty() && working.back() == dot())
    {
        working.pop_back();
    }
    return dropBefore(working, separator(), separator());
}

std::string iriToKey(const foundation::storage::provider::StorageIRI& iri)
{
    const std::u16string path = iri.hasPath() ? iri.getPath() : std::u16string();
    return fl::i18n::ustring_to_utf8(removeLeadingSlash(canonicalize(path)));
}

std::u16string removeLeadingSlash(const std::u16string& path)
{
    return !path.empty() && path.front() == separator() ? path.substr(1) : path;
}

std::u16string addLeadingSlash(const std::u16string& path)
{
    return !path.empty() && path.front() == separator() ? path : separator() + path;
}

std::u16string removeTrailingSlash(std::u16string path)
{
    if (!path.empty() && path.back() == separator())
    {
        path.pop_back();
    }
    return path;
}

std::string ensureTrailingSlash(std::string key)
{
    if (!key.empty() && !hasTrailingSlash(key))
    {
        key.push_back('/');
    }
    return key;
}

bool hasTrailingSlash(const std::string& key)
{
    return !key.empty() && key.back() == '/';
}

boost::posix_time::ptime double2Ptime(double milliseconds)
{
    constexpr auto lowest = std::numeric_limits<std::int64_t>::min();
    const double seconds = milliseconds / 1000.0;
    // NaN and values outside 64 bits become the lowest count, as in the processor's own conversion.
    const bool representable = seconds >= -0x1p63 && seconds < 0x1p63;
    const auto whole = representable ? static_cast<std::int64_t>(seconds) : lowest;
    const std::uint64_t microseconds = static_cast<std::uint64_t>(whole) * 1'000'000U;
    if (microseconds == static_cast<std::uint64_t>(lowest))
    {
        return boost::posix_time::ptime(boost::posix_time::neg_infin);
    }
    return fromEpoch(microseconds);
}

boost::posix_time::ptime long2Ptime(long long milliseconds)
{
    return fromEpoch(static_cast<std::uint64_t>(milliseconds) * 1000U);
}

} // namespace storage::cloudprovider::utils
