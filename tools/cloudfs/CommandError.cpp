#include "CommandError.hpp"

#include "Text.hpp"

#include <fmt/format.h>

#include <cerrno>
#include <system_error>

namespace cloudfs
{

using namespace storage::cloudprovider;

namespace
{

fsp::ErrorCode codeOfSystemError(int error)
{
    switch (error)
    {
    case ENOENT:
    case ENOTDIR:
        return fsp::ErrorCode::NotFound;
    case EEXIST:
        return fsp::ErrorCode::AlreadyExists;
    case EACCES:
    case EPERM:
    case EROFS:
        return fsp::ErrorCode::PermissionDenied;
    case EISDIR:
    case ELOOP:
    case ENAMETOOLONG:
        return fsp::ErrorCode::InvalidLocation;
    default:
        return fsp::ErrorCode::Unknown;
    }
}

fsp::ErrorCode codeOfStoreFailure(const CloudException& exception)
{
    if (dynamic_cast<const InvalidLocationException*>(&exception) != nullptr)
    {
        return fsp::ErrorCode::InvalidLocation;
    }
    if (dynamic_cast<const PermissionDeniedException*>(&exception) != nullptr ||
        dynamic_cast<const InvalidCredentialsException*>(&exception) != nullptr)
    {
        return fsp::ErrorCode::PermissionDenied;
    }
    if (dynamic_cast<const ResourceNotFoundException*>(&exception) != nullptr)
    {
        return fsp::ErrorCode::NotFound;
    }
    if (dynamic_cast<const ResourceAlreadyExistsException*>(&exception) != nullptr)
    {
        return fsp::ErrorCode::AlreadyExists;
    }
    return fsp::ErrorCode::Unknown;
}

} // namespace

CommandError::CommandError(const std::string& path, const std::string& reason, const fsp::ErrorCode& code)
    : std::runtime_error(text::printable(
          fmt::format("{}: {} (code {} {})", path.empty() ? "\"\"" : path, reason, code.value(), code.name())))
    , m_code(code)
{
}

CommandError CommandError::fromErrno(const std::string& path, int error)
{
    return {path, std::generic_category().message(error), codeOfSystemError(error)};
}

CommandError CommandError::fromStore(
    const std::string& path, const CloudException& exception, const std::string& before)
{
    const fsp::ErrorCode code = codeOfStoreFailure(exception);
    return {path,
        before + (code == fsp::ErrorCode::AlreadyExists ? defaultReason(code)
                                                        : exception.detail().value_or(exception.what())),
        code};
}

std::string defaultReason(const fsp::ErrorCode& code)
{
    if (code == fsp::ErrorCode::FolderNotEmpty)
    {
        return "the folder is not empty";
    }
    if (code == fsp::ErrorCode::InvalidLocation)
    {
        return "not a valid name";
    }
    if (code == fsp::ErrorCode::PermissionDenied)
    {
        return "permission denied";
    }
    if (code == fsp::ErrorCode::AlreadyExists)
    {
        return "already exists";
    }
    if (code == fsp::ErrorCode::NotFound)
    {
        return "no such file or folder";
    }
    if (code == fsp::ErrorCode::InUse)
    {
        return "in use";
    }
    if (code == fsp::ErrorCode::Unsupported)
    {
        return "not supported by this store";
    }
    return "unknown error";
}

} // namespace cloudfs
