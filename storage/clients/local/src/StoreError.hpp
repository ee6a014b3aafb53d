#pragma once

#include <stdexcept>
#include <string>

namespace storage::clients::local
{

/// An error inside the store; what() is the reason. LocalClient adds operation, key and directory and translates it
/// into a CloudException.
class StoreError : public std::runtime_error
{
public:
    enum class Kind
    {
        NotFound,         ///< no such object or upload
        NotAStore,        ///< the path is a file, or a directory with other content
        PermissionDenied, ///< the system denies access
        NoSpace,          ///< the disk is full or the user's quota exhausted
        Damaged,          ///< the store has lost or changed something that was stored
        Locked,           ///< another client keeps what is needed locked
        Other
    };

    StoreError(Kind kind, const std::string& reason)
        : std::runtime_error(reason)
        , m_kind(kind)
    {
    }

    explicit StoreError(const std::string& reason)
        : StoreError(Kind::Other, reason)
    {
    }

    Kind kind() const noexcept { return m_kind; }

private:
    Kind m_kind;
};

/// The error that the store has lost or changed what was stored.
StoreError damage(const std::string& what);

/// Throw the error on, unless it is damage. What cannot be read for another reason, for example without permission or
/// descriptors, may be intact. To be called in the error's handler.
void throwUnlessDamage(const StoreError& error);

/// The error of a system call.
///
/// @param doing  the attempted action and its object: "writing contents/12"
/// @param error  its errno
StoreError systemError(const std::string& doing, int error);

/// An error of SQLite.
///
/// @param code     extended result code
/// @param error    the errno that caused it; 0: none
/// @param message  SQLite's error message
StoreError sqliteError(int code, int error, const std::string& message);

} // namespace storage::clients::local
