#include "MemoryStore.hpp"

#include <storage/clients/common/KeyRules.hpp>
#include <storage/clients/common/Listing.hpp>
#include <storage/clients/common/PartRules.hpp>
#include <storage/clients/common/RequiredVersions.hpp>

#include <storage/cloudprovider/CloudExceptions.hpp>

#include <fmt/format.h>

#include <mutex>
#include <random>
#include <utility>

namespace storage::clients
{

using cloudprovider::ObjectEntry;
using cloudprovider::ObjectInfo;
using cloudprovider::PartInfo;
using cloudprovider::ResourceNotFoundException;

namespace
{

std::uint64_t randomNumber()
{
    std::random_device random;
    return std::uint64_t{random()} << 32 | random();
}

} // namespace

class MemoryStore::Cursor
{
public:
    explicit Cursor(const Objects& objects)
        : m_objects(objects)
    {
    }

    void seek(const std::string& key) { m_at = m_objects.lower_bound(key); }
    void next() { ++m_at; }
    bool atEnd() const { return m_at == m_objects.end(); }
    const std::string& key() const { return m_at->first; }
    ObjectEntry entry() const { return {m_at->first, m_at->second.size, m_at->second.lastModified}; }

private:
    const Objects& m_objects;
    Objects::const_iterator m_at = m_objects.end();
};

MemoryStore::MemoryStore()
    : m_nonce(randomNumber())
{
}

std::string MemoryStore::text(std::uint64_t number) const
{
    return fmt::format("{:016x}{:016x}", m_nonce, number);
}

MemoryStore::Objects::const_iterator MemoryStore::objectAt(const std::string& key) const
{
    const auto object = m_objects.find(key);
    if (object == m_objects.end())
    {
        throw ResourceNotFoundException(fmt::format("there is no object {}", quoted(key)));
    }
    return object;
}

MemoryStore::Uploads::const_iterator MemoryStore::uploadAt(const std::string& key, const std::string& uploadId) const
{
    const auto upload = m_uploads.find(uploadId);
    if (upload == m_uploads.end() || upload->second.key != key)
    {
        throw ResourceNotFoundException(fmt::format("there is no upload {} of {}", quoted(uploadId), quoted(key)));
    }
    return upload;
}

std::vector<PartInfo> MemoryStore::partsOf(const Object& object) const
{
    if (!object.content)
    {
        return {{0, 0, 0, text(object.tag)}};
    }
    std::vector<PartInfo> result;
    result.reserve(object.content->parts.size());
    std::size_t offset = 0;
    for (const ObjectContent::Part& part : object.content->parts)
    {
        result.push_back({result.size(), offset, part.size, text(part.tag)});
        offset += part.size;
    }
    return result;
}

ObjectInfo MemoryStore::info(const std::string& key) const
{
    const std::shared_lock lock(m_mutex);
    const auto object = m_objects.find(key);
    if (object == m_objects.end())
    {
        return {};
    }
    return {true, text(object->second.tag), object->second.size, object->second.lastModified};
}

std::vector<ObjectEntry> MemoryStore::list(const std::string& prefix, std::string& token,
    const cloudprovider::ListOptions& options, std::size_t pageSize) const
{
    const std::shared_lock lock(m_mutex);
    Cursor cursor(m_objects);
    return listPage(cursor, prefix, token, options, pageSize);
}

std::string MemoryStore::tagOf(const std::string& key) const
{
    const auto object = m_objects.find(key);
    return object == m_objects.end() ? "" : text(object->second.tag);
}

std::string MemoryStore::put(const std::string& key, SharedBytes bytes, Time now, const RequiredVersion& required)
{
    Object object{0, bytes.size(), now, nullptr};
    std::shared_ptr<ObjectContent> content;
    if (object.size != 0)
    {
        content = std::make_shared<ObjectContent>();
        content->parts.push_back({0, object.size});
        content->bytes = std::move(bytes);
        object.content = content;
    }
    // `object` gets the replaced object and frees it after the lock: freeing a large object takes time.
    const std::unique_lock lock(m_mutex);
    checkRequiredVersion(key, required, tagOf(key));
    object.tag = ++m_lastNumber;
    if (content)
    {
        content->parts.front().tag = object.tag;
    }
    std::string tag = text(object.tag);
    std::swap(m_objects[key], object);
    return tag;
}

bool MemoryStore::remove(const std::string& key, const RequiredVersion& required)
{
    Objects::node_type removed; // freed after the lock
    const std::unique_lock lock(m_mutex);
    checkRequiredVersion(key, required, tagOf(key));
    removed = m_objects.extract(key);
    return !removed.empty();
}

std::pair<std::shared_ptr<const ObjectContent>, std::string> MemoryStore::find(const std::string& key) const
{
    static const auto noBytes = std::make_shared<const ObjectContent>();
    const std::shared_lock lock(m_mutex);
    const auto object = m_objects.find(key);
    if (object == m_objects.end())
    {
        return {};
    }
    return {object->second.content ? object->second.content : noBytes, text(object->second.tag)};
}

std::pair<std::vector<PartInfo>, Version> MemoryStore::parts(const std::string& key) const
{
    const std::shared_lock lock(m_mutex);
    const Object& object = objectAt(key)->second;
    return {partsOf(object), {text(object.tag), object.size}};
}

std::vector<std::string> MemoryStore::keys() const
{
    const std::shared_lock lock(m_mutex);
    std::vector<std::string> result;
    result.reserve(m_objects.size());
    for (const auto& [key, object] : m_objects)
    {
        result.push_back(key);
    }
    return result;
}

std::string MemoryStore::openUpload(const std::string& key, const std::string& tag, const std::string& base, Time now)
{
    const std::unique_lock lock(m_mutex);
    std::string uploadId = text(++m_lastNumber);
    m_uploads.emplace(uploadId, Upload{key, tag, base, now, {}});
    return uploadId;
}

void MemoryStore::checkUpload(const std::string& key, const std::string& uploadId) const
{
    const std::shared_lock lock(m_mutex);
    uploadAt(key, uploadId);
}

std::string MemoryStore::addPart(
    const std::string& key, const std::string& uploadId, std::size_t index, SharedBytes bytes, std::uint64_t source)
{
    SentBytes sent{0, std::move(bytes), source}; // gets the replaced part and frees it after the lock
    const std::unique_lock lock(m_mutex);
    sent.tag = ++m_lastNumber;
    std::string tag = text(sent.tag);
    uploadAt(key, uploadId);
    std::swap(m_uploads[uploadId].parts[index], sent);
    return tag;
}

std::string MemoryStore::copyPart(const std::string& key, const std::string& uploadId, const PartInfo& part)
{
    std::shared_ptr<const ObjectContent> source;
    std::uint64_t tag = 0;
    {
        const std::shared_lock lock(m_mutex);
        uploadAt(key, uploadId);
        const Object& object = objectAt(key)->second;
        checkCopySource(key, part, partsOf(object));
        source = object.content;
        tag = object.tag;
    }
    SharedBytes bytes;
    if (part.Size != 0)
    {
        bytes.append(source->bytes, part.Offset, part.Size);
    }
    return addPart(key, uploadId, part.Index, std::move(bytes), tag);
}

void MemoryStore::abort(const std::string& key, const std::string& uploadId)
{
    Uploads::node_type dropped; // freed after the lock
    const std::unique_lock lock(m_mutex);
    dropped = m_uploads.extract(uploadAt(key, uploadId));
}

Version MemoryStore::complete(const std::string& key, const std::string& uploadId, const std::vector<PartInfo>& parts,
    Time now, const RequiredVersion& required,
    const std::function<bool(const std::string& stored, const std::string& opened)>& descends)
{
    Object object{0, 0, now, nullptr};
    Uploads::node_type finished; // freed, like the replaced object, after the lock
    const std::unique_lock lock(m_mutex);
    const auto upload = uploadAt(key, uploadId);
    const auto& sent = upload->second.parts;
    checkPartList(key, parts,
        [&](std::size_t index) -> std::optional<SentPart>
        {
            const auto part = sent.find(index);
            if (part == sent.end())
            {
                return std::nullopt;
            }
            return SentPart{text(part->second.tag), part->second.bytes.size()};
        });
    checkRequiredVersion(key, required, tagOf(key));

    const std::string stored = tagOf(key);
    bool copies = false;
    for (const PartInfo& part : parts)
    {
        const std::uint64_t source = sent.at(part.Index).source;
        copies = copies || source != 0;
        if (source != 0 && text(source) != stored)
        {
            throwOtherVersion(key, text(source));
        }
    }
    if (const std::string& base = upload->second.base; !copies && !base.empty() && !descends(stored, base))
    {
        throwOtherVersion(key, base);
    }

    const auto content = std::make_shared<ObjectContent>();
    for (const PartInfo& part : parts)
    {
        const SentBytes& bytes = sent.at(part.Index);
        content->parts.push_back({bytes.tag, bytes.bytes.size()});
        content->bytes.append(bytes.bytes, 0, bytes.bytes.size());
    }
    object.tag = ++m_lastNumber;
    object.size = content->bytes.size();
    object.content = object.size != 0 ? content : nullptr;
    Version version{text(object.tag), object.size};
    std::swap(m_objects[key], object);
    finished = m_uploads.extract(upload);
    return version;
}

std::vector<OpenUpload> MemoryStore::openUploads() const
{
    const std::shared_lock lock(m_mutex);
    std::vector<OpenUpload> result;
    for (const auto& [uploadId, upload] : m_uploads)
    {
        OpenUpload open{upload.key, uploadId, upload.tag, {}, upload.created};
        for (const auto& [index, part] : upload.parts)
        {
            open.parts.push_back(index);
        }
        result.push_back(std::move(open));
    }
    return result;
}

} // namespace storage::clients
