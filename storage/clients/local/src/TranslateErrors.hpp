#pragma once

#include "StoreError.hpp"

#include <storage/cloudprovider/CloudExceptions.hpp>

#include <filesystem>
#include <string>

namespace storage::clients::local
{

[[noreturn]] inline void throwCloudException(const StoreError& error, const std::string& doing)
{
    const std::string detail = doing + ": " + error.what();
    switch (error.kind())
    {
    case StoreError::Kind::NotFound:
        throw cloudprovider::ResourceNotFoundException(detail);
    case StoreError::Kind::NotAStore:
        throw cloudprovider::InvalidLocationException("Not a local store", detail);
    case StoreError::Kind::PermissionDenied:
        throw cloudprovider::PermissionDeniedException("Access to the local store denied", detail);
    case StoreError::Kind::Locked:
        throw cloudprovider::UnknownErrorException("Local store is locked", detail);
    case StoreError::Kind::NoSpace:
    case StoreError::Kind::Damaged:
    case StoreError::Kind::Other:
        break;
    }
    throw cloudprovider::UnknownErrorException("Local store failed", detail);
}

/// Run a function. The only place where errors inside the store become exceptions of the interface.
///
/// @param doing  returns the operation and its object, for the detail of the exception
template <typename Body, typename Doing>
auto translateErrors(Body body, Doing doing)
{
    try
    {
        return body();
    }
    catch (const StoreError& error)
    {
        throwCloudException(error, doing());
    }
    catch (const std::filesystem::filesystem_error& error)
    {
        throwCloudException(systemError("reading \"" + error.path1().native() + '"', error.code().value()), doing());
    }
}

} // namespace storage::clients::local
