#pragma once

#include <foundation/storage/provider/fsp.hpp>

#include <boost/date_time/posix_time/posix_time_types.hpp>

#include <cstdint>
#include <optional>

namespace foundation::storage::provider
{

/// What an IRI names.
enum class ResourceKind : std::uint32_t
{
    None = 0, ///< nothing that exists
    File = 1,
    Folder = 2,
};

/// What is known of a file or a folder, in one record.
struct ExtendedAttributes
{
    ResourceKind kind = ResourceKind::None;
    std::optional<unsigned long> size;     ///< bytes; none for a folder, or if the provider cannot tell
    boost::posix_time::ptime lastModified; ///< UTC; not_a_date_time if there is none
    bool writable = false;

    friend bool operator==(const ExtendedAttributes&, const ExtendedAttributes&) = default;
};

} // namespace foundation::storage::provider
