#include "DiskFile.hpp"

#include "LogRecords.hpp"
#include "TemporaryFileException.hpp"

#include <storage/cloudprovider/TemporaryFiles.hpp>

#include <boost/filesystem/operations.hpp>

#include <algorithm>
#include <array>
#include <cerrno>
#include <string>
#include <utility>

#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

namespace storage::cloudprovider::detail
{

namespace
{

constexpr const char* source = "src/DiskBackedBufferFactory";

/// Closes a file descriptor at the end of its scope, unless close() was called.
class Descriptor
{
public:
    explicit Descriptor(int descriptor)
        : m_descriptor(descriptor)
    {
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor()
    {
        if (m_descriptor >= 0)
        {
            ::close(m_descriptor);
        }
    }

    int get() const { return m_descriptor; }

    /// @return as the system call: -1 if bytes that were written may be lost
    int close() { return ::close(std::exchange(m_descriptor, -1)); }

private:
    int m_descriptor; // -1 after close()
};

/// Create an empty temporary file. Its name tells which process it belongs to.
fl::filesystem::path createFile()
{
    boost::filesystem::path folder;
    try
    {
        // Absolute before the file exists: nothing may fail between its creation and that of its owner.
        folder = boost::filesystem::absolute(boost::filesystem::temp_directory_path());
        return fl::filesystem::tmpnam(folder.string(), temporaryFilePrefix(), {});
    }
    catch (const boost::filesystem::filesystem_error& error) // there is no such folder
    {
        throw TemporaryFileException("creating a temporary file in " + error.path1().string(), error.code().value());
    }
    catch (const boost::system::system_error& error)
    {
        throw TemporaryFileException("creating a temporary file in " + folder.string(), error.code().value());
    }
}

} // namespace

DiskFile::DiskFile(std::size_t size)
    : DiskFile(createFile()) // after this the destructor runs even if sizing throws, and deletes the file
{
    updateFileSize(size);
}

DiskFile::DiskFile(fl::filesystem::path path)
    : m_path(std::move(path))
{
}

DiskFile::~DiskFile()
{
    try
    {
        fl::filesystem::remove(m_path);
    }
    catch (const std::exception&)
    {
        logMessage(foundation::log::severity::warning, "Failed to delete DiskFile ", m_path.native());
    }
}

void DiskFile::updateFileSize(std::size_t newSizeInBytes)
{
    logEntry(CallSite("void storage::cloudprovider::detail::DiskFile::updateFileSize(size_t)", source),
        named("newSizeInBytes", newSizeInBytes));
    try
    {
        boost::filesystem::resize_file(accessPath(), std::max<std::size_t>(newSizeInBytes, 1));
    }
    catch (const boost::filesystem::filesystem_error& error)
    {
        throw TemporaryFileException("sizing a temporary file in " + folder(), error.code().value());
    }
}

void DiskFile::fillWithZeros(std::size_t first, std::size_t last)
{
    // Write zeros instead of calling fallocate(): writes also fill the page cache, many pages per call. Touching a
    // mapped page that is in the cache costs a quarter of a page that is created at the first touch. All writes share
    // one small block of zeros.
    static const std::array<char, 64 * 1024> zeros{};

    const std::string path = accessPath();
    const int opened = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
    if (opened < 0)
    {
        throw TemporaryFileException("opening a temporary file in " + folder(), errno);
    }
    Descriptor file(opened);
    while (first < last)
    {
        std::array<iovec, 128> blocks{};
        std::size_t count = 0;
        for (std::size_t offset = first; offset < last && count < blocks.size(); ++count)
        {
            blocks[count].iov_base = const_cast<char*>(zeros.data());
            blocks[count].iov_len = std::min(zeros.size(), last - offset);
            offset += blocks[count].iov_len;
        }
        const ssize_t written =
            ::pwritev(file.get(), blocks.data(), static_cast<int>(count), static_cast<off_t>(first));
        if (written < 0 && errno == EINTR)
        {
            continue;
        }
        if (written <= 0)
        {
            throw TemporaryFileException(
                "writing " + std::to_string(last - first) + " bytes to a temporary file in " + folder(),
                written < 0 ? errno : ENOSPC);
        }
        first += static_cast<std::size_t>(written);
    }
    if (file.close() != 0 && errno != EINTR) // a network file system reports only now that it has no room
    {
        throw TemporaryFileException("writing to a temporary file in " + folder(), errno);
    }
}

void DiskFile::release(std::size_t first, std::size_t last) noexcept
{
    const int opened = ::open(m_path.native().c_str(), O_WRONLY | O_CLOEXEC);
    if (opened >= 0)
    {
        const Descriptor file(opened);
        // A file system without holes keeps the space allocated until the file is deleted. No data is affected.
        static_cast<void>(::fallocate(file.get(), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, static_cast<off_t>(first),
            static_cast<off_t>(last - first)));
    }
}

std::string DiskFile::folder() const
{
    return fl::filesystem::detail::to_filesystem(m_path).parent_path().string();
}

std::string DiskFile::accessPath() const
{
    return fl::filesystem::detail::make_access_form(fl::filesystem::detail::to_filesystem(m_path)).string();
}

} // namespace storage::cloudprovider::detail
