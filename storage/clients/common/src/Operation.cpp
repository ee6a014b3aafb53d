#include <storage/clients/common/Operation.hpp>

#include <ostream>

namespace storage::clients
{

namespace
{

struct Description
{
    std::string_view name;
    bool changesStore;
};

constexpr std::array<Description, allOperations.size()> descriptions{{
    {"getObjectInfo", false},
    {"validateObjectName", false},
    {"listObjects", false},
    {"deleteObject", true},
    {"getObjectRange", false},
    {"putObject", true},
    {"getObjectParts", false},
    {"createMultipartUpload", true},
    {"uploadPart", true},
    {"copyPart", true},
    {"abortMultipartUpload", true},
    {"completeMultipartUpload", true},
}};

static_assert(!descriptions.back().name.empty());

const Description& describe(Operation operation) noexcept
{
    return descriptions[static_cast<std::size_t>(operation)];
}

} // namespace

std::string_view name(Operation operation) noexcept
{
    return describe(operation).name;
}

bool changesStore(Operation operation) noexcept
{
    return describe(operation).changesStore;
}

std::ostream& operator<<(std::ostream& out, Operation operation)
{
    return out << name(operation);
}

} // namespace storage::clients
