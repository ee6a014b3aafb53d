#include "RestrictedByteStream.hpp"

#include <foundation/storage/provider/ByteStreamFailure.hpp>

#include <utility>

namespace storage::cloudprovider
{

namespace fsp = foundation::storage::provider;

RestrictedByteStream::RestrictedByteStream(fsp::ByteStreamPtr inner)
    : m_inner(std::move(inner))
{
}

std::streamsize RestrictedByteStream::doRead(char* s, std::streamsize n)
{
    return m_inner->read(s, n);
}

std::streamsize RestrictedByteStream::doWrite(const char* s, std::streamsize n)
{
    return m_inner->write(s, n);
}

std::streampos RestrictedByteStream::doSeek(const stream_offset off, const std::ios_base::seekdir way)
{
    return m_inner->seek(off, way);
}

void RestrictedByteStream::doClose()
{
    m_inner->close();
}

void RestrictedByteStream::doAbandon()
{
    m_inner->abandon();
}

std::streamsize ReadOnlyByteStream::doWrite(const char* /*s*/, std::streamsize /*n*/)
{
    throw fsp::ByteStreamWriteFailure(fsp::ErrorCode::PermissionDenied);
}

void ReadOnlyByteStream::doAbandon() {}

std::streamsize WriteOnlyByteStream::doRead(char* /*s*/, std::streamsize /*n*/)
{
    throw fsp::ByteStreamReadFailure(fsp::ErrorCode::PermissionDenied);
}

} // namespace storage::cloudprovider
