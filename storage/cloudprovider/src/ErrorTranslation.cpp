#include "ErrorTranslation.hpp"

#include "TemporaryFileException.hpp"

#include <storage/cloudprovider/CloudExceptions.hpp>

#include <foundation/storage/provider/Exception.hpp>

namespace storage::cloudprovider
{

namespace fsp = foundation::storage::provider;

namespace
{
fsp::ErrorCode withDetail(const fsp::ErrorCode& code, const CloudException& exception)
{
    return fsp::ErrorCode(code.value(), exception.detail());
}
} // namespace

fsp::ErrorCode errorCodeOfCurrentException()
{
    try
    {
        throw;
    }
    catch (const fsp::Exception&)
    {
        throw;
    }
    catch (const ResourceNotFoundException& exception)
    {
        return withDetail(fsp::ErrorCode::NotFound, exception);
    }
    catch (const ResourceAlreadyExistsException& exception)
    {
        return withDetail(fsp::ErrorCode::AlreadyExists, exception);
    }
    catch (const InvalidCredentialsException& exception)
    {
        // The framework has one code for rejected credentials and for missing permissions.
        return withDetail(fsp::ErrorCode::PermissionDenied, exception);
    }
    catch (const InvalidLocationException& exception)
    {
        return withDetail(fsp::ErrorCode::InvalidLocation, exception);
    }
    catch (const PermissionDeniedException& exception)
    {
        return withDetail(fsp::ErrorCode::PermissionDenied, exception);
    }
    catch (const FolderNotEmptyException& exception)
    {
        return withDetail(fsp::ErrorCode::FolderNotEmpty, exception);
    }
    catch (const ResourceInUseException& exception)
    {
        return withDetail(fsp::ErrorCode::InUse, exception);
    }
    catch (const UnsupportedOperationException& exception)
    {
        return withDetail(fsp::ErrorCode::Unsupported, exception);
    }
    catch (const TemporaryFileException& exception)
    {
        return withDetail(fsp::ErrorCode::Unknown, exception);
    }
    catch (...)
    {
        return fsp::ErrorCode(fsp::ErrorCode::Unknown);
    }
}

void translateCurrentException(const fsp::StorageIRI& iri)
{
    throw fsp::Exception(errorCodeOfCurrentException(), iri);
}

} // namespace storage::cloudprovider
