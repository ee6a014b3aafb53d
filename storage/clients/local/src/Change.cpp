#include "Change.hpp"

#include "Failure.hpp"

namespace storage::clients::local
{

Change::Change(Database& database, ContentFiles& files)
    : m_writing(database)
    , m_files(files)
{
}

Change::~Change()
{
    for (const FileName name : m_added)
    {
        m_files.remove(name);
    }
}

std::int64_t Change::newNumber()
{
    Query query = index().query("UPDATE store SET next_id = next_id + 1 RETURNING next_id - 1");
    if (!query.next())
    {
        throw Failure("the index is damaged: it has lost its count");
    }
    const std::int64_t number = query.integer(0);
    query.next(); // the update is done when the query has ended
    return number;
}

std::int64_t Change::add(StagedContent& content)
{
    const std::int64_t number = newNumber();
    const auto size = static_cast<std::int64_t>(content.size());
    if (content.file())
    {
        m_added.reserve(m_added.size() + 1);
        const FileName name = m_files.publish(*content.file(), number);
        m_added.push_back(name);
        index().run("INSERT INTO contents (id, refs, size, session) VALUES (?, 1, ?, ?)", number, size,
            static_cast<std::int64_t>(name.session));
    }
    else
    {
        index().run(
            "INSERT INTO contents (id, refs, size, data) VALUES (?, 1, ?, ?)", number, size, Blob{content.bytes()});
    }
    return number;
}

void Change::share(std::int64_t content)
{
    index().run("UPDATE contents SET refs = refs + 1 WHERE id = ?", content);
}

void Change::release(std::int64_t content)
{
    Query last = index().query("DELETE FROM contents WHERE id = ? AND refs = 1 RETURNING session", content);
    if (!last.next())
    {
        index().run("UPDATE contents SET refs = refs - 1 WHERE id = ?", content);
        return;
    }
    if (!last.isNull(0))
    {
        m_dropped.push_back({content, static_cast<std::uint64_t>(last.integer(0))});
    }
    last.next();
}

void Change::commit()
{
    if (!m_dropped.empty())
    {
        m_files.expectRemoval();
    }
    try
    {
        m_writing.commit();
    }
    catch (const Failure& failure)
    {
        // The disk may have taken the change although it says that it failed, and would name these files again.
        if (failure.kind() != Failure::Kind::NoSpace)
        {
            m_files.leaveForCollection();
            m_added.clear();
        }
        throw;
    }
    m_added.clear();
    for (const FileName name : m_dropped)
    {
        m_files.remove(name);
    }
}

} // namespace storage::clients::local
