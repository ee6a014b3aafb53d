#pragma once

#include <foundation/storage/provider/ByteStream.hpp>

namespace storage::cloudprovider
{

/// Owns a stream and forwards every operation to it. Base of the streams that reject one operation.
class RestrictedByteStream : public foundation::storage::provider::ByteStream
{
public:
    explicit RestrictedByteStream(foundation::storage::provider::ByteStreamPtr inner);

protected:
    using stream_offset = foundation::storage::provider::stream_offset;

    std::streamsize doRead(char* s, std::streamsize n) override;
    std::streamsize doWrite(const char* s, std::streamsize n) override;
    std::streampos doSeek(const stream_offset off, const std::ios_base::seekdir way) override;
    void doClose() override;
    void doAbandon() override;

private:
    const foundation::storage::provider::ByteStreamPtr m_inner;
};

/// Rejects writes. A rejected write does not affect the file or the position. Abandoning the stream does nothing: what
/// it would drop was written by others.
class ReadOnlyByteStream : public RestrictedByteStream
{
public:
    using RestrictedByteStream::RestrictedByteStream;

protected:
    std::streamsize doWrite(const char* s, std::streamsize n) override;
    void doAbandon() override;
};

/// Rejects reads. A rejected read does not affect the file or the position.
class WriteOnlyByteStream : public RestrictedByteStream
{
public:
    using RestrictedByteStream::RestrictedByteStream;

protected:
    std::streamsize doRead(char* s, std::streamsize n) override;
};

} // namespace storage::cloudprovider
