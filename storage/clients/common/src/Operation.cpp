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

bool replacesObject(Operation operation) noexcept
{
    switch (operation) // without default: the compiler demands a case for a new operation
    {
    case Operation::DeleteObject:
    case Operation::PutObject:
    case Operation::CompleteMultipartUpload:
        return true;
    case Operation::GetObjectInfo:
    case Operation::ValidateObjectName:
    case Operation::ListObjects:
    case Operation::GetObjectRange:
    case Operation::GetObjectParts:
    case Operation::CreateMultipartUpload:
    case Operation::UploadPart:
    case Operation::CopyPart:
    case Operation::AbortMultipartUpload:
        return false;
    }
    return true; // no operation has such a value
}

bool usesContentStream(Operation operation) noexcept
{
    switch (operation) // without default: the compiler demands a case for a new operation
    {
    case Operation::GetObjectRange:
    case Operation::PutObject:
    case Operation::UploadPart:
        return true;
    case Operation::GetObjectInfo:
    case Operation::ValidateObjectName:
    case Operation::ListObjects:
    case Operation::DeleteObject:
    case Operation::GetObjectParts:
    case Operation::CreateMultipartUpload:
    case Operation::CopyPart:
    case Operation::AbortMultipartUpload:
    case Operation::CompleteMultipartUpload:
        return false;
    }
    return true; // no operation has such a value
}

std::ostream& operator<<(std::ostream& out, Operation operation)
{
    return out << name(operation);
}

} // namespace storage::clients
