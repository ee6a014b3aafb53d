#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string>

namespace storage::clients
{

/// The bytes that a range asks for.
struct ByteRange
{
    std::uint64_t offset = 0; ///< bytes from the start of the object
    std::uint64_t size = 0;   ///< bytes; 0: nothing is asked for

    bool operator==(const ByteRange&) const = default;
};

/// Tell what getObjectRange() means by [first, last] on an object of `objectSize` bytes.
///
/// (0, 0) is the whole object, also when it has one byte or none. A last byte before the first asks for nothing,
/// wherever the range lies.
/// @throws UnknownErrorException when the range ends beyond the object
ByteRange resolveRange(const std::string& key, std::uint64_t first, std::uint64_t last, std::uint64_t objectSize);

/// Read exactly `size` bytes of `content` into `target`; what follows them stays unread.
///
/// @throws UnknownErrorException when the content ends earlier
void readContent(const std::string& key, std::istream& content, char* target, std::uint64_t size);

/// Write all bytes to `out`.
///
/// @throws UnknownErrorException when the stream does not take them
void writeContent(const std::string& key, std::ostream& out, const char* bytes, std::uint64_t size);

} // namespace storage::clients
