#pragma once

#include <array>
#include <cstddef>
#include <iosfwd>
#include <string_view>

namespace storage::clients
{

/// The operations of a CloudClient, in the interface's order.
enum class Operation : std::size_t
{
    GetObjectInfo,
    ValidateObjectName,
    ListObjects,
    DeleteObject,
    GetObjectRange,
    PutObject,
    GetObjectParts,
    CreateMultipartUpload,
    UploadPart,
    CopyPart,
    AbortMultipartUpload,
    CompleteMultipartUpload
};

/// Every operation, for tables and loops; the value of an Operation is its index here.
constexpr std::array allOperations{Operation::GetObjectInfo, Operation::ValidateObjectName, Operation::ListObjects,
    Operation::DeleteObject, Operation::GetObjectRange, Operation::PutObject, Operation::GetObjectParts,
    Operation::CreateMultipartUpload, Operation::UploadPart, Operation::CopyPart, Operation::AbortMultipartUpload,
    Operation::CompleteMultipartUpload};

static_assert(allOperations.back() == Operation{allOperations.size() - 1});

/// The operation as CloudClient spells it: "uploadPart". Valid until the program ends.
std::string_view name(Operation operation) noexcept;

/// Tell whether a successful call may change what the store holds: its objects or its uploads.
bool changesStore(Operation operation) noexcept;

/// Tell whether the object under the key may have other bytes after the call, or be gone, even if the call fails.
bool replacesObject(Operation operation) noexcept;

/// Print the name.
std::ostream& operator<<(std::ostream& out, Operation operation);

} // namespace storage::clients
