#include <storage/clients/http/RequestBody.hpp>

#include <storage/clients/common/Content.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>

#include <algorithm>
#include <istream>
#include <numeric>

namespace storage::clients
{

void RequestBody::forEachPiece(const std::function<void(std::string_view)>& use)
{
    std::vector<char> buffer(64 * 1024);
    rewind();
    while (const std::size_t count = read(buffer.data(), buffer.size()))
    {
        use({buffer.data(), count});
    }
}

SpanBody::SpanBody(std::vector<std::string_view> pieces)
    : m_pieces(std::move(pieces))
    , m_size(std::accumulate(m_pieces.begin(), m_pieces.end(), std::uint64_t{0},
          [](std::uint64_t size, std::string_view piece) { return size + piece.size(); }))
{
}

void SpanBody::rewind()
{
    m_piece = 0;
    m_position = 0;
}

std::size_t SpanBody::read(char* target, std::size_t capacity)
{
    std::size_t count = 0;
    while (m_piece < m_pieces.size() && count < capacity)
    {
        const std::size_t copied = m_pieces[m_piece].copy(target + count, capacity - count, m_position);
        count += copied;
        m_position += copied;
        if (m_position == m_pieces[m_piece].size())
        {
            ++m_piece;
            m_position = 0;
        }
    }
    return count;
}

void SpanBody::forEachPiece(const std::function<void(std::string_view)>& use)
{
    for (const std::string_view piece : m_pieces)
    {
        use(piece);
    }
}

StreamBody::StreamBody(const std::string& key, std::istream& content, std::uint64_t size)
    : m_key(key)
    , m_content(content)
    , m_size(size)
    , m_start(content.tellg())
{
    if (m_start == -1)
    {
        m_content.clear();
        std::string bytes(size, '\0');
        readContent(key, m_content, bytes.data(), size);
        m_buffered.emplace(std::move(bytes));
    }
}

void StreamBody::rewind()
{
    if (m_buffered)
    {
        m_buffered->rewind();
        return;
    }
    m_position = 0;
    m_content.clear();
    if (!m_content.seekg(m_start))
    {
        throw cloudprovider::UnknownErrorException(
            "Content unreadable", "the content for \"" + m_key + "\" cannot be read again");
    }
}

std::size_t StreamBody::read(char* target, std::size_t capacity)
{
    if (m_buffered)
    {
        return m_buffered->read(target, capacity);
    }
    const std::size_t count = std::min<std::uint64_t>(capacity, m_size - m_position);
    readContent(m_key, m_content, target, count);
    m_position += count;
    return count;
}

void StreamBody::forEachPiece(const std::function<void(std::string_view)>& use)
{
    m_buffered ? m_buffered->forEachPiece(use) : RequestBody::forEachPiece(use);
}

} // namespace storage::clients
