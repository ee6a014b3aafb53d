#pragma once

#include <stdexcept>
#include <string>

namespace storage::mount
{

/// An operation of the mount has failed: what the program gets, and what the log says.
class Failure : public std::runtime_error
{
public:
    /// @param error   an errno
    /// @param reason  for people
    Failure(int error, const std::string& reason)
        : std::runtime_error(reason)
        , m_error(error)
    {
    }

    int error() const noexcept { return m_error; }

    /// Describe the exception that is being handled, which may be of any type.
    static Failure current();

private:
    int m_error;
};

} // namespace storage::mount
