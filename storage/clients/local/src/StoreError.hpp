#pragma once

#include <stdexcept>
#include <string>

namespace storage::clients::local
{

/// What goes wrong inside the store, as a reason in words. LocalClient adds operation, key and directory and turns it
/// into one of the cloud exceptions.
class StoreError : public std::runtime_error
{
public:
    enum class Kind
    {
        NotFound,         ///< no such object or upload
        NotAStore,        ///< the directory is something else
        PermissionDenied, ///< the system refuses access
        NoSpace,          ///< the disk is full, or the user's share of it
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

/// The failure of a system call.
///
/// @param doing  what was tried and on what: "writing contents/12"
/// @param error  its errno
StoreError systemError(const std::string& doing, int error);

/// The failure of SQLite.
///
/// @param code     extended result code
/// @param error    the errno behind it, 0 when there is none
/// @param message  SQLite's own words
StoreError sqliteError(int code, int error, const std::string& message);

} // namespace storage::clients::local
