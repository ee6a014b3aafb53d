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
    None = 0, ///< nothing exists there
    File = 1,
    Folder = 2,
};

/// Attributes of a file or a folder.
struct ExtendedAttributes
{
    ResourceKind kind = ResourceKind::None;
    std::optional<unsigned long> size;     ///< bytes; empty for a folder, or if unknown
    boost::posix_time::ptime lastModified; ///< UTC; not_a_date_time if unknown
    bool writable = false;

    friend bool operator==(const ExtendedAttributes&, const ExtendedAttributes&) = default;
};

} // namespace foundation::storage::provider
