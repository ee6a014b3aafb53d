#pragma once

#include <foundation/Export.hpp>
#include <foundation/storage/provider/ErrorCode.hpp>

#include <ios>
#include <memory>

namespace foundation::storage::provider
{

/// What the four failures of a ByteStream have in common: a standard stream failure (std::io_errc::stream) whose text
/// starts with the failure's own name, and the reason. Copies share the reason, so copying never throws.
class FOUNDATION_EXPORT ByteStreamFailure : public std::ios_base::failure
{
public:
    ~ByteStreamFailure() override;

    /// Why the stream failed. Its detail is the text of the cause, where there was one. Valid as long as any copy of
    /// the failure lives.
    const ErrorCode& reason() const noexcept;

protected:
    ByteStreamFailure(const char* name, ErrorCode reason);

private:
    std::shared_ptr<const ErrorCode> m_reason; // never null
};

/// A read failed.
class FOUNDATION_EXPORT ByteStreamReadFailure : public ByteStreamFailure
{
public:
    explicit ByteStreamReadFailure(ErrorCode reason);
    ~ByteStreamReadFailure() override;
};

/// A write failed.
class FOUNDATION_EXPORT ByteStreamWriteFailure : public ByteStreamFailure
{
public:
    explicit ByteStreamWriteFailure(ErrorCode reason);
    ~ByteStreamWriteFailure() override;
};

/// A seek failed.
class FOUNDATION_EXPORT ByteStreamSeekFailure : public ByteStreamFailure
{
public:
    explicit ByteStreamSeekFailure(ErrorCode reason);
    ~ByteStreamSeekFailure() override;
};

/// Closing failed: what was written may not be in the file.
class FOUNDATION_EXPORT ByteStreamCloseFailure : public ByteStreamFailure
{
public:
    explicit ByteStreamCloseFailure(ErrorCode reason);
    ~ByteStreamCloseFailure() override;
};

} // namespace foundation::storage::provider
