#include "StoreTransaction.hpp"

#include "Objects.hpp"
#include "StoreError.hpp"

namespace storage::clients::local
{

std::int64_t readNextId(Connection& index)
{
    Query query = index.query("SELECT next_id FROM store");
    if (!query.next())
    {
        throw damage("the index has lost its next id");
    }
    return query.integer(0);
}

StoreTransaction::StoreTransaction(
    Database& database, ContentFiles& files, Durability durability, std::optional<LockWait> wait)
    : m_durability(durability)
    , m_database(database)
    , m_files(files)
    , m_notes(files.session())
    , m_own(std::in_place, database, durability, wait)
    , m_index(&**m_own)
{
}

StoreTransaction::StoreTransaction(Database& database, ContentFiles& files, Connection& index)
    : m_durability(Durability::Synced)
    , m_database(database)
    , m_files(files)
    , m_notes(files.session())
    , m_index(&index)
{
}

StoreTransaction::~StoreTransaction()
{
    for (const FileName name : m_added)
    {
        m_files.remove(name);
    }
}

std::int64_t StoreTransaction::session()
{
    m_files.session().acquire();
    return static_cast<std::int64_t>(m_files.session().number());
}

std::int64_t StoreTransaction::newId()
{
    if (!m_nextId)
    {
        m_nextId = readNextId(index());
    }
    return (*m_nextId)++;
}

std::int64_t StoreTransaction::add(StagedContent& content)
{
    const std::int64_t id = newId();
    const auto size = static_cast<std::int64_t>(content.size());
    if (content.file())
    {
        m_added.reserve(m_added.size() + 1);
        const FileName name = m_files.publish(*content.file(), id, m_notes);
        m_added.push_back(name);
        m_filesToSync = true;
        const std::string hashes = content.hashes();
        index().run("INSERT INTO contents (id, refs, size, session, hashes) VALUES (?, 1, ?, ?, ?)", id, size,
            static_cast<std::int64_t>(name.session), Blob{hashes});
    }
    else
    {
        index().run("INSERT INTO contents (id, refs, size, data) VALUES (?, 1, ?, ?)", id, size, Blob{content.bytes()});
    }
    return id;
}

void StoreTransaction::share(std::int64_t content)
{
    index().run("UPDATE contents SET refs = refs + 1 WHERE id = ?", content);
}

void StoreTransaction::release(std::int64_t content)
{
    ++m_released;
    Query query = index().query("SELECT refs, session FROM contents WHERE id = ?", content);
    if (!query.next())
    {
        return; // the store is damaged; reading reports that, but a damaged object can still be replaced and removed
    }
    if (query.integer(0) > 1)
    {
        index().run("UPDATE contents SET refs = refs - 1 WHERE id = ?", content);
        return;
    }
    if (!query.isNull(1))
    {
        m_dropped.push_back({content, static_cast<std::uint64_t>(query.integer(1))});
    }
    index().run("DELETE FROM contents WHERE id = ?", content);
}

void StoreTransaction::prepareCommit()
{
    if (m_nextId)
    {
        index().run("UPDATE store SET next_id = ?", *m_nextId);
    }
    if (m_filesToSync && m_durability == Durability::Synced)
    {
        m_files.syncContentsFolder();
    }
    if (!m_dropped.empty() || m_hasRest)
    {
        m_files.prepareRemoval(m_dropped, m_notes);
    }
}

void StoreTransaction::commit(const std::function<void()>& committed)
{
    prepareCommit();
    try
    {
        m_own->commit();
    }
    catch (const StoreError& error)
    {
        commitFailed(error);
        throw;
    }
    if (m_durability == Durability::Synced || !m_added.empty())
    {
        m_files.setUnsynced(m_durability == Durability::Deferred); // while no other transaction of this client commits
    }
    m_added.clear();
    committed ? committed() : void();
    m_own.reset();
    finishCommit();
}

void StoreTransaction::commitFailed(const StoreError& error)
{
    // The commit may have reached the disk nevertheless. After a crash the index would then name the files that were
    // added, and no longer those that were dropped.
    if (error.kind() != StoreError::Kind::NoSpace)
    {
        m_files.leaveOrphans();
        m_added.clear();
    }
}

void StoreTransaction::finishCommit()
{
    removeDroppedFiles();
    m_database.shrink(m_released);
    if (m_hasRest)
    {
        dropRemoved(m_database, m_files);
    }
}

void commitShared(Database& database, ContentFiles& files, const std::function<void(StoreTransaction&)>& change,
    const std::function<void()>& committed)
{
    {
        std::optional<StoreTransaction> shared;
        bool isMade = false;
        const auto make = [&](Connection& index)
        {
            isMade = false;
            change(shared.emplace(database, files, index));
            shared->prepareCommit();
            isMade = true;
        };
        const auto whenCommitted = [&]
        {
            files.setUnsynced(false);
            committed();
        };
        try
        {
            if (database.commitShared({make, whenCommitted}))
            {
                return shared->finishCommit();
            }
        }
        catch (const StoreError& error)
        {
            isMade ? shared->commitFailed(error) : void(); // otherwise the change has failed, and was undone
            throw;
        }
    }
    StoreTransaction own(database, files, Durability::Synced);
    change(own);
    own.commit(committed);
}

void StoreTransaction::removeDroppedFiles()
{
    if (!m_dropped.empty() && m_durability == Durability::Deferred)
    {
        // A loss of power could undo this transaction and bring back the rows that name these files. Any later synced
        // transaction prevents that.
        try
        {
            StoreTransaction barrier(m_database, m_files, Durability::Synced);
            barrier.newId();
            barrier.commit();
        }
        catch (const StoreError&)
        {
            m_files.leaveOrphans();
            throw;
        }
    }
    for (const FileName name : m_dropped)
    {
        m_files.remove(name);
    }
}

} // namespace storage::clients::local
