#pragma once

#include <storage/cloudprovider/CloudExceptions.hpp>

#include <foundation/storage/provider/ErrorCode.hpp>
#include <foundation/storage/provider/fsp.hpp>

#include <stdexcept>
#include <string>

namespace cloudfs
{

/// The failure of a command, as the one line that the user reads: "PATH: reason (code N Name)".
///
/// Thrown where the cause is known; callers pass it on unchanged. what() is the line, with control characters escaped.
class CommandError : public std::runtime_error
{
public:
    /// @param path    a path in the store, a local path or the store's URL: the one that the failure is about
    /// @param reason  one clause without a full stop
    /// @param code    the framework's code that fits best
    CommandError(const std::string& path, const std::string& reason, const fsp::ErrorCode& code);

    /// Describe a failed system call on a local file.
    ///
    /// @param error  the value of errno
    static CommandError fromErrno(const std::string& path, int error);

    /// Describe an exception from the store.
    ///
    /// @param before  begins the reason
    static CommandError fromStore(const std::string& path, const storage::cloudprovider::CloudException& exception,
        const std::string& before = {});

    /// The framework's code, for callers that handle one kind of failure in their own way.
    const fsp::ErrorCode& code() const noexcept { return m_code; }

private:
    fsp::ErrorCode m_code;
};

/// The reason in words for a code that has no detail.
std::string defaultReason(const fsp::ErrorCode& code);

} // namespace cloudfs
