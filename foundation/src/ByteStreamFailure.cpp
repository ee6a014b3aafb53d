#include <foundation/storage/provider/ByteStreamFailure.hpp>

#include <utility>

namespace foundation::storage::provider
{

ByteStreamFailure::ByteStreamFailure(const char* name, ErrorCode reason)
    : std::ios_base::failure(name, std::make_error_code(std::io_errc::stream))
    , m_reason(std::make_shared<const ErrorCode>(std::move(reason)))
{
}

ByteStreamFailure::~ByteStreamFailure() = default;

const ErrorCode& ByteStreamFailure::reason() const noexcept
{
    return *m_reason;
}

ByteStreamReadFailure::ByteStreamReadFailure(ErrorCode reason)
    : ByteStreamFailure("ByteStreamReadFailure", std::move(reason))
{
}

ByteStreamReadFailure::~ByteStreamReadFailure() = default;

ByteStreamWriteFailure::ByteStreamWriteFailure(ErrorCode reason)
    : ByteStreamFailure("ByteStreamWriteFailure", std::move(reason))
{
}

ByteStreamWriteFailure::~ByteStreamWriteFailure() = default;

ByteStreamSeekFailure::ByteStreamSeekFailure(ErrorCode reason)
    : ByteStreamFailure("ByteStreamSeekFailure", std::move(reason))
{
}

ByteStreamSeekFailure::~ByteStreamSeekFailure() = default;

ByteStreamCloseFailure::ByteStreamCloseFailure(ErrorCode reason)
    : ByteStreamFailure("ByteStreamCloseFailure", std::move(reason))
{
}

ByteStreamCloseFailure::~ByteStreamCloseFailure() = default;

} // namespace foundation::storage::provider
