#pragma once

#include "MemoryBudget.hpp"
#include "PartSpool.hpp"

#include <cstddef>
#include <optional>
#include <string_view>

namespace storage::clients
{

/// The bytes of a part while it is sent: in a buffer of the client, or in a temporary file if there is none for it.
class PartBytes
{
public:
    /// Waits while other parts have all buffers.
    /// @throws cloudprovider::UnknownErrorException when there is no space in the file system
    PartBytes(MemoryBudget& memory, std::size_t size)
        : m_buffer(memory.acquireForPart(size))
        , m_size(size)
    {
        if (!m_buffer)
        {
            m_file.emplace(PartSpool::scratch(size));
        }
    }

    bool isInMemory() const noexcept { return m_buffer.has_value(); }
    char* data() noexcept { return m_buffer ? m_buffer->data() : m_file->data(); }
    std::string_view view() noexcept { return {data(), m_size}; }

private:
    std::optional<MemoryBudget::Lease> m_buffer;
    std::optional<MappedBytes> m_file;
    std::size_t m_size;
};

} // namespace storage::clients
