#pragma once

#include <storage/cloudprovider/Export.hpp>

#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

namespace storage::cloudprovider
{

/// Base of all failures that a CloudClient reports or that the provider raises itself.
///
/// what() names the kind of failure. detail(), when present, is a message for people: which operation failed, on which
/// key, and why. The provider passes the detail to the framework together with the framework's error code.
/// Copying may throw std::bad_alloc and nothing else.
class CLOUDPROVIDER_EXPORT CloudException : public std::runtime_error
{
public:
    explicit CloudException(const std::string& message, std::optional<std::string> detail = std::nullopt)
        : std::runtime_error(message)
        , m_detail(std::move(detail))
    {
    }

    /// The message given to the constructor, if any.
    const std::optional<std::string>& detail() const noexcept { return m_detail; }

private:
    std::optional<std::string> m_detail;
};

/// The file, folder or object to be created exists already. Framework code 3.
class CLOUDPROVIDER_EXPORT ResourceAlreadyExistsException : public CloudException
{
public:
    explicit ResourceAlreadyExistsException(std::optional<std::string> detail = std::nullopt)
        : CloudException("Cloud Resource already exists", std::move(detail))
    {
    }
};

/// The file, folder, object or upload does not exist. Framework code 4.
class CLOUDPROVIDER_EXPORT ResourceNotFoundException : public CloudException
{
public:
    explicit ResourceNotFoundException(std::optional<std::string> detail = std::nullopt)
        : CloudException("Cloud Resource not found", std::move(detail))
    {
    }
};

/// The store does not support the operation. Framework code 11.
class CLOUDPROVIDER_EXPORT UnsupportedOperationException : public CloudException
{
public:
    explicit UnsupportedOperationException(std::optional<std::string> detail = std::nullopt)
        : CloudException("Unsupported Cloud operation", std::move(detail))
    {
    }
};

/// The file is open. Framework code 6.
class CLOUDPROVIDER_EXPORT ResourceInUseException : public CloudException
{
public:
    explicit ResourceInUseException(std::optional<std::string> detail = std::nullopt)
        : CloudException("Resource is in use", std::move(detail))
    {
    }
};

/// The folder to be removed has content. Framework code 0.
class CLOUDPROVIDER_EXPORT FolderNotEmptyException : public CloudException
{
public:
    explicit FolderNotEmptyException(std::optional<std::string> detail = std::nullopt)
        : CloudException("Cloud Folder was not empty", std::move(detail))
    {
    }
};

/// The store rejects the credentials. Only clients throw it; they choose the message. Framework code 2.
class CLOUDPROVIDER_EXPORT InvalidCredentialsException : public CloudException
{
public:
    using CloudException::CloudException;
};

/// The store does not accept the name or address. Only clients throw it; they choose the message. Framework code 1.
class CLOUDPROVIDER_EXPORT InvalidLocationException : public CloudException
{
public:
    using CloudException::CloudException;
};

/// The credentials are valid but do not allow the operation. Only clients throw it; they choose the message. Framework
/// code 2.
class CLOUDPROVIDER_EXPORT PermissionDeniedException : public CloudException
{
public:
    using CloudException::CloudException;
};

/// Any other failure of the store or of local buffers, with a message of its own. Framework code 9.
class CLOUDPROVIDER_EXPORT UnknownErrorException : public CloudException
{
public:
    using CloudException::CloudException;
};

} // namespace storage::cloudprovider
