#pragma once

#include <foundation/Export.hpp>
#include <foundation/storage/provider/ErrorCode.hpp>

#include <ios>
#include <memory>

namespace foundation::storage::provider
{

/// Base of the four failures of a ByteStream: a standard stream failure (std::io_errc::stream) with a reason.
///
/// Copies share their contents, so copying never throws.
class FOUNDATION_EXPORT ByteStreamFailure : public std::ios_base::failure
{
public:
    ~ByteStreamFailure() override;

    /// Get why the stream failed. The detail is the cause's text, if there is one. Valid as long as any copy of the
    /// failure lives, as is what().
    const ErrorCode& reason() const noexcept;

    /// Get one readable line: the failure's name, the reason's name and the detail, for example
    /// "ByteStreamCloseFailure: PermissionDenied: refused by the store". Never contains a line break.
    const char* what() const noexcept override;

protected:
    ByteStreamFailure(const char* name, ErrorCode reason);

private:
    struct FOUNDATION_HIDDEN Contents;

    std::shared_ptr<const Contents> m_contents; // never null
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

/// Closing failed: written data may be missing from the file.
class FOUNDATION_EXPORT ByteStreamCloseFailure : public ByteStreamFailure
{
public:
    explicit ByteStreamCloseFailure(ErrorCode reason);
    ~ByteStreamCloseFailure() override;
};

} // namespace foundation::storage::provider
