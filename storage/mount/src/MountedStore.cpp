#include "MountedStore.hpp"

#include "Failure.hpp"
#include "Names.hpp"

#include <storage/clients/common/KeyRules.hpp>
#include <storage/clients/common/TransientException.hpp>
#include <storage/clients/decorators/FindInterface.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>

#include <boost/iostreams/device/array.hpp>
#include <boost/iostreams/stream.hpp>

#include <algorithm>
#include <cerrno>
#include <future>
#include <ios>
#include <sstream>
#include <utility>
#include <vector>

namespace storage::mount
{

using namespace cloudprovider;

namespace
{

std::optional<Time> timeOf(const boost::posix_time::ptime& time)
{
    return time.is_special() ? std::nullopt : std::optional(toTime(time));
}

template <typename Interface>
Interface& require(CloudClient& client)
{
    if (auto* const found = clients::findInterface<Interface>(client))
    {
        return *found;
    }
    throw Failure(ENOTSUP, "this store cannot be mounted, because it cannot compare versions");
}

/// Plan the parts of a new version: those of the old one that have not changed keep their tag, the others have none.
///
/// @param partSize  bytes of a part without one in the old version
std::vector<PartInfo> planParts(
    const MountedStore::Change& change, const std::vector<PartInfo>& stored, std::uint64_t partSize)
{
    std::vector<PartInfo> parts;
    std::uint64_t end = 0;
    for (PartInfo part : stored)
    {
        if (part.Offset >= std::min(change.kept, change.size))
        {
            break;
        }
        const bool isKept = part.Offset + part.Size <= change.kept && part.Offset + part.Size <= change.size &&
                            !change.isChanged(part.Offset, part.Size);
        part.Size = std::min<std::uint64_t>(part.Size, change.size - part.Offset);
        isKept ? void() : part.Tag.clear();
        end = part.Offset + part.Size;
        parts.push_back(std::move(part));
    }
    if (!parts.empty() && end < change.size && parts.back().Size < partSize)
    {
        PartInfo& last = parts.back();
        last.Tag.clear();
        last.Size = std::min(partSize, change.size - last.Offset);
        end = last.Offset + last.Size;
    }
    for (; end < change.size; end += parts.back().Size)
    {
        parts.push_back({parts.size(), end, std::min(partSize, change.size - end), ""});
    }
    return parts;
}

} // namespace

MountedStore::MountedStore(std::shared_ptr<CloudClient> client, std::uint64_t partSize)
    : m_client(std::move(client))
    , m_partSize(partSize)
    , m_versions(mount::require<clients::PinnedVersions>(*m_client))
    , m_conditions(mount::require<clients::WriteConditions>(*m_client))
    , m_uploader(clients::findInterface<clients::ObjectUploader>(*m_client))
    , m_copier(clients::findInterface<clients::ObjectCopier>(*m_client))
{
}

std::optional<Found> MountedStore::find(const std::string& key)
{
    const std::string folder = key + '/';
    auto firstInFolder = std::async(std::launch::async,
        [&]() -> std::optional<ObjectEntry>
        {
            std::string token;
            do
            {
                const auto page = m_client->listObjects(folder, token, {"", 1});
                if (!page.empty())
                {
                    return page.front();
                }
            } while (!token.empty());
            return std::nullopt;
        });
    const ObjectInfo file = m_client->getObjectInfo(key);
    if (const auto entry = firstInFolder.get())
    {
        return Found{true, 0, entry->key == folder ? timeOf(entry->lastModified) : std::nullopt, ""};
    }
    return file.exists ? std::optional(Found{false, file.size, timeOf(file.lastModified), file.tag}) : std::nullopt;
}

Listing MountedStore::list(const std::string& folder)
{
    Listing listing;
    std::string token;
    do
    {
        for (const ObjectEntry& entry : m_client->listObjects(folder, token, {"/", -1}))
        {
            std::string_view segment = std::string_view(entry.key).substr(folder.size());
            const bool isFolder = segment.ends_with('/');
            if (segment.empty())
            {
                listing.hasMarker = true;
                continue;
            }
            segment.remove_suffix(isFolder ? 1 : 0);
            Found found{isFolder, entry.size, timeOf(entry.lastModified), ""};
            const auto [known, isNew] = listing.entries.try_emplace(names::fromSegment(segment), found);
            isNew || !isFolder ? void() : void(known->second = std::move(found));
        }
    } while (!token.empty());
    return listing;
}

std::vector<std::string> MountedStore::keysBelow(const std::string& folder, std::size_t maxKeys)
{
    std::vector<std::string> keys;
    std::string token;
    do
    {
        const std::size_t wanted = std::min<std::size_t>(maxKeys - keys.size(), 1000);
        for (ObjectEntry& entry : m_client->listObjects(folder, token, {"", static_cast<std::int32_t>(wanted)}))
        {
            keys.push_back(std::move(entry.key));
        }
    } while (!token.empty() && keys.size() < maxKeys);
    return keys;
}

bool MountedStore::hasEntries(const std::string& folder)
{
    return std::ranges::any_of(keysBelow(folder, 2), [&](const std::string& key) { return key != folder; });
}

ObjectVersion MountedStore::open(const std::string& key)
{
    m_client->getObjectParts(key);
    return versionOf(key);
}

ObjectVersion MountedStore::versionOf(const std::string& key)
{
    if (const auto pinned = m_versions.pinnedVersion(key))
    {
        return {pinned->tag, pinned->size};
    }
    throw Failure(EIO, "another thread has replaced or removed " + clients::quoted(key));
}

bool MountedStore::read(
    const std::string& key, const ObjectVersion& version, std::uint64_t offset, char* target, std::size_t size)
{
    const auto isPinned = [&](const std::optional<clients::PinnedVersion>& pinned)
    { return pinned && pinned->tag == version.tag; };
    auto pinned = m_versions.pinnedVersion(key);
    if (!isPinned(pinned))
    {
        try
        {
            m_client->getObjectParts(key);
        }
        catch (const ResourceNotFoundException&)
        {
            return false;
        }
        pinned = m_versions.pinnedVersion(key);
    }
    if (!isPinned(pinned))
    {
        return false;
    }
    // The range (0, 0) is the whole object.
    const bool isFirstByte = offset == 0 && size == 1 && version.size > 1;
    std::array<char, 2> bytes{};
    boost::iostreams::stream<boost::iostreams::array_sink> out(
        isFirstByte ? bytes.data() : target, isFirstByte ? bytes.size() : size);
    const bool isRead = unlessChanged(key, version,
        [&] { m_client->getObjectRange(key, out, offset, offset + (isFirstByte ? bytes.size() : size) - 1); });
    if (!isRead)
    {
        return false;
    }
    isFirstByte ? void(*target = bytes.front()) : void();
    return m_versions.pinnedVersion(key) == pinned;
}

/// Call the store. @return false: that has failed, and the store does not have this version of the object
bool MountedStore::unlessChanged(
    const std::string& key, const std::optional<ObjectVersion>& version, const std::function<void()>& call)
try
{
    call();
    return true;
}
catch (const clients::TransientException&)
{
    throw;
}
catch (const CloudException&)
{
    if (isStored(key, version))
    {
        throw;
    }
    return false;
}

bool MountedStore::isStored(const std::string& key, const std::optional<ObjectVersion>& version)
{
    const ObjectInfo stored = m_client->getObjectInfo(key);
    return stored.exists == version.has_value() && (!version || stored.tag == version->tag);
}

MountedStore::Condition MountedStore::require(const std::string& key, const std::optional<ObjectVersion>& before)
{
    return m_conditions.requireVersion(key, before ? before->tag : "");
}

std::unique_ptr<UploadAhead> MountedStore::uploadAhead(const std::string& key)
{
    return std::make_unique<UploadAhead>(*m_client, key, partSizeAhead());
}

ObjectVersion MountedStore::store(
    const std::string& key, const std::optional<ObjectVersion>& before, const Change& change)
{
    if (!unlessChanged(key, before, [&] { write(key, before, change); }))
    {
        throw Failure(ESTALE, clients::quoted(key) + " has been changed by another program meanwhile");
    }
    return versionOf(key);
}

void MountedStore::write(const std::string& key, const std::optional<ObjectVersion>& before, const Change& change)
{
    if (change.ahead != nullptr && change.ahead->canComplete(change.size))
    {
        change.ahead->complete(change.size, change.read);
    }
    else if (before && change.size > m_partSize && change.changed < change.size / 2)
    {
        const auto stored = m_client->getObjectParts(key);
        if (versionOf(key) != *before)
        {
            throw Failure(ESTALE, clients::quoted(key) + " has been changed by another program meanwhile");
        }
        writeParts(key, change, stored);
    }
    else if (m_uploader != nullptr)
    {
        m_uploader->uploadObject(key, {change.size, change.read, [] {}, [](std::uint64_t) {}});
    }
    else if (change.size <= m_partSize)
    {
        withPartStream(change.read, 0, change.size,
            [&](std::istream& content) { m_client->putObject(key, content, change.size); });
    }
    else
    {
        writeParts(key, change, {});
    }
}

void MountedStore::writeParts(const std::string& key, const Change& change, const std::vector<PartInfo>& stored)
{
    const std::string upload = m_client->createMultipartUpload(key, stored.empty() ? "" : stored.front().Tag);
    try
    {
        std::vector<PartInfo> parts = planParts(change, stored, m_partSize);
        for (PartInfo& part : parts)
        {
            part.Tag = !part.Tag.empty() ? m_client->copyPart(key, upload, part)
                                         : withPartStream(change.read, part.Offset, part.Size,
                                               [&](std::istream& content)
                                               { return m_client->uploadPart(key, upload, part, content); });
        }
        m_client->completeMultipartUpload(key, upload, parts);
    }
    catch (...)
    {
        try
        {
            m_client->abortMultipartUpload(key, upload);
        }
        catch (const CloudException&) // a store forgets it some day; the first failure is the one that counts
        {
        }
        throw;
    }
}

void MountedStore::createMarker(const std::string& folder)
{
    std::istringstream empty;
    m_client->putObject(folder, empty, 0);
}

bool MountedStore::isThere(const std::string& key)
{
    return m_client->getObjectInfo(key).exists;
}

void MountedStore::remove(const std::string& key)
{
    m_client->deleteObject(key);
}

bool MountedStore::removeVersion(const std::string& key, const std::string& tag)
{
    const ObjectVersion version{tag, 0};
    const Condition condition = require(key, version);
    return unlessChanged(key, version, [&] { m_client->deleteObject(key); });
}

MountedStore::Copy MountedStore::copy(const std::string& source, const std::string& target)
{
    if (m_copier != nullptr)
    {
        try
        {
            std::string tag = m_copier->copyObject(source, target);
            return {std::move(tag), versionOf(target)};
        }
        catch (const UnsupportedOperationException&) // this one; the bytes can be sent
        {
        }
    }
    const ObjectVersion version = open(source);
    const auto readSource = [&](std::uint64_t offset, char* bytes, std::size_t size)
    {
        if (!read(source, version, offset, bytes, size))
        {
            throw Failure(ESTALE, clients::quoted(source) + " has been changed by another program meanwhile");
        }
    };
    write(target, std::nullopt, {version.size, 0, {}, version.size, readSource});
    return {version.tag, versionOf(target)};
}

std::optional<MountedStore::Copy> MountedStore::findCopy(const std::string& source, const std::string& target)
try
{
    const ObjectVersion from = open(source), to = open(target);
    bool isSame = from.size == to.size;
    std::vector<char> one(std::min<std::uint64_t>(from.size, 4U << 20)), other(one.size());
    for (std::uint64_t at = 0; isSame && at < from.size; at += one.size())
    {
        const std::size_t size = std::min<std::uint64_t>(one.size(), from.size - at);
        isSame = read(source, from, at, one.data(), size) && read(target, to, at, other.data(), size) &&
                 std::equal(one.begin(), one.begin() + static_cast<std::ptrdiff_t>(size), other.begin());
    }
    return isSame ? std::optional(Copy{from.tag, to}) : std::nullopt;
}
catch (const ResourceNotFoundException&)
{
    return std::nullopt;
}

} // namespace storage::mount
