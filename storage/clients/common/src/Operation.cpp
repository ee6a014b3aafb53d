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
    bool replacesObject;
};

constexpr std::array<Description, allOperations.size()> descriptions{{
    // name, changesStore, replacesObject
    {"getObjectInfo", false, false},
    {"validateObjectName", false, false},
    {"listObjects", false, false},
    {"deleteObject", true, true},
    {"getObjectRange", false, false},
    {"putObject", true, true},
    {"getObjectParts", false, false},
    {"createMultipartUpload", true, false},
    {"uploadPart", true, false},
    {"copyPart", true, false},
    {"abortMultipartUpload", true, false},
    {"completeMultipartUpload", true, true},
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

bool replacesObject(Operation operation) noexcept
{
    return describe(operation).replacesObject;
}

std::ostream& operator<<(std::ostream& out, Operation operation)
{
    return out << name(operation);
}

} // namespace storage::clients
