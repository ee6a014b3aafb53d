#include "SessionLock.hpp"

#include "StoreError.hpp"

#include <fmt/format.h>

#include <cerrno>
#include <charconv>
#include <fstream>
#include <memory>
#include <sstream>

#include <sys/stat.h>
#include <unistd.h>

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

// @return nullopt: it does not exist, or something else is in its place, which must not keep the store from being
// opened
std::optional<FileHandle> openLockFile(const std::filesystem::path& path)
{
    return std::filesystem::is_regular_file(std::filesystem::symlink_status(path)) ? openFile(path) : std::nullopt;
}

const std::string& bootId()
{
    static const std::string id = []
    {
        std::string line;
        std::getline(std::ifstream("/proc/sys/kernel/random/boot_id"), line);
        return line;
    }();
    return id;
}

// @return the lines after the first one; nullopt: it is of another boot, or the file is not complete
std::optional<std::vector<std::string>> readNotes(const FileHandle& file, const std::filesystem::path& path)
{
    std::string text(fileSize(file, path), '\0');
    readFile(file, path, text.data(), text.size(), 0);
    std::istringstream in(text);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);)
    {
        lines.push_back(line);
    }
    const bool isComplete = text.ends_with('\n') && text.find('\0') == std::string::npos;
    if (!isComplete || lines.front().empty() || lines.front() != bootId())
    {
        return std::nullopt;
    }
    lines.erase(lines.begin());
    return lines;
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
            append(bootId());
        }
    }
}

bool SessionLock::isDead(const std::filesystem::path& folder, std::uint64_t number)
{
    const std::filesystem::path path = folder / fileNameOf(number);
    const std::optional<FileHandle> file = openLockFile(path); // a client that ends removes it
    return !file || tryLockFile(*file, path);
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
        std::optional<FileHandle> file = openLockFile(entry.path());
        if (file && tryLockFile(*file, entry.path()) && !isRemoved(*file))
        {
            dead.push_back({entry.path(), number, std::move(*file), std::nullopt});
            dead.back().noted = readNotes(dead.back().file, entry.path());
        }
    }
    return dead;
}

void SessionLock::append(const std::string& line)
{
    const std::string bytes = line + '\n';
    const ssize_t written = ::pwrite(m_file.get(), bytes.data(), bytes.size(), m_size);
    m_size += static_cast<off_t>(bytes.size());
    // On a full disk, leave a hole, which needs no room: then the notes count as unknown.
    if (written != static_cast<ssize_t>(bytes.size()) && ::ftruncate(m_file.get(), m_size) != 0)
    {
        throw systemError("writing \"" + path().native() + '"', errno);
    }
}

SessionLock::Notes::~Notes()
{
    if (m_isEmpty)
    {
        return;
    }
    const std::lock_guard lock(m_session.m_mutex);
    const off_t sizeOfFirstLine = static_cast<off_t>(bootId().size() + 1);
    if (--m_session.m_noting == 0 && !m_session.m_keepFile && ::ftruncate(m_session.m_file.get(), sizeOfFirstLine) == 0)
    {
        m_session.m_size = sizeOfFirstLine;
    }
}

void SessionLock::Notes::add(const std::string& fileName)
{
    m_session.acquire();
    const std::lock_guard lock(m_session.m_mutex);
    m_session.m_noting += m_isEmpty ? 1 : 0;
    m_isEmpty = false;
    m_session.append(fileName);
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
