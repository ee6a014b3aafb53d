#include <foundation/storage/provider/GenericByteStreamDevice.hpp>

#include <foundation/storage/provider/ByteStreamFailure.hpp>

#include <utility>

namespace foundation::storage::provider
{

GenericByteStreamDevice::GenericByteStreamDevice(std::shared_ptr<ByteStream> stream)
    : m_stream(std::move(stream))
{
}

GenericByteStreamDevice::GenericByteStreamDevice(ByteStreamPtr stream)
    : m_stream(std::move(stream))
{
}

std::streamsize GenericByteStreamDevice::read(char* s, std::streamsize n)
{
    return m_stream->read(s, n);
}

std::streamsize GenericByteStreamDevice::write(const char* s, std::streamsize n)
{
    std::streamsize written = 0;
    while (written < n)
    {
        const std::streamsize count = m_stream->write(s + written, n - written);
        if (count <= 0)
            throw ByteStreamWriteFailure(ErrorCode(ErrorCode::Unknown, "the stream takes no more bytes"));
        written += count;
    }
    return written;
}

std::streampos GenericByteStreamDevice::seek(stream_offset off, std::ios_base::seekdir way)
{
    return m_stream->seek(off, way);
}

void GenericByteStreamDevice::close()
{
    m_stream->close();
}

} // namespace foundation::storage::provider
