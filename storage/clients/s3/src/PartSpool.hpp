#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>

namespace storage::clients::s3
{

/// Small parts of one upload that wait for what they will be sent with, in a temporary file without a name.
///
/// They would take memory without bound otherwise: a file that is rewritten in place consists of them. Safe for
/// concurrent calls on different parts.
class PartSpool
{
public:
    /// @param slot  bytes that no part exceeds
    explicit PartSpool(std::size_t slot)
        : m_slot(slot)
    {
    }
    PartSpool(const PartSpool&) = delete;
    PartSpool& operator=(const PartSpool&) = delete;
    ~PartSpool();

    /// Replace a part.
    /// @throws cloudprovider::UnknownErrorException when there is no room; the part's old bytes may then be gone
    void write(std::size_t index, const std::string& bytes);

    /// @throws cloudprovider::UnknownErrorException when the file cannot be read
    void read(std::size_t index, std::uint64_t offset, char* target, std::uint64_t size) const;

private:
    int openedFile();

    const std::size_t m_slot;
    mutable std::mutex m_mutex; // innermost; guards everything below
    int m_file = -1;            // -1: nothing was held yet
};

} // namespace storage::clients::s3
