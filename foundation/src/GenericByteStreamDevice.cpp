#include <foundation/storage/provider/GenericByteStreamDevice.hpp>

#include "copyBytes.hpp"

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
    writeAll(*m_stream, s, n);
    return n;
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
