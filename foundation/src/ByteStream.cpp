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

void storeOrAbandon(ByteStream& stream, const std::function<void()>& write)
{
    try
    {
        write();
        // A stream may send parts while it is written, and retry failed ones with the next write. Leave the part that
        // was written last, which may be any, so that it is sent, and let an empty write report what failed: close()
        // alone may not.
        stream.seek(0, std::ios_base::end);
        stream.seek(0, std::ios_base::beg);
        stream.write("", 0);
        stream.close();
    }
    catch (...)
    {
        stream.abandon();
        throw;
    }
}

} // namespace foundation::storage::provider
