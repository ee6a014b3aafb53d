#include "TransactionalByteStream.hpp"

#include "copyBytes.hpp"

#include <foundation/storage/provider/ByteStreamFailure.hpp>

#include <cerrno>
#include <memory>
#include <system_error>
#include <utility>

#include <fcntl.h>

namespace foundation::storage::provider
{

namespace
{

/// Open an empty file that has no name, and that programs started by the host do not inherit.
boost::iostreams::file_descriptor openUnnamedFile(const fl::filesystem::path& folder)
{
    boost::iostreams::file_descriptor result; // takes the memory that it needs to own a file
    const fl::filesystem::path file = fl::filesystem::tmpnam(folder);
    const int opened = ::open(file.native().c_str(), O_RDWR | O_CLOEXEC);
    const int error = errno;
    if (opened >= 0)
    {
        result.open(opened, boost::iostreams::close_handle);
    }
    fl::filesystem::remove(file);
    if (opened < 0)
    {
        throw std::system_error(error, std::generic_category(), "opening a temporary file");
    }
    return result;
}

/// Run an operation on the temporary file and translate its failures, for example a full disk, into Failure.
template <class Failure, class Operation>
auto translated(Operation operation)
{
    try
    {
        return operation();
    }
    catch (const std::ios_base::failure& failure)
    {
        throw Failure(ErrorCode(ErrorCode::Unknown, std::string("temporary file: ") + failure.what()));
    }
}

} // namespace

TransactionalByteStream::TransactionalByteStream(
    const IProvider& provider, StorageIRI target, const fl::filesystem::path& scratchFolder)
    : m_provider(provider)
    , m_target(std::move(target))
    , m_scratch(openUnnamedFile(scratchFolder))
{
}

TransactionalByteStream::~TransactionalByteStream() = default;

std::streamsize TransactionalByteStream::doRead(char* s, std::streamsize n)
{
    return translated<ByteStreamReadFailure>([&] { return m_scratch.read(s, n); });
}

std::streamsize TransactionalByteStream::doWrite(const char* s, std::streamsize n)
{
    return translated<ByteStreamWriteFailure>([&] { return m_scratch.write(s, n); });
}

std::streampos TransactionalByteStream::doSeek(const stream_offset off, const std::ios_base::seekdir way)
{
    return translated<ByteStreamSeekFailure>([&] { return m_scratch.seek(off, way); });
}

void TransactionalByteStream::doClose()
{
    if (!m_scratch.is_open())
    {
        return;
    }

    // Closed even if this fails: a second attempt would overwrite what the first one wrote.
    boost::iostreams::file_descriptor scratch = std::exchange(m_scratch, boost::iostreams::file_descriptor());
    try
    {
        scratch.seek(0, std::ios_base::beg);
        const ByteStreamPtr target =
            openToReplace(m_provider, m_target, ByteStreamCreate::IfMissing, ByteStreamWritePosition::AtOffset);
        storeOrAbandon(*target, [&] { copyBytes(scratch, *target); });
    }
    catch (const ByteStreamFailure& failure)
    {
        throw ByteStreamCloseFailure(failure.reason());
    }
    catch (const std::ios_base::failure& failure)
    {
        throw ByteStreamCloseFailure(ErrorCode(ErrorCode::Unknown, std::string("temporary file: ") + failure.what()));
    }
}

void TransactionalByteStream::doAbandon()
{
    m_scratch = boost::iostreams::file_descriptor();
}

} // namespace foundation::storage::provider
