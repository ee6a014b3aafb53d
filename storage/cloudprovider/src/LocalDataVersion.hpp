#pragma once

#include <cstdint>
#include <iosfwd>

namespace storage::cloudprovider
{

/// How the local bytes of a part relate to the store.
enum class LocalDataVersion : std::uint32_t
{
    CLOUD = 0,            ///< the local bytes, if loaded, equal the stored part
    NEW = 1,              ///< changed or never stored: must be uploaded
    SCHEDULED_UPLOAD = 2, ///< handed to the upload queue
    INVALID = 3,          ///< must not be used
};

/// Print the name of the state, or nothing if the value is not an enumerator.
std::ostream& operator<<(std::ostream& out, LocalDataVersion version);

} // namespace storage::cloudprovider
