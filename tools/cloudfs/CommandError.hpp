#pragma once

#include <storage/cloudprovider/CloudExceptions.hpp>

#include <foundation/storage/provider/ErrorCode.hpp>
#include <foundation/storage/provider/fsp.hpp>

#include <stdexcept>
#include <string>

namespace cloudfs
{

/// Why the command failed, in the one line that the user gets: "PATH: reason (code N Name)".
///
/// Thrown by whatever knows best what went wrong; nothing above changes it. what() is the line, without control
/// characters.
class CommandError : public std::runtime_error
{
public:
    /// @param path    a path in the store, a local path or the store's URL: what the user would look at
    /// @param reason  one clause without a full stop
    CommandError(const std::string& path, const std::string& reason, const fsp::ErrorCode& code);

    /// What a system call says about a local file.
    ///
    /// @param error  the value of errno
    static CommandError fromErrno(const std::string& path, int error);

    /// What a store says.
    static CommandError fromStore(const std::string& path, const storage::cloudprovider::CloudException& exception);

    /// The framework's code, for callers that treat one kind of failure in their own way.
    const fsp::ErrorCode& code() const noexcept { return m_code; }

private:
    fsp::ErrorCode m_code;
};

/// The reason in words for a code that came without a detail.
std::string defaultReason(const fsp::ErrorCode& code);

} // namespace cloudfs
