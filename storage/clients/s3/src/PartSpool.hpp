#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>

namespace storage::clients::s3
{

/// Keeps the small parts of one upload in an unnamed temporary file until they are sent together with their neighbours.
///
/// In memory they would be unbounded: a file that is rewritten in place consists of them. Safe for concurrent calls on
/// different parts.
class PartSpool
{
public:
    /// @param slot  maximum bytes of a part
    explicit PartSpool(std::size_t slot)
        : m_slot(slot)
    {
    }
    PartSpool(const PartSpool&) = delete;
    PartSpool& operator=(const PartSpool&) = delete;
    ~PartSpool();

    /// Write a part, replacing an earlier one with the same index.
    /// @throws cloudprovider::UnknownErrorException when there is no space; the part's old bytes may then be lost
    void write(std::size_t index, const std::string& bytes);

    /// @throws cloudprovider::UnknownErrorException when the file cannot be read
    void read(std::size_t index, std::uint64_t offset, char* target, std::uint64_t size) const;

private:
    int openedFile();

    const std::size_t m_slot;
    mutable std::mutex m_mutex; // innermost; guards everything below
    int m_file = -1;            // -1: no part was written yet
};

} // namespace storage::clients::s3
