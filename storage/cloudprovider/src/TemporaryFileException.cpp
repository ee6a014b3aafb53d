#include "TemporaryFileException.hpp"

#include <cerrno>
#include <system_error>

namespace storage::cloudprovider
{

std::string TemporaryFileException::describe(const std::string& action, int error)
{
    const bool isLimitOfProcess = error == EMFILE || error == ENFILE || error == ENOMEM;
    return action + ": " + std::generic_category().message(error) +
           (isLimitOfProcess ? "" : "; TMPDIR can name another folder");
}

bool TemporaryFileException::isLackOfRoom(int error)
{
    return error == ENOSPC || error == EDQUOT;
}

} // namespace storage::cloudprovider
