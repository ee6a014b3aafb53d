#include "Uploads.hpp"

#include "StoreError.hpp"

#include <storage/clients/common/PartRules.hpp>
#include <storage/clients/common/RequiredVersions.hpp>

#include <boost/date_time/posix_time/posix_time_types.hpp>

#include <charconv>
#include <optional>

namespace storage::clients::local
{

namespace
{

[[noreturn]] void throwNoUpload(const std::string& uploadId)
{
    throw StoreError(StoreError::Kind::NotFound, "there is no such upload: " + uploadId);
}

std::int64_t numberOf(const std::string& uploadId)
{
    std::int64_t upload = 0;
    const char* const end = uploadId.data() + uploadId.size();
    if (const auto [rest, error] = std::from_chars(uploadId.data(), end, upload); error != std::errc() || rest != end)
    {
        throwNoUpload(uploadId);
    }
    return upload;
}

bool isInIndex(Connection& index, std::int64_t upload, const std::string& key)
{
    return index.query("SELECT 1 FROM uploads WHERE id = ? AND key = ?", upload, Blob{key}).next();
}

struct UploadPart
{
    std::int64_t content = 0;
    std::uint64_t size = 0;
    std::optional<std::int64_t> source;
};

std::optional<std::int64_t> optionalInteger(const Query& query, int column)
{
    return query.isNull(column) ? std::nullopt : std::optional(query.integer(column));
}

std::optional<UploadPart> findPart(Connection& index, std::int64_t upload, std::size_t part)
{
    Query query = index.query("SELECT content.id, content.size, part.source FROM upload_parts AS part"
                              " JOIN contents AS content ON content.id = part.content"
                              " WHERE part.upload = ? AND part.number = ?",
        upload, static_cast<std::int64_t>(part));
    if (!query.next())
    {
        return std::nullopt;
    }
    return UploadPart{query.integer(0), static_cast<std::uint64_t>(query.integer(1)), optionalInteger(query, 2)};
}

// Throw unless the new object may replace the stored one: others must not have changed it since it was read.
void checkReplacement(Connection& index, const std::string& key, std::int64_t upload,
    const std::vector<std::int64_t>& sources,
    const std::function<bool(std::int64_t stored, std::int64_t base)>& descends)
{
    const std::optional<StoredObject> stored = findObject(index, key);
    for (const std::int64_t source : sources)
    {
        if (!stored || stored->id != source)
        {
            throwOtherVersion(key, tagOf(source));
        }
    }
    Query query = index.query("SELECT base FROM uploads WHERE id = ?", upload);
    const auto base = query.next() ? optionalInteger(query, 0) : std::nullopt;
    if (base && (!stored || !descends(stored->id, *base)))
    {
        throwOtherVersion(key, tagOf(*base));
    }
}

} // namespace

std::string BegunUploads::begin(const std::string& key, std::optional<std::int64_t> base)
{
    const auto upload = static_cast<std::int64_t>(randomNumber() >> 1U); // an id of SQLite is not negative
    const std::lock_guard lock(m_mutex);
    m_begun[upload] = {key, base};
    return std::to_string(upload);
}

std::int64_t BegunUploads::require(Connection& index, const std::string& key, const std::string& uploadId) const
{
    const std::int64_t upload = numberOf(uploadId);
    // In this order: another thread may be storing the first part.
    if (!findWithoutParts(upload, key) && !isInIndex(index, upload, key))
    {
        throwNoUpload(uploadId);
    }
    return upload;
}

std::int64_t BegunUploads::requireForPart(
    StoreTransaction& transaction, const std::string& key, const std::string& uploadId)
{
    const std::int64_t upload = numberOf(uploadId);
    if (!isInIndex(transaction.index(), upload, key))
    {
        const std::optional<Begun> begun = findWithoutParts(upload, key);
        if (!begun)
        {
            throwNoUpload(uploadId);
        }
        transaction.index().run("INSERT INTO uploads VALUES (?, ?, ?, ?, ?)", upload, Blob{key},
            toMicroseconds(boost::posix_time::microsec_clock::universal_time()), transaction.session(), begun->base);
    }
    return upload;
}

void BegunUploads::partStored(std::int64_t upload)
{
    const std::lock_guard lock(m_mutex);
    if (const auto begun = m_begun.find(upload); begun != m_begun.end())
    {
        begun->second.hasParts = true;
    }
}

void BegunUploads::end(std::int64_t upload)
{
    const std::lock_guard lock(m_mutex);
    m_begun.erase(upload);
}

std::optional<BegunUploads::Begun> BegunUploads::findWithoutParts(std::int64_t upload, const std::string& key) const
{
    const std::lock_guard lock(m_mutex);
    const auto begun = m_begun.find(upload);
    const bool isFound = begun != m_begun.end() && begun->second.key == key && !begun->second.hasParts;
    return isFound ? std::optional(begun->second) : std::nullopt;
}

void endUploadsOfDeadClients(Database& database, ContentFiles& files)
{
    std::vector<std::int64_t> uploads;
    {
        Database::ReadTransaction index(database);
        Query query = index->query("SELECT id, session FROM uploads");
        while (query.next())
        {
            if (files.isDead(static_cast<std::uint64_t>(query.integer(1))))
            {
                uploads.push_back(query.integer(0));
            }
        }
    }
    if (uploads.empty())
    {
        return;
    }
    freeRoom(
        database,
        [&]
        {
            StoreTransaction transaction(database, files, Durability::Synced, LockWait(noWait));
            for (const std::int64_t upload : uploads)
            {
                endUpload(transaction, upload); // another client may have ended it meanwhile
            }
            transaction.commit();
        },
        LockWait(noWait));
}

std::vector<PendingUpload> listUploads(Connection& index)
{
    std::vector<PendingUpload> uploads;
    Query query = index.query("SELECT id, key, created FROM uploads ORDER BY created, id");
    while (query.next())
    {
        uploads.push_back(
            {std::string(query.bytes(1)), std::to_string(query.integer(0)), fromMicroseconds(query.integer(2))});
    }
    return uploads;
}

void setUploadPart(StoreTransaction& transaction, std::int64_t upload, std::size_t part, std::int64_t content,
    std::optional<std::int64_t> source)
{
    const std::optional<UploadPart> before = findPart(transaction.index(), upload, part);
    transaction.index().run("INSERT OR REPLACE INTO upload_parts VALUES (?, ?, ?, ?)", upload,
        static_cast<std::int64_t>(part), content, source);
    if (before)
    {
        transaction.release(before->content);
    }
}

bool endUpload(StoreTransaction& transaction, std::int64_t upload)
{
    if (!transaction.index().query("SELECT 1 FROM uploads WHERE id = ?", upload).next())
    {
        return false;
    }
    const std::int64_t removed = transaction.newId();
    transaction.index().run(
        "INSERT INTO object_parts SELECT ?, number, content FROM upload_parts WHERE upload = ?", removed, upload);
    transaction.index().run("DELETE FROM upload_parts WHERE upload = ?", upload);
    transaction.index().run("DELETE FROM uploads WHERE id = ?", upload);
    removeParts(transaction, removed);
    return true;
}

StoredObject completeUpload(StoreTransaction& transaction, const std::string& key, std::int64_t upload,
    const std::vector<cloudprovider::PartInfo>& parts,
    const std::function<bool(std::int64_t stored, std::int64_t base)>& descends)
{
    Connection& index = transaction.index();
    std::vector<std::int64_t> sources;
    checkPartList(key, parts,
        [&](std::size_t part) -> std::optional<SentPart>
        {
            const std::optional<UploadPart> sent = findPart(index, upload, part);
            if (sent && sent->source)
            {
                sources.push_back(*sent->source);
            }
            return sent ? std::optional(SentPart{tagOf(sent->content), sent->size}) : std::nullopt;
        });

    checkReplacement(index, key, upload, sources, descends);
    transaction.syncEarlierFiles();

    // The object takes over the references to the contents of the listed parts.
    const std::int64_t object = transaction.newId();
    std::uint64_t size = 0;
    for (const cloudprovider::PartInfo& part : parts)
    {
        const UploadPart sent = findPart(index, upload, part.Index).value();
        index.run("INSERT INTO object_parts VALUES (?, ?, ?)", object, static_cast<std::int64_t>(size), sent.content);
        index.run(
            "DELETE FROM upload_parts WHERE upload = ? AND number = ?", upload, static_cast<std::int64_t>(part.Index));
        size += sent.size;
    }
    endUpload(transaction, upload);
    return placeObject(transaction, key, object, size);
}

} // namespace storage::clients::local
