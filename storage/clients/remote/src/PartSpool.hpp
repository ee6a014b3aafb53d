#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>

namespace storage::clients
{

/// Bytes of a file that are mapped into memory, until destruction.
class MappedBytes
{
public:
    /// Map bytes that the file has. The descriptor may be closed afterwards.
    MappedBytes(int file, std::uint64_t offset, std::size_t size);
    MappedBytes(MappedBytes&& other) noexcept;
    MappedBytes& operator=(MappedBytes&&) = delete;
    ~MappedBytes();

    char* data() const noexcept { return m_begin; }
    std::size_t size() const noexcept { return m_size; }

private:
    void* m_mapping = nullptr; // begins at a page; null: no bytes
    char* m_begin = nullptr;
    std::size_t m_size;
};

/// Keeps bytes of one upload in an unnamed temporary file until they are sent.
///
/// In memory they would be unbounded: a file that is rewritten in place consists of small parts that wait for the
/// completion. Safe for concurrent calls.
class PartSpool
{
public:
    PartSpool() = default;
    PartSpool(const PartSpool&) = delete;
    PartSpool& operator=(const PartSpool&) = delete;
    ~PartSpool();

    struct Space
    {
        std::uint64_t position;
        MappedBytes bytes;
    };

    /// Allocate space, so that writing to it cannot fail, and map it.
    /// @throws cloudprovider::UnknownErrorException when there is no space
    Space allocate(std::size_t size);

    /// Map bytes of allocated space.
    /// @throws cloudprovider::UnknownErrorException when they cannot be mapped
    MappedBytes map(std::uint64_t position, std::size_t size) const;

    /// Return allocated space to the file system.
    void free(std::uint64_t position, std::size_t size) noexcept;

    /// Return all space. What is mapped stays until it is unmapped. Positions are never used again.
    void clear() noexcept;

    /// Whether space was allocated after the last clear().
    bool has(std::uint64_t position) const;

    /// Map `size` new bytes of a temporary file of their own, whose space is returned with the mapping.
    /// @throws cloudprovider::UnknownErrorException when there is no space
    static MappedBytes scratch(std::size_t size);

private:
    mutable std::mutex m_mutex; // innermost; guards everything below
    int m_file = -1;            // -1: nothing was allocated yet
    std::uint64_t m_begin = 0;  // of the allocated space, at a page
    std::uint64_t m_end = 0;    // likewise
};

} // namespace storage::clients
