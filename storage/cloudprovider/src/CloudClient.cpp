#include <storage/cloudprovider/CloudClient.hpp>

#include <ostream>

namespace storage::cloudprovider
{

std::ostream& operator<<(std::ostream& out, const PartInfo& part)
{
    return out << "PartInfo{Index=" << part.Index << ",Offset=" << part.Offset << ",Size=" << part.Size << ",Tag=\""
               << part.Tag << "\"}";
}

} // namespace storage::cloudprovider
