#include "KeyIndexCursor.hpp"

#include "Objects.hpp"

namespace storage::clients::local
{

KeyIndexCursor::KeyIndexCursor(Connection& index)
    : m_query(index.query("SELECT key, size, modified FROM objects WHERE key >= ? ORDER BY key", Blob{m_from}))
{
}

void KeyIndexCursor::seek(const std::string& key)
{
    m_from = key;
    m_query.restart(Blob{m_from});
    next();
}

void KeyIndexCursor::next()
{
    m_atEnd = !m_query.next();
}

cloudprovider::ObjectEntry KeyIndexCursor::entry() const
{
    return {std::string(m_query.bytes(0)), static_cast<std::uint64_t>(m_query.integer(1)),
        fromMicroseconds(m_query.integer(2))};
}

} // namespace storage::clients::local
