#pragma once

#include <storage/cloudprovider/CloudExceptions.hpp>

#include <string>

namespace storage::cloudprovider
{

/// A temporary file failed. The detail, which also reaches the framework, says why: "creating a temporary file in /tmp:
/// Too many open files". If the folder is the reason, it says that TMPDIR names another one.
class TemporaryFileException : public UnknownErrorException
{
public:
    /// @param action  for example "creating a temporary file in /tmp"
    /// @param error   a value of errno
    TemporaryFileException(const std::string& action, int error)
        : TemporaryFileException(describe(action, error), isLackOfRoom(error))
    {
    }

    /// Return whether there is no room, so that the action may succeed after other temporary files were deleted.
    bool needsRoom() const { return m_needsRoom; }

private:
    TemporaryFileException(const std::string& text, bool needsRoom)
        : UnknownErrorException(text, text)
        , m_needsRoom(needsRoom)
    {
    }

    static std::string describe(const std::string& action, int error);
    static bool isLackOfRoom(int error);

    bool m_needsRoom;
};

} // namespace storage::cloudprovider
