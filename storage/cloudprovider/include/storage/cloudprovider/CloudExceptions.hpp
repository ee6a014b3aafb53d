#pragma once

#include <storage/cloudprovider/Export.hpp>

#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

namespace storage::cloudprovider
{

/// Base of every failure that a CloudClient reports, and that the provider's own rules raise.
///
/// what() is the kind of failure in fixed words; detail(), when there is one, tells a person doing what, on which key,
/// and why it failed. The provider hands the detail on to the framework beside the framework's error code.
/// Values: copying is cheap enough for exceptions and never throws anything but std::bad_alloc.
class CLOUDPROVIDER_EXPORT CloudException : public std::runtime_error
{
public:
    explicit CloudException(const std::string& message, std::optional<std::string> detail = std::nullopt)
        : std::runtime_error(message)
        , m_detail(std::move(detail))
    {
    }

    /// The explanation given by whoever threw; empty when there is none.
    const std::optional<std::string>& detail() const noexcept { return m_detail; }

private:
    std::optional<std::string> m_detail;
};

/// Something stands already where something was to be created. Framework code 3.
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

/// The store has no such operation. Framework code 11.
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

/// The folder still has content. Framework code 0.
class CLOUDPROVIDER_EXPORT FolderNotEmptyException : public CloudException
{
public:
    explicit FolderNotEmptyException(std::optional<std::string> detail = std::nullopt)
        : CloudException("Cloud Folder was not empty", std::move(detail))
    {
    }
};

/// The store does not know who is asking. Thrown by clients only, in their own words. Framework code 2.
class CLOUDPROVIDER_EXPORT InvalidCredentialsException : public CloudException
{
public:
    using CloudException::CloudException;
};

/// The name or address is none that the store accepts. Thrown by clients only, in their own words. Framework code 1.
class CLOUDPROVIDER_EXPORT InvalidLocationException : public CloudException
{
public:
    using CloudException::CloudException;
};

/// The store knows who is asking and refuses. Thrown by clients only, in their own words. Framework code 2.
class CLOUDPROVIDER_EXPORT PermissionDeniedException : public CloudException
{
public:
    using CloudException::CloudException;
};

/// Anything else that went wrong in the store or in local buffers, in the thrower's own words. Framework code 9.
class CLOUDPROVIDER_EXPORT UnknownErrorException : public CloudException
{
public:
    using CloudException::CloudException;
};

} // namespace storage::cloudprovider
