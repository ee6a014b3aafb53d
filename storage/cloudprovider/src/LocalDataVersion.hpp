#pragma once

#include "InternalExport.hpp"

#include <cstdint>
#include <iosfwd>

namespace storage::cloudprovider
{

/// How the local bytes of a part relate to the store.
enum class LocalDataVersion : std::uint32_t
{
    CLOUD = 0,            ///< the local bytes, if loaded, are those of the stored part
    NEW = 1,              ///< changed, or never stored: must be uploaded
    SCHEDULED_UPLOAD = 2, ///< handed to the upload queue
    INVALID = 3,          ///< must not be used any more
};

/// Print the state's name; nothing for a value that is none.
CLOUDPROVIDER_INTERNAL std::ostream& operator<<(std::ostream& out, LocalDataVersion version);

} // namespace storage::cloudprovider
