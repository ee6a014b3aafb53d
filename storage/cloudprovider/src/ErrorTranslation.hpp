#pragma once

#include <foundation/storage/provider/ErrorCode.hpp>
#include <foundation/storage/provider/StorageIRI.hpp>

namespace storage::cloudprovider
{

/// Tell the framework's code for the exception in flight, with the cloud exception's own detail where it has one.
///
/// A framework Exception in flight passes unchanged. Call inside a catch block.
foundation::storage::provider::ErrorCode errorCodeOfCurrentException();

/// Rethrow the exception in flight as the framework's Exception about the IRI; one that is a framework Exception
/// already passes unchanged. Call inside a catch block.
[[noreturn]] void translateCurrentException(const foundation::storage::provider::StorageIRI& iri);

} // namespace storage::cloudprovider
