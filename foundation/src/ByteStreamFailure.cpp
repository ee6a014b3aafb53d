#include <foundation/storage/provider/ByteStreamFailure.hpp>

#include "oneLine.hpp"

#include <string>
#include <utility>

namespace foundation::storage::provider
{

struct ByteStreamFailure::Contents
{
    ErrorCode reason;
    std::string text;
};

ByteStreamFailure::ByteStreamFailure(const char* name, ErrorCode reason)
    : std::ios_base::failure(name, std::make_error_code(std::io_errc::stream))
{
    std::string text = std::string(name) + ": " + reason.name();
    if (reason.detail() && !reason.detail()->empty())
    {
        text += ": " + onOneLine(*reason.detail());
    }
    m_contents = std::make_shared<const Contents>(Contents{std::move(reason), std::move(text)});
}

ByteStreamFailure::~ByteStreamFailure() = default;

const ErrorCode& ByteStreamFailure::reason() const noexcept
{
    return m_contents->reason;
}

const char* ByteStreamFailure::what() const noexcept
{
    return m_contents->text.c_str();
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
