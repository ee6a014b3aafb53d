#include "Failure.hpp"

#include <sqlite3.h>

#include <cerrno>
#include <system_error>

namespace storage::clients::local
{

namespace
{

Failure::Kind kindOf(int error)
{
    switch (error)
    {
    case EACCES:
    case EPERM:
    case EROFS:
        return Failure::Kind::PermissionDenied;
    case ENOSPC:
    case EDQUOT:
        return Failure::Kind::NoSpace;
    default:
        return Failure::Kind::Other;
    }
}

std::string messageOf(int error)
{
    return std::generic_category().message(error);
}

} // namespace

Failure systemFailure(const std::string& doing, int error)
{
    return {kindOf(error), doing + ": " + messageOf(error)};
}

Failure indexFailure(int code, int error, const std::string& message)
{
    switch (code & 0xFF)
    {
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
        return Failure("the index is damaged: " + message);
    case SQLITE_FULL:
        return {Failure::Kind::NoSpace, "the index cannot grow: " + messageOf(ENOSPC)};
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
        return Failure("other processes keep the index busy: " + message);
    case SQLITE_PERM:
    case SQLITE_READONLY:
    case SQLITE_AUTH:
        return {Failure::Kind::PermissionDenied, "the index refuses access: " + message};
    default:
        return {kindOf(error), "the index fails: " + message + (error == 0 ? "" : ": " + messageOf(error))};
    }
}

} // namespace storage::clients::local
