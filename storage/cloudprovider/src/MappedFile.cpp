#include "MappedFile.hpp"

#include "LogRecords.hpp"
#include "TemporaryFileException.hpp"

#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace storage::cloudprovider::detail
{

MappedFile::~MappedFile()
{
    try
    {
        close();
    }
    catch (...)
    {
        logCaughtException();
    }
}

void MappedFile::open(const std::string& path, std::size_t size)
{
    const int descriptor = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
    void* const data =
        descriptor < 0 ? MAP_FAILED : ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
    if (data == MAP_FAILED)
    {
        const int error = errno;
        ::close(descriptor);
        throw TemporaryFileException("mapping the temporary file " + path, error);
    }
    m_data = static_cast<char*>(data);
    m_size = size;
    m_descriptor = descriptor;
}

void MappedFile::close()
{
    if (m_data == nullptr)
    {
        return;
    }
    int error = ::munmap(std::exchange(m_data, nullptr), m_size) == 0 ? 0 : errno;
    error = ::close(std::exchange(m_descriptor, -1)) == 0 ? error : errno;
    if (error != 0 && error != EINTR) // an interrupted close() has lost nothing
    {
        throw TemporaryFileException("closing a temporary file, whose bytes may be lost", error);
    }
}

} // namespace storage::cloudprovider::detail
