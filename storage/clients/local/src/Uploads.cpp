#include "Uploads.hpp"

#include "Objects.hpp"
#include "StoreError.hpp"

#include <storage/clients/common/PartRules.hpp>

#include <boost/date_time/posix_time/posix_time_types.hpp>

#include <charconv>
#include <optional>

namespace storage::clients::local
{

namespace
{

struct UploadPart
{
    std::int64_t content = 0;
    std::uint64_t size = 0;
};

std::optional<UploadPart> findPart(Connection& index, std::int64_t upload, std::size_t part)
{
    Query query = index.query("SELECT content.id, content.size FROM upload_parts AS part"
                              " JOIN contents AS content ON content.id = part.content"
                              " WHERE part.upload = ? AND part.number = ?",
        upload, static_cast<std::int64_t>(part));
    if (!query.next())
    {
        return std::nullopt;
    }
    return UploadPart{query.integer(0), static_cast<std::uint64_t>(query.integer(1))};
}

} // namespace

std::int64_t beginUpload(StoreTransaction& transaction, const std::string& key)
{
    const std::int64_t upload = transaction.newId();
    transaction.index().run("INSERT INTO uploads VALUES (?, ?, ?)", upload, Blob{key},
        toMicroseconds(boost::posix_time::microsec_clock::universal_time()));
    return upload;
}

std::int64_t requireUpload(Connection& index, const std::string& key, const std::string& id)
{
    std::int64_t upload = 0;
    const auto [end, error] = std::from_chars(id.data(), id.data() + id.size(), upload);
    if (error != std::errc() || end != id.data() + id.size() ||
        !index.query("SELECT 1 FROM uploads WHERE id = ? AND key = ?", upload, Blob{key}).next())
    {
        throw StoreError(StoreError::Kind::NotFound, "there is no such upload: " + id);
    }
    return upload;
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

void setUploadPart(StoreTransaction& transaction, std::int64_t upload, std::size_t part, std::int64_t content)
{
    const std::optional<UploadPart> before = findPart(transaction.index(), upload, part);
    transaction.index().run(
        "INSERT OR REPLACE INTO upload_parts VALUES (?, ?, ?)", upload, static_cast<std::int64_t>(part), content);
    if (before)
    {
        transaction.release(before->content);
    }
}

void endUpload(StoreTransaction& transaction, std::int64_t upload)
{
    std::vector<std::int64_t> contents;
    Query parts = transaction.index().query("SELECT content FROM upload_parts WHERE upload = ?", upload);
    while (parts.next())
    {
        contents.push_back(parts.integer(0));
    }
    for (const std::int64_t content : contents)
    {
        transaction.release(content);
    }
    transaction.index().run("DELETE FROM upload_parts WHERE upload = ?", upload);
    transaction.index().run("DELETE FROM uploads WHERE id = ?", upload);
}

void completeUpload(StoreTransaction& transaction, const std::string& key, std::int64_t upload,
    const std::vector<cloudprovider::PartInfo>& parts)
{
    Connection& index = transaction.index();
    checkPartList(key, parts,
        [&](std::size_t part) -> std::optional<SentPart>
        {
            const std::optional<UploadPart> sent = findPart(index, upload, part);
            return sent ? std::optional(SentPart{tagOf(sent->content), sent->size}) : std::nullopt;
        });

    transaction.syncEarlierFiles();

    // The object takes over the upload's id, and the references to the contents of the listed parts.
    std::uint64_t size = 0;
    for (const cloudprovider::PartInfo& part : parts)
    {
        const UploadPart sent = findPart(index, upload, part.Index).value();
        index.run("INSERT INTO object_parts VALUES (?, ?, ?)", upload, static_cast<std::int64_t>(size), sent.content);
        index.run(
            "DELETE FROM upload_parts WHERE upload = ? AND number = ?", upload, static_cast<std::int64_t>(part.Index));
        size += sent.size;
    }
    endUpload(transaction, upload);
    placeObject(transaction, key, upload, size);
}

} // namespace storage::clients::local
