#include "Objects.hpp"

#include "StoreError.hpp"

#include <storage/cloudprovider/Logger.hpp>

#include <foundation/log/Severity.hpp>

#include <fmt/format.h>

#include <boost/date_time/gregorian/gregorian_types.hpp>

namespace storage::clients::local
{

namespace
{

const boost::posix_time::ptime& epoch()
{
    static const boost::posix_time::ptime time(boost::gregorian::date(1970, 1, 1));
    return time;
}

std::optional<std::int64_t> findRemoved(Connection& index)
{
    Query query = index.query("SELECT object FROM removed LIMIT 1");
    return query.next() ? std::optional(query.integer(0)) : std::nullopt;
}

// Drop parts of a version of an object that was removed.
//
// @return whether none is left
bool dropParts(StoreTransaction& transaction, std::int64_t object)
{
    // On a full disk, the write-ahead log has room for about 120 pages. The rows of 6 parts of 5 MiB fill a page.
    constexpr std::size_t maxDropped = 128;
    // A separate query: DELETE ... RETURNING would create a temporary table on every call.
    std::vector<std::int64_t> contents;
    std::int64_t last = -1;
    Query parts =
        transaction.index().query("SELECT content, offset FROM object_parts WHERE object = ? ORDER BY offset", object);
    while (contents.size() < maxDropped && parts.next())
    {
        contents.push_back(parts.integer(0));
        last = parts.integer(1);
    }
    const bool isLast = contents.size() < maxDropped || !parts.next();
    transaction.index().run("DELETE FROM object_parts WHERE object = ? AND offset <= ?", object, last);
    for (const std::int64_t content : contents)
    {
        transaction.release(content);
    }
    return isLast;
}

} // namespace

std::string tagOf(std::int64_t id)
{
    return std::to_string(id);
}

std::int64_t idOf(const std::string& tag)
{
    return std::stoll(tag);
}

std::int64_t toMicroseconds(const boost::posix_time::ptime& time)
{
    return (time - epoch()).total_microseconds();
}

boost::posix_time::ptime fromMicroseconds(std::int64_t microseconds)
{
    return epoch() + boost::posix_time::microseconds(microseconds);
}

std::optional<StoredObject> findObject(Connection& index, const std::string& key)
{
    Query query = index.query("SELECT id, size, modified FROM objects WHERE key = ?", Blob{key});
    if (!query.next())
    {
        return std::nullopt;
    }
    return StoredObject{
        query.integer(0), static_cast<std::uint64_t>(query.integer(1)), fromMicroseconds(query.integer(2))};
}

StoredObject requireObject(Connection& index, const std::string& key)
{
    if (const std::optional<StoredObject> object = findObject(index, key))
    {
        return *object;
    }
    throw StoreError(StoreError::Kind::NotFound, "there is no such object");
}

std::vector<StoredPart> findParts(Connection& index, std::int64_t object, std::uint64_t first, std::uint64_t last)
{
    Query query = index.query("SELECT part.offset, content.size, content.id FROM object_parts AS part"
                              " LEFT JOIN contents AS content ON content.id = part.content"
                              " WHERE part.object = ?1 AND part.offset <= ?3 AND part.offset >= coalesce("
                              "(SELECT offset FROM object_parts WHERE object = ?1 AND offset <= ?2"
                              " ORDER BY offset DESC LIMIT 1), 0)"
                              " ORDER BY part.offset",
        object, static_cast<std::int64_t>(first), static_cast<std::int64_t>(last));
    std::vector<StoredPart> parts;
    while (query.next())
    {
        if (query.isNull(2))
        {
            throw damage("the index has lost a part of the object");
        }
        parts.push_back({query.integer(2), static_cast<std::uint64_t>(query.integer(0)),
            static_cast<std::uint64_t>(query.integer(1))});
    }
    return parts;
}

std::vector<cloudprovider::PartInfo> toPartInfos(const std::vector<StoredPart>& parts)
{
    std::vector<cloudprovider::PartInfo> infos;
    infos.reserve(parts.size());
    for (const StoredPart& part : parts)
    {
        infos.push_back({infos.size(), part.offset, part.size, tagOf(part.content)});
    }
    return infos;
}

StoredObject putObject(StoreTransaction& transaction, const std::string& key, StagedContent& content)
{
    const std::int64_t object = transaction.newId();
    if (content.size() > 0) // an empty object has no parts
    {
        transaction.index().run("INSERT INTO object_parts VALUES (?, 0, ?)", object, transaction.add(content));
    }
    return placeObject(transaction, key, object, content.size());
}

StoredObject placeObject(StoreTransaction& transaction, const std::string& key, std::int64_t object, std::uint64_t size)
{
    removeObject(transaction, key);
    const StoredObject placed{object, size, boost::posix_time::microsec_clock::universal_time()};
    transaction.index().run("INSERT INTO objects VALUES (?, ?, ?, ?)", Blob{key}, object,
        static_cast<std::int64_t>(size), toMicroseconds(placed.modified));
    return placed;
}

void removeObject(StoreTransaction& transaction, const std::string& key)
{
    const std::optional<StoredObject> object = findObject(transaction.index(), key);
    if (!object)
    {
        return;
    }
    transaction.index().run("DELETE FROM objects WHERE key = ?", Blob{key});
    removeParts(transaction, object->id);
}

void removeParts(StoreTransaction& transaction, std::int64_t object)
{
    if (!dropParts(transaction, object))
    {
        transaction.index().run("INSERT INTO removed VALUES (?)", object);
        transaction.leaveRest();
    }
}

void dropRemoved(Database& database, ContentFiles& files, std::optional<LockWait> wait)
try
{
    const auto find = [&]
    {
        Database::ReadTransaction index(database);
        return findRemoved(*index);
    };
    while (const std::optional<std::int64_t> object = find())
    {
        freeRoom(
            database,
            [&]
            {
                StoreTransaction transaction(database, files, Durability::Synced, wait);
                if (dropParts(transaction, *object))
                {
                    transaction.index().run("DELETE FROM removed WHERE object = ?", *object);
                }
                transaction.commit();
            },
            wait);
    }
}
catch (const StoreError& error)
{
    cloudprovider::getLogger().write(foundation::log::severity::warning,
        fmt::format("Leaving parts of a removed object in a local store: {}", error.what()));
    files.leaveOrphans(); // the next client that opens the store goes on
}

} // namespace storage::clients::local
