#include <storage/clients/http/RequestBody.hpp>

#include <storage/clients/common/Content.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>

#include <algorithm>
#include <istream>

namespace storage::clients
{

namespace
{

constexpr std::streamoff unseekable = -1;

std::size_t readFrom(const std::string& text, std::uint64_t& position, char* target, std::size_t capacity)
{
    const std::size_t count = std::min<std::size_t>(capacity, text.size() - position);
    std::copy_n(text.data() + position, count, target);
    position += count;
    return count;
}

} // namespace

std::size_t TextBody::read(char* target, std::size_t capacity)
{
    return readFrom(m_text, m_position, target, capacity);
}

StreamBody::StreamBody(const std::string& key, std::istream& content, std::uint64_t size)
    : m_key(key)
    , m_content(content)
    , m_size(size)
    , m_start(content.tellg())
{
    if (m_start == unseekable)
    {
        m_content.clear();
        m_buffered.resize(size);
        readContent(key, m_content, m_buffered.data(), size);
    }
}

void StreamBody::rewind()
{
    m_position = 0;
    if (m_start != unseekable)
    {
        m_content.clear();
        if (!m_content.seekg(m_start))
        {
            throw cloudprovider::UnknownErrorException(
                "Content unreadable", "the content for \"" + m_key + "\" cannot be read again");
        }
    }
}

std::size_t StreamBody::read(char* target, std::size_t capacity)
{
    if (m_start == unseekable)
    {
        return readFrom(m_buffered, m_position, target, capacity);
    }
    const std::size_t count = std::min<std::uint64_t>(capacity, m_size - m_position);
    readContent(m_key, m_content, target, count);
    m_position += count;
    return count;
}

} // namespace storage::clients
