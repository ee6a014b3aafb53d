#include <storage/clients/common/Operation.hpp>

#include <ostream>

namespace storage::clients
{

namespace
{

constexpr std::array<std::string_view, allOperations.size()> names{"getObjectInfo", "validateObjectName", "listObjects",
    "deleteObject", "getObjectRange", "putObject", "getObjectParts", "createMultipartUpload", "uploadPart", "copyPart",
    "abortMultipartUpload", "completeMultipartUpload"};

static_assert(!names.back().empty());

} // namespace

std::string_view name(Operation operation) noexcept
{
    return names[static_cast<std::size_t>(operation)];
}

std::ostream& operator<<(std::ostream& out, Operation operation)
{
    return out << name(operation);
}

} // namespace storage::clients
