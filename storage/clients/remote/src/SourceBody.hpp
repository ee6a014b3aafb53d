#pragma once

#include <storage/clients/common/ObjectUploader.hpp>
#include <storage/clients/http/RequestBody.hpp>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string_view>
#include <vector>

namespace storage::clients
{

/// A range of a source, which is read when it is hashed, and again when it is sent: so it needs no memory, and the
/// second time the bytes come from the system's cache.
class SourceBody : public RequestBody
{
public:
    /// @param source  must outlive the body
    SourceBody(const ObjectUploader::Source& source, std::uint64_t offset, std::uint64_t size)
        : m_source(source)
        , m_offset(offset)
        , m_size(size)
    {
    }

    void rewind() override { m_position = 0; }

    std::size_t read(char* target, std::size_t capacity) override
    {
        const std::size_t count = std::min<std::uint64_t>(capacity, m_size - m_position);
        if (count > 0)
        {
            m_source.read(m_offset + m_position, target, count);
            m_position += count;
        }
        if (m_position > m_sent)
        {
            m_source.sent(m_position - m_sent);
            m_sent = m_position;
        }
        return count;
    }

    std::uint64_t size() const noexcept override { return m_size; }

    void forEachPiece(const std::function<void(std::string_view)>& use) override
    {
        std::vector<char> buffer(std::min<std::uint64_t>(m_size, maxPieceSize));
        for (std::uint64_t position = 0; position < m_size; position += buffer.size())
        {
            const std::size_t count = std::min<std::uint64_t>(buffer.size(), m_size - position);
            m_source.read(m_offset + position, buffer.data(), count);
            use({buffer.data(), count});
        }
    }

private:
    static constexpr std::size_t maxPieceSize = 256 << 10; // bytes; stays in the processor's cache

    const ObjectUploader::Source& m_source;
    const std::uint64_t m_offset;
    const std::uint64_t m_size;
    std::uint64_t m_position = 0; // of read()
    std::uint64_t m_sent = 0;     // bytes that read() has returned so far
};

} // namespace storage::clients
