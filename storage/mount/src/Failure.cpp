#include "Failure.hpp"

#include <storage/clients/common/TransientException.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>

#include <cerrno>
#include <new>
#include <system_error>

namespace storage::mount
{

using namespace cloudprovider;

namespace
{

/// The errno for the exception that is being handled.
int currentError()
try
{
    throw;
}
catch (const ResourceNotFoundException&)
{
    return ENOENT;
}
catch (const ResourceAlreadyExistsException&)
{
    return EEXIST;
}
catch (const PermissionDeniedException&)
{
    return EACCES;
}
catch (const InvalidCredentialsException&)
{
    return EACCES;
}
catch (const InvalidLocationException&) // stores refuse names only if they are no text
{
    return EILSEQ;
}
catch (const UnsupportedOperationException&)
{
    return ENOTSUP;
}
catch (const clients::TransientException&)
{
    return ETIMEDOUT;
}
catch (const std::system_error& exception)
{
    return exception.code().default_error_condition().category() == std::generic_category()
               ? exception.code().default_error_condition().value()
               : EIO;
}
catch (const std::bad_alloc&)
{
    return ENOMEM;
}
catch (...)
{
    return EIO;
}

} // namespace

Failure Failure::current()
try
{
    throw;
}
catch (const Failure& failure)
{
    return failure;
}
catch (const CloudException& exception)
{
    return {currentError(), exception.detail().value_or(exception.what())};
}
catch (const std::exception& exception)
{
    return {currentError(), exception.what()};
}
catch (...)
{
    return {currentError(), "unknown failure"};
}

} // namespace storage::mount
