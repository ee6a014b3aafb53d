#include "StoreError.hpp"

#include <sqlite3.h>

#include <cerrno>
#include <system_error>

namespace storage::clients::local
{

namespace
{

StoreError::Kind kindOf(int error)
{
    switch (error)
    {
    case EACCES:
    case EPERM:
    case EROFS:
        return StoreError::Kind::PermissionDenied;
    case ENOSPC:
    case EDQUOT:
        return StoreError::Kind::NoSpace;
    case EIO: // the disk has lost bytes
        return StoreError::Kind::Damaged;
    default:
        return StoreError::Kind::Other;
    }
}

std::string messageOf(int error)
{
    return std::generic_category().message(error);
}

} // namespace

StoreError damage(const std::string& what)
{
    return {StoreError::Kind::Damaged, "the store is damaged: " + what};
}

void throwUnlessDamage(const StoreError& error)
{
    if (error.kind() != StoreError::Kind::Damaged)
    {
        throw;
    }
}

StoreError systemError(const std::string& doing, int error)
{
    return {kindOf(error), doing + ": " + messageOf(error)};
}

StoreError sqliteError(int code, int error, const std::string& message)
{
    if (code == SQLITE_READONLY_DBMOVED)
    {
        return StoreError("the index was replaced while it was being opened; open the store again");
    }
    switch (code & 0xFF)
    {
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
        return {StoreError::Kind::Damaged, "the index is damaged: " + message};
    case SQLITE_FULL:
        return {StoreError::Kind::NoSpace, "the index cannot grow: " + messageOf(ENOSPC)};
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
    case SQLITE_PROTOCOL: // the same while the log is opened
        return {StoreError::Kind::Locked, "another client keeps the index locked"};
    case SQLITE_READONLY:
    case SQLITE_AUTH:
        return {StoreError::Kind::PermissionDenied, "access to the index denied: " + message};
    case SQLITE_PERM:
        error = EACCES;
        [[fallthrough]];
    case SQLITE_CANTOPEN:
        return {kindOf(error), "\"index.sqlite\" or a file beside it cannot be opened for reading and writing" +
                                   (error == 0 ? "" : ": " + messageOf(error))};
    default:
        return {kindOf(error), "the index failed: " + message + (error == 0 ? "" : ": " + messageOf(error))};
    }
}

} // namespace storage::clients::local
