#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace storage::clients
{

/// Immutable bytes that can be cut and joined without copying: a list of slices of shared buffers.
///
/// A value; copies share the buffers and may be read from any thread.
class SharedBytes
{
public:
    SharedBytes() = default;

    /// Copy the bytes.
    explicit SharedBytes(std::string_view bytes);

    /// Read exactly `size` bytes; `key` is for the message. @throws UnknownErrorException when the content ends earlier
    SharedBytes(const std::string& key, std::istream& content, std::uint64_t size);

    std::uint64_t size() const noexcept { return m_size; }

    /// Add `size` bytes of `source` from `offset`, which must lie within it. Shares them.
    void append(const SharedBytes& source, std::uint64_t offset, std::uint64_t size);

    /// Write `size` bytes from `offset`, which must lie within. @throws UnknownErrorException when `out` fails
    void write(const std::string& key, std::ostream& out, std::uint64_t offset, std::uint64_t size) const;

private:
    struct Slice
    {
        std::shared_ptr<const char[]> buffer;
        std::size_t offset = 0; // in the buffer
        std::size_t size = 0;   // never 0
    };

    /// Call use(slice, offset in the slice, size) for each slice that the range touches, in order.
    template <typename Use>
    void forEach(std::uint64_t offset, std::uint64_t size, Use use) const;

    std::vector<Slice> m_slices;
    std::uint64_t m_size = 0;
};

} // namespace storage::clients
