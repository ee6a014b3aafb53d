#include "PartSpool.hpp"

#include <storage/cloudprovider/CloudExceptions.hpp>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <system_error>

#include <fcntl.h>
#include <unistd.h>

namespace storage::clients::s3
{

namespace
{

[[noreturn]] void throwFailed(const char* what)
{
    throw cloudprovider::UnknownErrorException("Temporary file failed",
        std::string(what) + " a temporary file failed: " + std::system_category().message(errno));
}

} // namespace

PartSpool::~PartSpool()
{
    if (m_file != -1)
    {
        ::close(m_file);
    }
}

int PartSpool::openedFile()
{
    const std::lock_guard lock(m_mutex);
    if (m_file == -1)
    {
        std::string path = std::filesystem::temp_directory_path() / "cloud-parts-XXXXXX";
        m_file = ::mkostemp(path.data(), O_CLOEXEC);
        if (m_file == -1)
        {
            throwFailed("creating");
        }
        ::unlink(path.c_str());
    }
    return m_file;
}

void PartSpool::write(std::size_t index, const std::string& bytes)
{
    const int file = openedFile();
    for (std::size_t written = 0; written < bytes.size();)
    {
        const ssize_t count = ::pwrite(
            file, bytes.data() + written, bytes.size() - written, static_cast<off_t>(index * m_slot + written));
        if (count < 0 && errno != EINTR)
        {
            throwFailed("writing");
        }
        written += static_cast<std::size_t>(std::max<ssize_t>(count, 0));
    }
}

void PartSpool::read(std::size_t index, std::uint64_t offset, char* target, std::uint64_t size) const
{
    const int file = [&]
    {
        const std::lock_guard lock(m_mutex);
        return m_file;
    }();
    for (std::size_t taken = 0; taken < size;)
    {
        const ssize_t count =
            ::pread(file, target + taken, size - taken, static_cast<off_t>(index * m_slot + offset + taken));
        if (count == 0 || (count < 0 && errno != EINTR))
        {
            throwFailed("reading");
        }
        taken += static_cast<std::size_t>(std::max<ssize_t>(count, 0));
    }
}

} // namespace storage::clients::s3
