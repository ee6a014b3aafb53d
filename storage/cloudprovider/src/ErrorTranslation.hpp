#pragma once

#include <foundation/storage/provider/ErrorCode.hpp>
#include <foundation/storage/provider/StorageIRI.hpp>

namespace storage::cloudprovider
{

/// Return the framework's code for the exception that is being handled, with the detail of a cloud exception if it has
/// one. Call inside a catch block.
///
/// @throws foundation::storage::provider::Exception  the exception being handled, unchanged, if it is of this type
foundation::storage::provider::ErrorCode errorCodeOfCurrentException();

/// Translate the exception that is being handled into the framework's Exception about the IRI and throw that. A
/// framework Exception is rethrown unchanged. Call inside a catch block.
[[noreturn]] void translateCurrentException(const foundation::storage::provider::StorageIRI& iri);

} // namespace storage::cloudprovider
