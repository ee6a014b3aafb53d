#pragma once

#include <foundation/Export.hpp>
#include <foundation/storage/provider/fsp.hpp>

#include <cstdint>
#include <iosfwd>

namespace foundation::storage::provider
{

/// Whether a stream opened for writing may also read.
enum class ByteStreamReadAccess : std::uint32_t
{
    None = 0,
    Allowed = 1,
};

/// What to do if the file does not exist.
enum class ByteStreamCreate : std::uint32_t
{
    IfMissing = 0, ///< create it
    MustExist = 1, ///< fail with ErrorCode::NotFound
};

/// What to do with the existing contents of the file.
enum class ByteStreamTruncate : std::uint32_t
{
    Discard = 0, ///< start with an empty file
    Keep = 1,    ///< keep them
};

/// Where writes go.
enum class ByteStreamWritePosition : std::uint32_t
{
    Append = 0,   ///< always to the end of the file
    AtOffset = 1, ///< to the stream's position
};

/// How to open a file for writing. A field may hold a number that its enumeration does not name.
struct ByteStreamOpenOptions
{
    ByteStreamReadAccess readAccess = ByteStreamReadAccess::None;
    ByteStreamCreate create = ByteStreamCreate::IfMissing;
    ByteStreamTruncate truncate = ByteStreamTruncate::Discard;
    ByteStreamWritePosition writePosition = ByteStreamWritePosition::Append;

    friend bool operator==(const ByteStreamOpenOptions&, const ByteStreamOpenOptions&) = default;
};

/// Write all four fields by name: "{readAccess=None, create=IfMissing, truncate=Discard, writePosition=AtOffset}".
/// A number without a name is written as the number.
FOUNDATION_EXPORT std::ostream& operator<<(std::ostream& stream, const ByteStreamOpenOptions& options);

} // namespace foundation::storage::provider
