#include "LocalDataVersion.hpp"

#include <ostream>

namespace storage::cloudprovider
{

std::ostream& operator<<(std::ostream& out, LocalDataVersion version)
{
    switch (version)
    {
    case LocalDataVersion::CLOUD:
        return out << "CLOUD";
    case LocalDataVersion::NEW:
        return out << "NEW";
    case LocalDataVersion::SCHEDULED_UPLOAD:
        return out << "SCHEDULED_UPLOAD";
    case LocalDataVersion::INVALID:
        return out << "INVALID";
    }
    return out;
}

} // namespace storage::cloudprovider
