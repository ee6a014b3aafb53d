#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string>

namespace storage::clients
{

/// A range of bytes of an object.
struct ByteRange
{
    std::uint64_t offset = 0; ///< bytes from the start of the object
    std::uint64_t size = 0;   ///< bytes; 0: an empty range

    bool operator==(const ByteRange&) const = default;
};

/// Resolve the range [first, last] of a getObjectRange() call for an object of `objectSize` bytes.
///
/// (0, 0) is the whole object, even if it has one byte or none. The range is empty if `last` is less than `first`, even
/// beyond the end of the object.
/// @param key  for the error message
/// @throws UnknownErrorException when a range that is not empty ends beyond the object
ByteRange resolveRange(const std::string& key, std::uint64_t first, std::uint64_t last, std::uint64_t objectSize);

/// Read exactly `size` bytes of `content` into `target`. Bytes after them stay unread.
///
/// @param key  for the error message
/// @throws UnknownErrorException when the content ends earlier
void readContent(const std::string& key, std::istream& content, char* target, std::uint64_t size);

/// Write `size` bytes to `out`.
///
/// @param key  for the error message
/// @throws UnknownErrorException when the stream fails
void writeContent(const std::string& key, std::ostream& out, const char* bytes, std::uint64_t size);

} // namespace storage::clients
