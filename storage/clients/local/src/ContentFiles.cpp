#include "ContentFiles.hpp"

#include "StoreError.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <new>
#include <string>
#include <string_view>

namespace storage::clients::local
{

namespace
{

std::filesystem::path ensureFolder(const std::filesystem::path& path)
{
    makeFolders(path);
    return path;
}

// Parse two numbers with a "-" between them.
template <typename First>
bool parse(std::string_view text, First& first, int firstBase, std::uint64_t& second, int secondBase)
{
    const char* const end = text.data() + text.size();
    const auto [dash, error] = std::from_chars(text.data(), end, first, firstBase);
    if (error != std::errc() || dash == end || *dash != '-')
    {
        return false;
    }
    const auto [rest, secondError] = std::from_chars(dash + 1, end, second, secondBase);
    return secondError == std::errc() && rest == end;
}

} // namespace

IncomingFile::IncomingFile(ContentFiles& files, std::filesystem::path path)
    : m_files(files)
    , m_path(std::move(path))
    , m_file(createFile(m_path))
{
}

IncomingFile::IncomingFile(IncomingFile&& other) noexcept
    : m_files(other.m_files)
    , m_path(std::move(other.m_path))
    , m_file(std::move(other.m_file))
    , m_size(other.m_size)
    , m_started(other.m_started)
{
    other.m_path.clear();
}

IncomingFile::~IncomingFile()
{
    if (!m_path.empty() && removeFile(m_path) != 0)
    {
        m_files.leaveOrphans();
    }
}

void IncomingFile::append(const char* bytes, std::uint64_t size)
{
    writeFile(m_file, m_path, bytes, size);
    startWriteBack(size);
}

void IncomingFile::append(
    const FileHandle& from, const std::filesystem::path& fromPath, std::uint64_t offset, std::uint64_t size)
{
    copyFile(from, fromPath, offset, m_file, m_path, size);
    startWriteBack(size);
}

void IncomingFile::startWriteBack(std::uint64_t size) noexcept
{
    constexpr std::uint64_t minPiece = 1024 * 1024; // as much as is received at a time
    m_size += size;
    if (m_size - m_started >= minPiece)
    {
        local::startWriteBack(m_file, m_started, m_size - m_started);
        m_started = m_size;
    }
}

void IncomingFile::sync()
{
    syncFile(m_file, m_path);
}

ContentFiles::ContentFiles(const std::filesystem::path& directory)
    : m_incoming(ensureFolder(directory / "incoming"))
    , m_contents(ensureFolder(directory / "contents"))
    , m_sessions(ensureFolder(directory / "sessions"))
    , m_contentsFolder(openFolder(m_contents))
    , m_sessionLock(m_sessions)
{
}

IncomingFile ContentFiles::create()
{
    m_sessionLock.acquire();
    return {*this, m_incoming / fmt::format("{}-{}", fileNameOf(m_sessionLock.number()), ++m_created)};
}

FileName ContentFiles::publish(IncomingFile& file, std::int64_t content, SessionLock::Notes& notes)
{
    const FileName name{content, m_sessionLock.number()};
    const std::filesystem::path place = path(name);
    notes.add(place.filename());
    if (std::rename(file.m_path.c_str(), place.c_str()) != 0)
    {
        throw systemError("renaming to \"" + place.native() + '"', errno);
    }
    file.m_path.clear();
    return name;
}

void ContentFiles::syncContentsFolder() const
{
    syncFile(m_contentsFolder, m_contents);
}

std::optional<FileHandle> ContentFiles::open(FileName name, std::uint64_t size) const
{
    std::optional<FileHandle> file = openFile(path(name));
    if (file)
    {
        if (const std::uint64_t found = fileSize(*file, path(name)); found != size)
        {
            throw damage(fmt::format("\"{}\" has {} bytes instead of {}", path(name).native(), found, size));
        }
    }
    return file;
}

std::filesystem::path ContentFiles::path(FileName name) const
{
    return m_contents / fmt::format("{}-{}", name.content, fileNameOf(name.session));
}

void ContentFiles::remove(FileName name) noexcept
try
{
    if (removeFile(path(name)) != 0)
    {
        leaveOrphans();
    }
}
catch (const std::bad_alloc&) // making the path needs memory
{
    leaveOrphans();
}

std::vector<FileName> ContentFiles::list() const
{
    std::vector<FileName> names;
    for (const auto& entry : std::filesystem::directory_iterator(m_contents))
    {
        FileName name;
        if (parse(entry.path().filename().native(), name.content, 10, name.session, 16))
        {
            names.push_back(name);
        }
    }
    return names;
}

std::vector<FileName> ContentFiles::listCandidates(const std::vector<SessionLock::Dead>& sessions) const
{
    std::vector<FileName> names;
    for (const SessionLock::Dead& session : sessions)
    {
        if (!session.noted)
        {
            return list();
        }
        for (const std::string& text : *session.noted)
        {
            FileName name;
            if (!parse(text, name.content, 10, name.session, 16))
            {
                return list();
            }
            names.push_back(name);
        }
    }
    return names;
}

void ContentFiles::prepareRemoval(const std::vector<FileName>& names, SessionLock::Notes& notes)
{
    m_sessionLock.acquire();
    for (const FileName name : names)
    {
        notes.add(path(name).filename());
    }
}

void ContentFiles::removeIncoming(const std::vector<SessionLock::Dead>& sessions)
{
    for (const auto& entry : std::filesystem::directory_iterator(m_incoming))
    {
        std::uint64_t session = 0;
        std::uint64_t number = 0;
        const bool isDead = parse(entry.path().filename().native(), session, 16, number, 10) &&
                            std::any_of(sessions.begin(), sessions.end(),
                                [&](const SessionLock::Dead& candidate) { return candidate.number == session; });
        if (isDead)
        {
            if (const int error = removeFile(entry.path()); error != 0)
            {
                throw systemError("removing \"" + entry.path().native() + '"', error);
            }
        }
    }
}

void ContentFiles::removeLocks(const std::vector<SessionLock::Dead>& sessions)
{
    for (const SessionLock::Dead& session : sessions)
    {
        removeFile(session.path); // if that fails, the next client that opens the store finds the session again
    }
}

} // namespace storage::clients::local
