#pragma once

#include <foundation/Export.hpp>
#include <foundation/storage/provider/ByteStream.hpp>

#include <boost/iostreams/categories.hpp>

#include <ios>
#include <memory>

namespace foundation::storage::provider
{

/// Adapt a ByteStream to a seekable, closable Boost.IOStreams device, for example for boost::iostreams::copy, a
/// boost::iostreams::stream or a filter.
///
/// Copies of a device share the stream: closing one closes it for all. The stream is destroyed with the last copy,
/// unless the caller shares ownership. Only one thread at a time may use a device and its copies.
class FOUNDATION_EXPORT GenericByteStreamDevice
{
public:
    using char_type = char;
    struct category : boost::iostreams::seekable_device_tag, boost::iostreams::closable_tag
    {
    };

    /// @param stream  not null
    explicit GenericByteStreamDevice(std::shared_ptr<ByteStream> stream);
    explicit GenericByteStreamDevice(ByteStreamPtr stream);

    /// Read up to `n` bytes.
    ///
    /// @return the number of bytes read; -1 at the end of the file
    std::streamsize read(char* s, std::streamsize n);

    /// Write all `n` bytes and return `n`. A stream that accepts only some of them is an error, because
    /// boost::iostreams::copy would continue as if it had accepted all.
    ///
    /// @throws ByteStreamWriteFailure with ErrorCode::Unknown in that case, and everything that the stream throws
    std::streamsize write(const char* s, std::streamsize n);

    std::streampos seek(stream_offset off, std::ios_base::seekdir way);
    void close();

private:
    std::shared_ptr<ByteStream> m_stream; // never null
};

} // namespace foundation::storage::provider
