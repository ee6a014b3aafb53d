#include "SessionLock.hpp"

#include "StoreError.hpp"

#include <fmt/format.h>

#include <cerrno>
#include <charconv>
#include <memory>

#include <sys/stat.h>

namespace storage::clients::local
{

namespace
{

// A process may open a lock file, and lock it only after the owner has removed it.
bool isRemoved(const FileHandle& file)
{
    struct stat status = {};
    return ::fstat(file.get(), &status) == 0 && status.st_nlink == 0;
}

} // namespace

SessionLock::SessionLock(std::filesystem::path folder)
    : m_folder(std::move(folder))
{
}

SessionLock::~SessionLock()
{
    if (m_file.get() >= 0 && !m_keepFile && !m_isUnsynced)
    {
        removeFile(path()); // if that fails, the next open searches for orphans and finds none
    }
}

void SessionLock::acquire()
{
    const std::lock_guard lock(m_mutex);
    while (m_file.get() < 0)
    {
        m_number = randomNumber();
        FileHandle file = createFile(path());
        const std::shared_ptr<void> unlessKept(nullptr, // or the file would be in the way of the next attempt
            [this](void*)
            {
                if (m_file.get() < 0)
                {
                    removeFile(path());
                }
            });
        // A collector may have found the file before it was locked. It takes the number for that of a dead session.
        if (tryLockFile(file, path()) && !isRemoved(file))
        {
            syncFile(openFolder(m_folder), m_folder);
            m_file = std::move(file);
        }
    }
}

std::vector<SessionLock::Dead> SessionLock::findDead(const std::filesystem::path& folder)
{
    std::vector<Dead> dead;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
    {
        const std::string name = entry.path().filename();
        std::uint64_t number = 0;
        const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), number, 16);
        if (error != std::errc() || name != fileNameOf(number))
        {
            continue; // not a lock file
        }
        std::optional<FileHandle> file = openFile(entry.path());
        if (file && tryLockFile(*file, entry.path()) && !isRemoved(*file))
        {
            dead.push_back({entry.path(), number, std::move(*file)});
        }
    }
    return dead;
}

std::filesystem::path SessionLock::path() const
{
    return m_folder / fileNameOf(m_number);
}

std::string fileNameOf(std::uint64_t number)
{
    return fmt::format("{:016x}", number);
}

} // namespace storage::clients::local
