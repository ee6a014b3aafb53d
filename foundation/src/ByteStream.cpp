#include <foundation/storage/provider/ByteStream.hpp>

namespace foundation::storage::provider
{

ByteStream::~ByteStream() = default;

std::streamsize ByteStream::read(char* s, std::streamsize n)
{
    return doRead(s, n);
}

std::streamsize ByteStream::write(const char* s, std::streamsize n)
{
    return doWrite(s, n);
}

std::streampos ByteStream::seek(stream_offset off, std::ios_base::seekdir way)
{
    return doSeek(off, way);
}

void ByteStream::close()
{
    doClose();
}

void ByteStream::abandon()
{
    doAbandon();
}

void ByteStream::doAbandon() {}

} // namespace foundation::storage::provider
