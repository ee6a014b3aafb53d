#include "BlockFile.hpp"

#include <xxhash.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <system_error>

namespace storage::clients
{

namespace
{

// Also tells whether the machine that wrote the file has the same byte order.
constexpr std::uint64_t formatNumber = 0x31'65'67'6E'61'52'56'43;

} // namespace

BlockFile::BlockFile(const std::filesystem::path& path, std::uint64_t blockSize, Mode mode)
    : m_identity{formatNumber, blockSize}
    , m_file(::open(path.c_str(), (mode == Mode::Write ? O_RDWR | O_CREAT : O_RDONLY) | O_NOFOLLOW | O_CLOEXEC, 0600))
{
    if (m_file < 0)
    {
        throw std::system_error(errno, std::generic_category(), "opening \"" + path.native() + '"');
    }
    const std::string name = path.filename();
    std::copy_n(name.begin(), std::min(name.size(), m_identity.name.size()), m_identity.name.begin());
    if (!readAt(0, &m_header, sizeof(m_header)))
    {
        m_header = {};
    }
    if (mode == Mode::Write && m_header.identity != m_identity)
    {
        try
        {
            writeAt(0, &m_identity, sizeof(m_identity)); // as another thread may do now
        }
        catch (...)
        {
            ::close(m_file);
            throw;
        }
    }
}

BlockFile::~BlockFile()
{
    ::close(m_file);
}

std::uint64_t BlockFile::present() const noexcept
{
    std::uint64_t found = 0;
    for (std::size_t block = 0; m_header.identity == m_identity && block < blocks; ++block)
    {
        found |= std::uint64_t(m_header.checksums[block] != 0) << block;
    }
    return found;
}

bool BlockFile::read(std::size_t block, char* target, std::uint64_t size) const
{
    return (present() >> block & 1U) != 0 && readAt(offsetOf(block), target, size) &&
           checksum(block, target, size) == m_header.checksums[block];
}

void BlockFile::write(std::size_t block, const char* bytes, std::uint64_t size)
{
    writeAt(offsetOf(block), bytes, size);
    const std::uint64_t sum = checksum(block, bytes, size);
    writeAt(offsetof(Header, checksums) + block * sizeof(sum), &sum, sizeof(sum));
}

void BlockFile::touch() const noexcept
{
    // Not the kernel's own time of a write, which advances only some hundred times a second.
    struct timespec now = {};
    ::clock_gettime(CLOCK_REALTIME, &now);
    const std::array times{now, now};
    ::futimens(m_file, times.data());
}

std::uint64_t BlockFile::checksum(std::size_t block, const char* bytes, std::uint64_t size) const
{
    const std::uint64_t seed = XXH3_64bits(m_identity.name.data(), m_identity.name.size()) + block;
    return std::max<std::uint64_t>(XXH3_64bits_withSeed(bytes, size, seed), 1); // 0 means that there is none
}

std::uint64_t BlockFile::offsetOf(std::size_t block) const
{
    return headerSize + block * m_identity.blockSize;
}

bool BlockFile::readAt(std::uint64_t offset, void* target, std::uint64_t size) const
{
    for (std::uint64_t done = 0; done < size;)
    {
        const auto got = ::pread(m_file, static_cast<char*>(target) + done, size - done, off_t(offset + done));
        if (got == 0 || (got < 0 && errno != EINTR))
        {
            return false;
        }
        done += std::uint64_t(std::max<ssize_t>(got, 0));
    }
    return true;
}

void BlockFile::writeAt(std::uint64_t offset, const void* bytes, std::uint64_t size)
{
    for (std::uint64_t done = 0; done < size;)
    {
        const auto put = ::pwrite(m_file, static_cast<const char*>(bytes) + done, size - done, off_t(offset + done));
        if (put < 0 && errno != EINTR)
        {
            throw std::system_error(errno, std::generic_category(), "writing blocks");
        }
        done += std::uint64_t(std::max<ssize_t>(put, 0));
    }
}

} // namespace storage::clients
