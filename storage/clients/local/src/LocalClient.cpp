#include <storage/clients/local/LocalClient.hpp>

#include "Change.hpp"
#include "ContentFiles.hpp"
#include "Database.hpp"
#include "Failure.hpp"
#include "KeyIndexCursor.hpp"
#include "LeftOvers.hpp"
#include "Objects.hpp"
#include "Pieces.hpp"
#include "Schema.hpp"
#include "StagedContent.hpp"
#include "Uploads.hpp"

#include <storage/clients/common/Content.hpp>
#include <storage/clients/common/KeyRules.hpp>
#include <storage/clients/common/Listing.hpp>
#include <storage/clients/common/PartRules.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>

#include <fmt/format.h>

#include <algorithm>
#include <limits>
#include <optional>
#include <system_error>
#include <vector>

namespace storage::clients
{

using cloudprovider::ObjectEntry;
using cloudprovider::ObjectInfo;
using cloudprovider::PartInfo;
using local::Change;
using local::Database;
using local::Durability;
using local::Failure;
using local::Piece;
using local::StagedContent;
using local::StoredObject;
using local::StoredPart;

namespace
{

constexpr std::size_t pageSize = 1000;                                          // entries; about 100 KiB of keys
constexpr std::uint64_t readBuffer = 256 * 1024;                                // bytes; larger ones are not faster
constexpr std::uint64_t wholeObject = std::numeric_limits<std::int64_t>::max(); // the last offset that SQLite knows

[[noreturn]] void throwCloud(const Failure& failure, const std::string& doing)
{
    const std::string detail = doing + ": " + failure.what();
    switch (failure.kind())
    {
    case Failure::Kind::NotFound:
        throw cloudprovider::ResourceNotFoundException(detail);
    case Failure::Kind::NotAStore:
        throw cloudprovider::InvalidLocationException("Not a local store", detail);
    case Failure::Kind::PermissionDenied:
        throw cloudprovider::PermissionDeniedException("Access to the local store refused", detail);
    case Failure::Kind::NoSpace:
    case Failure::Kind::Other:
        break;
    }
    throw cloudprovider::UnknownErrorException("Local store failed", detail);
}

// The one place where what goes wrong inside the store becomes what its users see.
template <typename Body, typename Doing>
auto translated(Body body, Doing doing)
{
    try
    {
        return body();
    }
    catch (const Failure& failure)
    {
        throwCloud(failure, doing());
    }
    catch (const std::filesystem::filesystem_error& error)
    {
        throwCloud(local::systemFailure("reading \"" + error.path1().native() + '"', error.code().value()), doing());
    }
}

void writePiece(const std::string& key, Piece& piece, std::ostream& out)
{
    if (piece.path.empty())
    {
        writeContent(key, out, piece.bytes.data(), piece.size);
        return;
    }
    std::vector<char> buffer(std::min(readBuffer, piece.size));
    for (std::uint64_t done = 0; done < piece.size;)
    {
        const std::uint64_t count = std::min<std::uint64_t>(buffer.size(), piece.size - done);
        local::readFile(piece.file, piece.path, buffer.data(), count, piece.offset + done);
        writeContent(key, out, buffer.data(), count);
        done += count;
    }
}

// Find the parts of the object that a part is to be copied from, and see that they are still what was asked for.
std::vector<StoredPart> findSource(local::Connection& index, const std::string& key, const PartInfo& part)
{
    const std::uint64_t first = std::min<std::uint64_t>(part.Offset, wholeObject);
    const std::uint64_t rest = part.Size == 0 ? 0 : part.Size - 1;
    const std::uint64_t last = rest < wholeObject - first ? first + rest : wholeObject;
    std::vector<StoredPart> source = findParts(index, requireObject(index, key).number, first, last);
    checkCopySource(key, part, describe(source));
    return source;
}

} // namespace

template <typename Body>
auto LocalClient::perform(Operation operation, const std::string& key, Body body)
{
    m_counters.countCall(operation);
    return translated(
        body, [&] { return fmt::format("{} {} in \"{}\"", name(operation), quoted(key), m_directory.native()); });
}

LocalClient::LocalClient(const std::filesystem::path& directory, std::uint64_t largestInIndex)
    : m_directory(translated(
          [&] { return std::filesystem::absolute(directory); }, [] { return std::string("opening a local store"); }))
    , m_largestInIndex(largestInIndex)
{
    translated(
        [&]
        {
            local::makeFolders(m_directory);
            local::prepareIndex(m_directory);
            m_index = std::make_unique<Database>(local::indexFile(m_directory));
            m_files = std::make_unique<local::ContentFiles>(m_directory);
            local::collectLeftOvers(*m_index, *m_files);
        },
        [&] { return fmt::format("opening the local store \"{}\"", m_directory.native()); });
}

LocalClient::~LocalClient() = default;

ObjectInfo LocalClient::getObjectInfo(const std::string& key)
{
    return perform(Operation::GetObjectInfo, key,
        [&]() -> ObjectInfo
        {
            if (key.empty()) // the root, of which there is nothing else to tell
            {
                return {true, {}, 0, {}};
            }
            Database::Reading index(*m_index);
            const std::optional<StoredObject> object = findObject(*index, key);
            return object ? ObjectInfo{true, local::tagOf(object->number), object->size, object->modified}
                          : ObjectInfo{};
        });
}

void LocalClient::validateObjectName(const std::string& name)
{
    m_counters.countCall(Operation::ValidateObjectName);
    checkObjectName(name);
}

std::vector<ObjectEntry> LocalClient::listObjects(
    const std::string& prefix, std::string& continuationToken, const cloudprovider::ListOptions& options)
{
    return perform(Operation::ListObjects, prefix,
        [&]
        {
            Database::Reading index(*m_index);
            local::KeyIndexCursor cursor(*index);
            return listPage(cursor, prefix, continuationToken, options, pageSize);
        });
}

void LocalClient::deleteObject(const std::string& key)
{
    perform(Operation::DeleteObject, key,
        [&]
        {
            Change change(*m_index, *m_files, Durability::Lasting);
            removeObject(change, key);
            change.commit();
        });
}

void LocalClient::getObjectRange(const std::string& key, std::ostream& out, std::uint64_t first, std::uint64_t last)
{
    perform(Operation::GetObjectRange, key,
        [&]
        {
            const auto find = [&]
            {
                Database::Reading index(*m_index);
                return requireObject(*index, key);
            };
            for (;;)
            {
                const StoredObject object = find();
                const ByteRange range = resolveRange(key, first, last, object.size);
                if (readPieces(*m_index, *m_files, object.number, range.offset, range.offset + range.size,
                        [&](Piece& piece) { writePiece(key, piece, out); }))
                {
                    m_counters.countBytes(Operation::GetObjectRange, range.size);
                    return;
                }
                // Replaced since it was found: there is a newer version, or none.
            }
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
            Change change(*m_index, *m_files, Durability::Lasting);
            local::putObject(change, key, staged);
            change.commit();
            m_counters.countBytes(Operation::PutObject, size);
        });
}

std::vector<PartInfo> LocalClient::getObjectParts(const std::string& key)
{
    return perform(Operation::GetObjectParts, key,
        [&]
        {
            Database::Reading index(*m_index);
            return describe(findParts(*index, requireObject(*index, key).number, 0, wholeObject));
        });
}

std::string LocalClient::createMultipartUpload(const std::string& key, const std::string&)
{
    return perform(Operation::CreateMultipartUpload, key,
        [&]
        {
            checkKey(key);
            Change change(*m_index, *m_files, Durability::Provisional);
            const std::int64_t upload = local::beginUpload(change, key);
            change.commit();
            return std::to_string(upload);
        });
}

std::string LocalClient::uploadPart(
    const std::string& key, const std::string& uploadId, const PartInfo& part, std::istream& content)
{
    return perform(Operation::UploadPart, key,
        [&]
        {
            {
                // Asked first, too: an upload that is no more is told before all bytes are taken.
                Database::Reading index(*m_index);
                local::requireUpload(*index, key, uploadId);
            }
            StagedContent staged = stage(part.Size);
            staged.receive(key, content);
            return storePart(Operation::UploadPart, key, uploadId, part, staged);
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
            Change change(*m_index, *m_files, Durability::Lasting);
            endUpload(change, local::requireUpload(change.index(), key, uploadId));
            change.commit();
        });
}

void LocalClient::completeMultipartUpload(
    const std::string& key, const std::string& uploadId, const std::vector<PartInfo>& parts)
{
    perform(Operation::CompleteMultipartUpload, key,
        [&]
        {
            Change change(*m_index, *m_files, Durability::Lasting);
            completeUpload(change, key, local::requireUpload(change.index(), key, uploadId), parts);
            change.commit();
        });
}

std::vector<PendingUpload> LocalClient::pendingUploads()
{
    return translated(
        [&]
        {
            Database::Reading index(*m_index);
            return local::listUploads(*index);
        },
        [&] { return fmt::format("listing the open uploads in \"{}\"", m_directory.native()); });
}

CallSnapshot LocalClient::callSnapshot() const
{
    return m_counters.snapshot();
}

StagedContent LocalClient::stage(std::uint64_t size)
{
    return {*m_files, size, size > m_largestInIndex};
}

std::string LocalClient::storePart(Operation operation, const std::string& key, const std::string& uploadId,
    const PartInfo& part, StagedContent& content)
{
    Change change(*m_index, *m_files, Durability::Provisional);
    const std::int64_t upload = local::requireUpload(change.index(), key, uploadId);
    const std::int64_t stored = change.add(content);
    setUploadPart(change, upload, part.Index, stored);
    change.commit();
    m_counters.countPart(operation, part.Index, part.Size);
    return local::tagOf(stored);
}

std::optional<std::string> LocalClient::sharePart(
    const std::string& key, const std::string& uploadId, const PartInfo& part)
{
    Change change(*m_index, *m_files, Durability::Provisional);
    const std::int64_t upload = local::requireUpload(change.index(), key, uploadId);
    const std::vector<StoredPart> source = findSource(change.index(), key, part);
    const auto same = std::find_if(source.begin(), source.end(),
        [&](const StoredPart& stored) { return stored.offset == part.Offset && stored.size == part.Size; });
    if (same == source.end())
    {
        return std::nullopt;
    }
    change.share(same->content);
    setUploadPart(change, upload, part.Index, same->content);
    change.commit();
    m_counters.countPart(Operation::CopyPart, part.Index, part.Size);
    return local::tagOf(same->content);
}

std::string LocalClient::copyRange(const std::string& key, const std::string& uploadId, const PartInfo& part)
{
    for (;;)
    {
        const StoredObject object = [&]
        {
            Database::Reading index(*m_index);
            findSource(*index, key, part);
            return requireObject(*index, key);
        }();
        StagedContent staged = stage(part.Size);
        const bool whole = readPieces(*m_index, *m_files, object.number, part.Offset, part.Offset + part.Size,
            [&](Piece& piece)
            {
                if (piece.path.empty())
                {
                    staged.append(piece.bytes);
                }
                else
                {
                    staged.append(piece.file, piece.path, piece.offset, piece.size);
                }
            });
        if (whole)
        {
            staged.finish();
            return storePart(Operation::CopyPart, key, uploadId, part, staged);
        }
        // Replaced since it was found: look at the newer version.
    }
}

} // namespace storage::clients
