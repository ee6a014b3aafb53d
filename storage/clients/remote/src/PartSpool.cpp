#include "PartSpool.hpp"

#include <storage/cloudprovider/CloudExceptions.hpp>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace storage::clients
{

namespace
{

[[noreturn]] void throwFailed(const char* what, int error)
{
    throw cloudprovider::UnknownErrorException("Temporary file failed",
        std::string(what) + " a temporary file failed: " + std::system_category().message(error));
}

std::uint64_t pageSize()
{
    static const auto size = static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE));
    return size;
}

int openUnnamedFile()
{
    std::string path = std::filesystem::temp_directory_path() / "cloud-parts-XXXXXX";
    const int file = ::mkostemp(path.data(), O_CLOEXEC);
    if (file == -1)
    {
        throwFailed("creating", errno);
    }
    ::unlink(path.c_str());
    return file;
}

/// Without this, a write to a mapping on a full disk would end the process.
void allocateSpace(int file, std::uint64_t offset, std::size_t size)
{
    int error = 0;
    do
    {
        error = size == 0 ? 0 : ::posix_fallocate(file, static_cast<off_t>(offset), static_cast<off_t>(size));
    } while (error == EINTR);
    if (error != 0)
    {
        throwFailed("writing", error);
    }
}

} // namespace

MappedBytes::MappedBytes(int file, std::uint64_t offset, std::size_t size)
    : m_size(size)
{
    if (size == 0)
    {
        return;
    }
    const std::uint64_t before = offset % pageSize();
    void* const mapping =
        ::mmap(nullptr, before + size, PROT_READ | PROT_WRITE, MAP_SHARED, file, static_cast<off_t>(offset - before));
    if (mapping == MAP_FAILED)
    {
        throwFailed("mapping", errno);
    }
    m_mapping = mapping;
    m_begin = static_cast<char*>(mapping) + before;
}

MappedBytes::MappedBytes(MappedBytes&& other) noexcept
    : m_mapping(std::exchange(other.m_mapping, nullptr))
    , m_begin(other.m_begin)
    , m_size(other.m_size)
{
}

MappedBytes::~MappedBytes()
{
    if (m_mapping != nullptr)
    {
        ::munmap(m_mapping, static_cast<std::size_t>(m_begin - static_cast<char*>(m_mapping)) + m_size);
    }
}

PartSpool::~PartSpool()
{
    clear();
}

void PartSpool::clear() noexcept
{
    const std::lock_guard lock(m_mutex);
    if (m_file != -1)
    {
        ::close(std::exchange(m_file, -1));
        m_begin = m_end;
    }
}

bool PartSpool::has(std::uint64_t position) const
{
    const std::lock_guard lock(m_mutex);
    return m_file != -1 && position >= m_begin;
}

PartSpool::Space PartSpool::allocate(std::size_t size)
{
    const std::lock_guard lock(m_mutex);
    if (m_file == -1)
    {
        m_file = openUnnamedFile();
    }
    allocateSpace(m_file, m_end, size);
    Space space{m_end, {m_file, m_end, size}};
    m_end += (size + pageSize() - 1) / pageSize() * pageSize();
    return space;
}

MappedBytes PartSpool::map(std::uint64_t position, std::size_t size) const
{
    const std::lock_guard lock(m_mutex);
    return {m_file, position, size};
}

void PartSpool::free(std::uint64_t position, std::size_t size) noexcept
{
    const std::lock_guard lock(m_mutex);
    // Where the file system cannot do that, the space is returned with the file.
    static_cast<void>(::fallocate(
        m_file, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, static_cast<off_t>(position), static_cast<off_t>(size)));
}

MappedBytes PartSpool::scratch(std::size_t size)
{
    const int file = openUnnamedFile();
    try
    {
        allocateSpace(file, 0, size);
        MappedBytes bytes(file, 0, size);
        ::close(file);
        return bytes;
    }
    catch (...)
    {
        ::close(file);
        throw;
    }
}

} // namespace storage::clients
