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
    bool usesContentStream;
};

constexpr std::array<Description, allOperations.size()> descriptions{{
    // name, changesStore, replacesObject, usesContentStream
    {"getObjectInfo", false, false, false},
    {"validateObjectName", false, false, false},
    {"listObjects", false, false, false},
    {"deleteObject", true, true, false},
    {"getObjectRange", false, false, true},
    {"putObject", true, true, true},
    {"getObjectParts", false, false, false},
    {"createMultipartUpload", true, false, false},
    {"uploadPart", true, false, true},
    {"copyPart", true, false, false},
    {"abortMultipartUpload", true, false, false},
    {"completeMultipartUpload", true, true, false},
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

bool usesContentStream(Operation operation) noexcept
{
    return describe(operation).usesContentStream;
}

std::ostream& operator<<(std::ostream& out, Operation operation)
{
    return out << name(operation);
}

} // namespace storage::clients
