#include <storage/clients/local/LocalClient.hpp>

#include "ContentFiles.hpp"
#include "Database.hpp"
#include "KeyIndexCursor.hpp"
#include "Objects.hpp"
#include "OrphanCollector.hpp"
#include "Schema.hpp"
#include "Segments.hpp"
#include "StagedContent.hpp"
#include "StoreError.hpp"
#include "StoreTransaction.hpp"
#include "TranslateErrors.hpp"
#include "Uploads.hpp"

#include <storage/clients/common/Content.hpp>
#include <storage/clients/common/KeyRules.hpp>
#include <storage/clients/common/Listing.hpp>
#include <storage/clients/common/PartRules.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>

#include <fmt/format.h>

#include <algorithm>
#include <limits>
#include <list>
#include <optional>
#include <system_error>
#include <utility>
#include <vector>

namespace storage::clients
{

using cloudprovider::ObjectEntry;
using cloudprovider::ObjectInfo;
using cloudprovider::PartInfo;
using local::Database;
using local::Durability;
using local::Segment;
using local::StagedContent;
using local::StoredObject;
using local::StoredPart;
using local::StoreError;
using local::StoreTransaction;
using local::translateErrors;

namespace
{

constexpr std::size_t pageSize = 1000; // entries; about 100 KiB of keys
// Keys, or contents, that one transaction removes: so many that the sync of each commit costs little per key, and so
// few that other writers wait briefly. The key that reaches the limit may release some more: see removeParts().
constexpr std::size_t maxTogether = 256;

constexpr std::uint64_t maxOffset = std::numeric_limits<std::int64_t>::max(); // the largest integer of SQLite

Version versionOf(const StoredObject& object)
{
    return {local::tagOf(object.id), object.size};
}

// Throw the error on if the next key would also have to wait until it fails. To be called in the error's handler.
void throwIfLocked(const StoreError& error)
{
    if (error.kind() == StoreError::Kind::Locked)
    {
        throw;
    }
}

// Find the object that a part is to be copied from and its parts in that range, and check that they are those that the
// caller knows.
std::pair<StoredObject, std::vector<StoredPart>> findSource(
    local::Connection& index, const std::string& key, const PartInfo& part)
{
    const std::uint64_t first = std::min<std::uint64_t>(part.Offset, maxOffset);
    const std::uint64_t rest = part.Size == 0 ? 0 : part.Size - 1;
    const std::uint64_t last = rest < maxOffset - first ? first + rest : maxOffset;
    const StoredObject object = requireObject(index, key);
    std::vector<StoredPart> source = findParts(index, object.id, first, last);
    checkCopySource(key, part, toPartInfos(source));
    return {object, std::move(source)};
}

} // namespace

template <typename Body>
auto LocalClient::perform(Operation operation, const std::string& key, Body body)
{
    return translateErrors(
        body, [&] { return fmt::format("{} {} in \"{}\"", name(operation), quoted(key), m_directory.native()); });
}

LocalClient::LocalClient(const std::filesystem::path& directory, const LocalSettings& settings)
    : m_directory(translateErrors(
          [&] { return std::filesystem::absolute(directory); }, [] { return std::string("opening a local store"); }))
    , m_settings(settings)
    , m_uploads(std::make_unique<local::BegunUploads>())
{
    translateErrors(
        [&]
        {
            const local::LockLimits limits{m_settings.lockTimeout, m_settings.interrupted};
            local::prepareIndex(m_directory, m_settings.createMissing, limits);
            m_index = std::make_unique<Database>(local::indexFile(m_directory), limits);
            m_files = std::make_unique<local::ContentFiles>(m_directory);
            local::collectOrphans(*m_index, *m_files);
        },
        [&] { return fmt::format("opening the local store \"{}\"", m_directory.native()); });
}

LocalClient::~LocalClient() = default;

ObjectInfo LocalClient::getObjectInfo(const std::string& key)
{
    return perform(Operation::GetObjectInfo, key,
        [&]() -> ObjectInfo
        {
            if (key.empty()) // the root
            {
                return {true, {}, 0, {}};
            }
            Database::ReadTransaction index(*m_index);
            const std::optional<StoredObject> object = findObject(*index, key);
            return object ? ObjectInfo{true, local::tagOf(object->id), object->size, object->modified} : ObjectInfo{};
        });
}

void LocalClient::validateObjectName(const std::string& name)
{
    checkObjectName(name);
}

std::vector<ObjectEntry> LocalClient::listObjects(
    const std::string& prefix, std::string& continuationToken, const cloudprovider::ListOptions& options)
{
    return perform(Operation::ListObjects, prefix,
        [&]
        {
            Database::ReadTransaction index(*m_index);
            local::KeyIndexCursor cursor(*index);
            return listPage(cursor, prefix, continuationToken, options, pageSize);
        });
}

void LocalClient::deleteObject(const std::string& key)
{
    const VersionPins::Deletion deletion(m_pins, key);
    perform(Operation::DeleteObject, key, [&] { deleteAlone(key); });
}

std::map<std::string, std::exception_ptr> LocalClient::deleteObjects(const std::vector<std::string>& keys)
{
    std::list<VersionPins::Deletion> deletions;
    for (const std::string& key : keys)
    {
        deletions.emplace_back(m_pins, key);
    }
    std::map<std::string, std::exception_ptr> failures;
    for (std::span<const std::string> rest = keys; !rest.empty();)
    {
        const auto deleteSome = [&]
        {
            try
            {
                return deleteTogether(rest, failures);
            }
            catch (const StoreError& error)
            {
                throwIfLocked(error);
                // The log has no room for so many changes, or a key has failed: which one, and why?
                const auto some = rest.first(std::min(maxTogether, rest.size()));
                deleteOneByOne(some, failures);
                return some.size();
            }
        };
        rest = rest.subspan(translateErrors(deleteSome,
            [&] { return fmt::format("deleting {} objects in \"{}\"", rest.size(), m_directory.native()); }));
    }
    return failures;
}

void LocalClient::deleteAlone(const std::string& key)
{
    local::freeRoom(*m_index,
        [&]
        {
            StoreTransaction transaction(*m_index, *m_files, Durability::Synced);
            checkRequired(transaction.index(), key);
            removeObject(transaction, key);
            transaction.commit();
        });
}

std::size_t LocalClient::deleteTogether(
    std::span<const std::string> keys, std::map<std::string, std::exception_ptr>& failures)
{
    std::map<std::string, std::exception_ptr> refused;
    StoreTransaction transaction(*m_index, *m_files, Durability::Synced);
    std::size_t done = 0;
    for (; done < std::min(maxTogether, keys.size()) && transaction.released() < maxTogether; ++done)
    {
        try
        {
            checkRequired(transaction.index(), keys[done]);
        }
        catch (const cloudprovider::CloudException&)
        {
            refused.emplace(keys[done], std::current_exception());
            continue;
        }
        removeObject(transaction, keys[done]);
    }
    transaction.commit();
    failures.merge(refused);
    return done;
}

void LocalClient::deleteOneByOne(std::span<const std::string> keys, std::map<std::string, std::exception_ptr>& failures)
{
    for (const std::string& key : keys)
    {
        const auto tryOne = [&]
        {
            try
            {
                deleteAlone(key);
            }
            catch (const StoreError& error)
            {
                throwIfLocked(error);
                perform(Operation::DeleteObject, key, [] { throw; });
            }
        };
        try
        {
            tryOne();
        }
        catch (const cloudprovider::CloudException&)
        {
            failures.emplace(key, std::current_exception());
        }
    }
}

void LocalClient::getObjectRange(const std::string& key, std::ostream& out, std::uint64_t first, std::uint64_t last)
{
    perform(Operation::GetObjectRange, key,
        [&]
        {
            const auto find = [&]
            {
                Database::ReadTransaction index(*m_index);
                return requireObject(*index, key);
            };
            const auto write = [&](const Segment& segment) {
                readSegment(
                    segment, [&](const char* bytes, std::uint64_t count) { writeContent(key, out, bytes, count); });
            };
            m_pins.read(key,
                [&](const std::optional<Version>& pinned)
                {
                    for (;;)
                    {
                        const StoredObject object = find();
                        if (pinned && pinned->tag != local::tagOf(object.id))
                        {
                            return false;
                        }
                        const ByteRange range = resolveRange(key, first, last, object.size);
                        if (readSegments(*m_index, *m_files, object.id, range.offset, range.offset + range.size, write))
                        {
                            return true;
                        }
                        // The object was replaced or removed after find(); try again.
                    }
                });
        });
}

void LocalClient::putObject(const std::string& key, std::istream& content, std::uint64_t size)
{
    perform(Operation::PutObject, key,
        [&]
        {
            checkKey(key);
            StagedContent staged = stage(size);
            staged.receive(key, content);
            VersionPins::Write write(m_pins, key);
            StoredObject object;
            const auto change = [&](StoreTransaction& transaction)
            {
                checkRequired(transaction.index(), key);
                object = local::putObject(transaction, key, staged);
            };
            const auto committed = [&] { write.succeeded(versionOf(object)); };
            if (!staged.file())
            {
                return commitShared(*m_index, *m_files, change, committed);
            }
            StoreTransaction transaction(*m_index, *m_files, Durability::Synced);
            change(transaction);
            transaction.commit(committed);
        });
}

std::vector<PartInfo> LocalClient::getObjectParts(const std::string& key)
{
    return perform(Operation::GetObjectParts, key,
        [&]
        {
            VersionPins::Opening opening(m_pins, key);
            Database::ReadTransaction index(*m_index);
            const StoredObject object = requireObject(*index, key);
            std::vector<PartInfo> parts = toPartInfos(findParts(*index, object.id, 0, maxOffset));
            opening.opened(versionOf(object));
            return parts;
        });
}

std::string LocalClient::createMultipartUpload(const std::string& key, const std::string& tag)
{
    return perform(Operation::CreateMultipartUpload, key,
        [&]
        {
            const std::optional<Version> base = tag.empty() ? std::nullopt : m_pins.pinned(key);
            return m_uploads->begin(key, base ? std::optional(local::idOf(base->tag)) : std::nullopt);
        });
}

std::string LocalClient::uploadPart(
    const std::string& key, const std::string& uploadId, const PartInfo& part, std::istream& content)
{
    return perform(Operation::UploadPart, key,
        [&]
        {
            {
                // Also checked here, so that a missing upload is reported before all bytes are transferred.
                Database::ReadTransaction index(*m_index);
                m_uploads->require(*index, key, uploadId);
            }
            checkKey(key); // not when the upload is opened, because a close might hide that failure
            StagedContent staged = stage(part.Size);
            staged.receive(key, content);
            return storePart(key, uploadId, part, staged, std::nullopt);
        });
}

std::string LocalClient::copyPart(const std::string& key, const std::string& uploadId, const PartInfo& part)
{
    return perform(Operation::CopyPart, key,
        [&]
        {
            const std::optional<std::string> tag = sharePart(key, uploadId, part);
            return tag ? *tag : copyRange(key, uploadId, part);
        });
}

void LocalClient::abortMultipartUpload(const std::string& key, const std::string& uploadId)
{
    perform(Operation::AbortMultipartUpload, key,
        [&]
        {
            local::freeRoom(*m_index,
                [&]
                {
                    StoreTransaction transaction(*m_index, *m_files, Durability::Synced);
                    const std::int64_t upload = m_uploads->require(transaction.index(), key, uploadId);
                    const bool hasParts = endUpload(transaction, upload);
                    m_uploads->end(upload);
                    if (hasParts)
                    {
                        transaction.commit();
                    }
                });
        });
}

void LocalClient::completeMultipartUpload(
    const std::string& key, const std::string& uploadId, const std::vector<PartInfo>& parts)
{
    perform(Operation::CompleteMultipartUpload, key,
        [&]
        {
            VersionPins::Write write(m_pins, key);
            StoreTransaction transaction(*m_index, *m_files, Durability::Synced);
            const std::int64_t upload = m_uploads->require(transaction.index(), key, uploadId);
            checkRequired(transaction.index(), key);
            const StoredObject object = completeUpload(transaction, key, upload, parts,
                [&](std::int64_t stored, std::int64_t base)
                { return m_pins.descends(key, local::tagOf(stored), local::tagOf(base)); });
            m_uploads->end(upload);
            transaction.commit([&] { write.succeeded(versionOf(object)); });
        });
}

std::optional<PinnedVersion> LocalClient::pinnedVersion(const std::string& key)
{
    return m_pins.certain(key);
}

std::vector<PendingUpload> LocalClient::pendingUploads()
{
    return translateErrors(
        [&]
        {
            Database::ReadTransaction index(*m_index);
            return local::listUploads(*index);
        },
        [&] { return fmt::format("listing the open uploads in \"{}\"", m_directory.native()); });
}

std::unique_ptr<WriteConditions::Condition> LocalClient::requireVersion(const std::string& key, const std::string& tag)
{
    return m_required.require(key, tag);
}

// To be called in the transaction that writes the key.
void LocalClient::checkRequired(local::Connection& index, const std::string& key) const
{
    if (const std::optional<std::string> required = m_required.find(key))
    {
        const std::optional<StoredObject> stored = findObject(index, key);
        checkRequiredVersion(key, required, stored ? local::tagOf(stored->id) : "");
    }
}

StagedContent LocalClient::stage(std::uint64_t size)
{
    return {*m_files, size, size > m_settings.maxInlineSize};
}

std::string LocalClient::storePart(const std::string& key, const std::string& uploadId, const PartInfo& part,
    StagedContent& content, std::optional<std::int64_t> source)
{
    StoreTransaction transaction(*m_index, *m_files, Durability::Deferred);
    const std::int64_t upload = m_uploads->requireForPart(transaction, key, uploadId);
    const std::int64_t stored = transaction.add(content);
    setUploadPart(transaction, upload, part.Index, stored, source);
    transaction.commit();
    m_uploads->partStored(upload);
    return local::tagOf(stored);
}

std::optional<std::string> LocalClient::sharePart(
    const std::string& key, const std::string& uploadId, const PartInfo& part)
{
    StoreTransaction transaction(*m_index, *m_files, Durability::Deferred);
    const std::int64_t upload = m_uploads->requireForPart(transaction, key, uploadId);
    const auto [object, source] = findSource(transaction.index(), key, part);
    const auto same = std::find_if(source.begin(), source.end(),
        [&](const StoredPart& stored) { return stored.offset == part.Offset && stored.size == part.Size; });
    if (same == source.end())
    {
        return std::nullopt;
    }
    transaction.share(same->content);
    setUploadPart(transaction, upload, part.Index, same->content, object.id);
    transaction.commit();
    m_uploads->partStored(upload);
    return local::tagOf(same->content);
}

std::string LocalClient::copyRange(const std::string& key, const std::string& uploadId, const PartInfo& part)
{
    for (;;)
    {
        const StoredObject object = [&]
        {
            Database::ReadTransaction index(*m_index);
            return findSource(*index, key, part).first;
        }();
        StagedContent staged = stage(part.Size);
        const bool whole = readSegments(*m_index, *m_files, object.id, part.Offset, part.Offset + part.Size,
            [&](const Segment& segment) { staged.append(segment); });
        if (whole)
        {
            staged.sync();
            return storePart(key, uploadId, part, staged, object.id);
        }
        // The object was replaced after it was found; try again.
    }
}

} // namespace storage::clients
