#include "MemoryRemoteStore.hpp"

#include <storage/clients/common/Listing.hpp>
#include <storage/clients/http/Hashing.hpp>
#include <storage/clients/remote/RemoteFailures.hpp>

#include <boost/date_time/posix_time/posix_time_types.hpp>

#include <algorithm>
#include <utility>

namespace storage::clients::test
{

using namespace cloudprovider;
using How = Fault::How;

namespace
{

std::string readAll(RequestBody& body)
{
    std::string bytes(body.size(), '\0');
    body.rewind();
    for (std::size_t at = 0; at < bytes.size(); at += body.read(bytes.data() + at, 64))
    {
    }
    return bytes;
}

std::string multipartHash(const std::vector<NumberedTag>& parts)
{
    std::string hashes;
    for (const auto& [number, tag] : parts)
    {
        hashes += fromHex(tag);
    }
    return toHex(md5(hashes)) + '-' + std::to_string(parts.size());
}

void require(bool condition, const std::string& what)
{
    if (!condition)
    {
        throw UnknownErrorException("Refused", what);
    }
}

template <typename Objects>
struct Cursor
{
    const Objects& objects;
    typename Objects::const_iterator at = objects.end();

    void seek(const std::string& key) { at = objects.lower_bound(key); }
    void next() { ++at; }
    bool atEnd() const { return at == objects.end(); }
    const std::string& key() const { return at->first; }
    ObjectEntry entry() const { return {at->first, at->second.content.size(), at->second.time}; }
};

} // namespace

class MemoryBucket::Store : public RemoteStore
{
public:
    explicit Store(std::shared_ptr<MemoryBucket> bucket)
        : m_bucket(std::move(bucket))
    {
    }

    StoreAbilities abilities(const std::string&) const override
    {
        const std::lock_guard lock(m_bucket->m_mutex);
        return m_bucket->abilities;
    }

    std::optional<StoredObject> findObject(const std::string& key) override
    {
        const Request request(*m_bucket, {"findObject", key});
        const Object* const object = m_bucket->find(key);
        request.respond();
        return object == nullptr ? std::nullopt : std::optional(StoredObject{versionOf(*object), object->time});
    }

    Version getObject(const std::string& key, const std::optional<ByteRange>& range,
        const std::optional<Version>& version, const ContentReceiver& receiver) override
    {
        Object object;
        std::optional<Fault> fault;
        {
            const Request request(*m_bucket, {"getObject", key, range.value_or(ByteRange())});
            object = existing(key);
            checkVersion(key, version ? std::optional(version->tag) : std::nullopt, true);
            fault = request.fault;
        }
        const Version found = versionOf(object);
        const std::uint64_t offset = range ? std::min(range->offset, found.size) : 0;
        std::string bytes = object.content.substr(offset, range ? range->size : found.size);
        bytes.resize(fault && fault->how == How::Break ? std::min(bytes.size(), fault->bytes) : bytes.size());
        const bool isCorrupt = fault && fault->how == How::Corrupt;
        bytes = isCorrupt ? std::string(bytes.size(), '?') : bytes;
        const std::size_t half = bytes.size() / 2; // in two pieces, as they come from a connection
        receiver(found, std::string_view(bytes).substr(0, half));
        receiver(found, std::string_view(bytes).substr(half));
        if (isCorrupt)
        {
            throw CorruptContent("Corrupt", "the bytes do not match the checksum");
        }
        fault && fault->how != How::Twice ? std::rethrow_exception(fault->failure) : void();
        return found;
    }

    std::string putObject(const std::string& key, RequestBody& body, const WriteCondition& condition,
        const WrittenMetadata& metadata) override
    {
        const std::string bytes = readAll(body);
        const Request request(*m_bucket, {"putObject", key, {0, bytes.size()}});
        checkVersion(key, condition, m_bucket->abilities.conditionalWrites);
        const Object& object = m_bucket->m_objects[key] = m_bucket->makeObject(bytes, "", metadata.fields);
        request.respond(condition && m_bucket->abilities.conditionalWrites);
        return object.tag;
    }

    void deleteObject(const std::string& key, const WriteCondition& condition) override
    {
        const Request request(*m_bucket, {"deleteObject", key});
        checkVersion(key, condition, m_bucket->abilities.conditionalWrites);
        m_bucket->m_objects.erase(key);
        request.respond(condition && m_bucket->abilities.conditionalWrites);
    }

    std::map<std::string, std::exception_ptr> deleteObjects(const std::vector<std::string>& keys) override
    {
        std::map<std::string, std::exception_ptr> failures;
        for (const std::string& key : keys)
        {
            if (const auto fault = m_bucket->begin({"one of deleteObjects", key}); fault && fault->how == How::Before)
            {
                failures.emplace(key, fault->failure);
            }
        }
        const Request request(*m_bucket, {"deleteObjects", keys.at(0)});
        require(keys.size() <= m_bucket->abilities.maxDeletions, "the number of keys");
        for (const std::string& key : keys)
        {
            failures.contains(key) ? 0 : m_bucket->m_objects.erase(key);
        }
        request.respond();
        return failures;
    }

    std::string copyObject(
        const CopySource& source, const std::string& target, const WriteCondition& condition) override
    {
        const Request request(*m_bucket, {"copyObject", target, {0, source.version.size}});
        const StoreAbilities& can = m_bucket->abilities;
        checkVersion(source.key, source.version.tag, can.conditionalTakes);
        checkVersion(target, condition, can.conditionalWrites);
        const Object object = existing(source.key);
        require(object.content.size() <= can.maxCopySize, "the size of what is copied");
        const Object& copy = m_bucket->m_objects[target] = m_bucket->makeObject(object.content, "", object.metadata);
        request.respond(condition && can.conditionalWrites);
        return copy.tag;
    }

    ListingPage listObjects(const std::string& prefix, const std::string& token, const ListOptions& options) override
    {
        const Request request(*m_bucket, {"listObjects", prefix});
        // A token has an 'e' for each empty page before the next one, a colon, and a key.
        const std::string beforeEach = std::string(m_bucket->emptyPages, 'e') + ':';
        std::string next = token.empty() ? beforeEach : token;
        const bool isEmpty = next.front() == 'e';
        next.erase(0, 1);
        ListingPage page;
        if (!isEmpty)
        {
            Cursor<decltype(m_bucket->m_objects)> cursor{m_bucket->m_objects};
            page.entries = listPage(cursor, prefix, next, options, m_bucket->pageSize);
            next = next.empty() ? next : beforeEach + next;
        }
        page.nextToken = next;
        request.respond();
        return page;
    }

    std::string createUpload(const std::string& key, const WrittenMetadata& metadata) override
    {
        const Request request(*m_bucket, {"createUpload", key});
        const auto time = m_bucket->makeObject("").time;
        std::string id = std::to_string(1'000'000 + m_bucket->m_count); // in the order of their creation
        m_bucket->m_uploads[id] = {key, time, metadata.fields, {}};
        request.respond();
        return id;
    }

    std::string uploadPart(
        const std::string& key, const std::string& uploadId, std::size_t number, RequestBody& body) override
    {
        const Request request(*m_bucket, {"uploadPart", key, {0, body.size()}});
        return setPart(request, uploadId, number, readAll(body));
    }

    std::vector<std::uint64_t> partEnds(const std::string& key, const Version& version) override
    {
        const Request request(*m_bucket, {"partEnds", key});
        checkVersion(key, version.tag, true);
        return existing(key).partEnds;
    }

    std::string takePart(const std::string& key, const std::string& uploadId, std::size_t number,
        const CopySource& source, const ByteRange& range) override
    {
        const Request request(*m_bucket, {"takePart", key, range});
        if (m_bucket->refusesTakes)
        {
            m_bucket->abilities.maxTakeSize = 0;
            throw UnsupportedOperationException("takePart");
        }
        checkVersion(source.key, source.version.tag, m_bucket->abilities.conditionalTakes);
        const Object& object = existing(source.key);
        require(range.size <= m_bucket->abilities.maxTakeSize, "the size of what is taken");
        require(range.offset + range.size <= object.content.size(), "the range of what is taken");
        return setPart(request, uploadId, number, object.content.substr(range.offset, range.size));
    }

    std::string takeWholeParts(const std::string& key, const std::string& uploadId, std::size_t number,
        const Version& version, const ByteRange& range) override
    {
        const Request request(*m_bucket, {"takeWholeParts", key, range});
        checkVersion(key, version.tag, m_bucket->abilities.conditionalTakes);
        const Object& object = existing(key);
        std::vector<std::uint64_t> ends;
        for (const std::uint64_t end : object.partEnds)
        {
            end > range.offset&& end <= range.offset + range.size ? ends.push_back(end - range.offset) : void();
        }
        require(range.offset == 0 || std::ranges::binary_search(object.partEnds, range.offset), "the rest of a part");
        require(!ends.empty() && ends.back() == range.size, "only some of a part");
        return setPart(request, uploadId, number, object.content.substr(range.offset, range.size), ends);
    }

    std::string completeUpload(const std::string& key, const std::string& uploadId,
        const std::vector<NumberedTag>& parts, const WriteCondition& condition) override
    {
        const Request request(*m_bucket, {"completeUpload", key});
        const Upload& upload = m_bucket->uploadAt(key, uploadId);
        require(!parts.empty(), "no parts");
        std::string content;
        std::vector<std::uint64_t> ends;
        std::size_t number = 0;
        const auto sizeOf = [&](const NumberedTag& part) { return upload.parts.at(part.first).content.size(); };
        const bool areEqual = std::ranges::all_of(parts, [&](const NumberedTag& part)
            { return sizeOf(part) == sizeOf(parts[0]) || (part == parts.back() && sizeOf(part) < sizeOf(parts[0])); });
        if ((m_bucket->refusesUnequalParts || m_bucket->abilities.equalParts) && !areEqual)
        {
            require(!std::exchange(m_bucket->abilities.equalParts, true), "unequal parts although they are excluded");
            throw UnsupportedOperationException("unequal parts");
        }
        for (const auto& [listed, tag] : parts)
        {
            const auto part = upload.parts.find(listed);
            require(listed > number && part != upload.parts.end() && part->second.tag == tag, "a part");
            require(number == 0 || upload.parts.at(number).content.size() >= m_bucket->abilities.minPartSize, "small");
            number = listed;
            for (const std::uint64_t end : part->second.partEnds)
            {
                ends.push_back(content.size() + end);
            }
            content += part->second.content;
        }
        require(ends.size() <= m_bucket->abilities.maxParts, "too many parts");
        const bool mustCreate = condition.value_or("").empty();
        checkVersion(key, condition,
            mustCreate ? m_bucket->abilities.conditionalCreation : m_bucket->abilities.conditionalCompletion);
        Object& object = m_bucket->m_objects[key] =
            m_bucket->makeObject(content, multipartHash(parts), upload.metadata);
        object.partEnds = ends;
        m_bucket->m_uploads.erase(uploadId);
        request.respond(false, true);
        return object.tag;
    }

    void abortUpload(const std::string& key, const std::string& uploadId) override
    {
        const Request request(*m_bucket, {"abortUpload", key});
        m_bucket->uploadAt(key, uploadId);
        m_bucket->m_uploads.erase(uploadId);
        request.respond(false, true);
    }

    bool isOpen(const std::string& key, const std::string& uploadId) override
    {
        const Request request(*m_bucket, {"isOpen", key});
        request.respond();
        return m_bucket->m_uploads.contains(uploadId);
    }

    UploadsPage listUploads(const std::string& token) override
    {
        const Request request(*m_bucket, {"listUploads", ""});
        UploadsPage page;
        auto upload = m_bucket->m_uploads.lower_bound(token);
        for (; upload != m_bucket->m_uploads.end() && page.uploads.size() < m_bucket->pageSize; ++upload)
        {
            page.uploads.push_back({upload->second.key, upload->first, upload->second.time});
        }
        page.nextToken = upload == m_bucket->m_uploads.end() ? "" : upload->first;
        request.respond();
        return page;
    }

    bool isMadeOf(const std::string& /*key*/, const StoredObject& object, RequestBody& body) override
    {
        return object.version.tag == toHex(md5(body));
    }

    bool isMadeOf(const std::string& /*key*/, const StoredObject& object, const std::string& /*uploadId*/,
        const std::vector<NumberedTag>& parts) override
    {
        return object.version.tag == multipartHash(parts);
    }

private:
    /// A request with its fault. Holds the bucket's lock.
    struct Request
    {
        Request(MemoryBucket& bucket, const StoreRequest& sent)
            : request(sent)
            , fault(bucket.begin(request))
            , lock(bucket.m_mutex)
        {
            const bool isRead = request.operation == "getObject";
            if (fault && (fault->how == How::Before || (!isRead && fault->how > How::Twice)))
            {
                std::rethrow_exception(fault->failure);
            }
        }

        /// Throw what the caller learns after the request took effect.
        void respond(bool isConditional = false, bool endsUpload = false) const
        {
            if (fault && fault->how == How::Twice && isConditional)
            {
                throw PreconditionFailed("the object is another one now", true);
            }
            if (fault && fault->how == How::Twice && endsUpload)
            {
                throw ResourceNotFoundException("the upload has ended");
            }
            fault && fault->how == How::After ? std::rethrow_exception(fault->failure) : void();
        }

        const StoreRequest request;
        const std::optional<Fault> fault;
        const std::unique_lock<std::mutex> lock;
    };

    static Version versionOf(const Object& object)
    {
        return {object.tag, object.content.size(), std::make_shared<const ObjectMetadata>(object.metadata)};
    }

    const Object& existing(const std::string& key) const
    {
        const Object* const object = m_bucket->find(key);
        return object != nullptr ? *object : throw ResourceNotFoundException("no object " + key);
    }

    void checkVersion(const std::string& key, const WriteCondition& condition, bool isHonoured) const
    {
        const Object* const object = m_bucket->find(key);
        if (condition && isHonoured && *condition != (object == nullptr ? "" : object->tag))
        {
            throw PreconditionFailed("the store has another version of " + key);
        }
    }

    std::string setPart(const Request& request, const std::string& uploadId, std::size_t number,
        const std::string& bytes, const std::vector<std::uint64_t>& ends = {})
    {
        require(number > 0 && number <= m_bucket->abilities.maxParts, "the number of a part");
        Object& part = m_bucket->uploadAt(request.request.key, uploadId).parts[number] = m_bucket->makeObject(bytes);
        part.partEnds = ends.empty() ? std::vector{std::uint64_t{bytes.size()}} : ends;
        request.respond();
        return part.tag;
    }

    const std::shared_ptr<MemoryBucket> m_bucket;
};

std::unique_ptr<RemoteStore> MemoryBucket::connect()
{
    return std::make_unique<Store>(shared_from_this());
}

void MemoryBucket::put(const std::string& key, const std::optional<std::string>& content)
{
    const std::lock_guard lock(m_mutex);
    content ? void(m_objects[key] = makeObject(*content)) : void(m_objects.erase(key));
}

std::optional<std::string> MemoryBucket::content(const std::string& key) const
{
    const std::lock_guard lock(m_mutex);
    const Object* const object = find(key);
    return object == nullptr ? std::nullopt : std::optional(object->content);
}

std::string MemoryBucket::tag(const std::string& key) const
{
    const std::lock_guard lock(m_mutex);
    const Object* const object = find(key);
    return object == nullptr ? "" : object->tag;
}

std::size_t MemoryBucket::openUploads() const
{
    const std::lock_guard lock(m_mutex);
    return static_cast<std::size_t>(std::count_if(
        m_uploads.begin(), m_uploads.end(), [](const auto& upload) { return !upload.second.parts.empty(); }));
}

std::vector<StoreRequest> MemoryBucket::takeRequests()
{
    const std::lock_guard lock(m_mutex);
    return std::exchange(m_requests, {});
}

std::size_t MemoryBucket::count(const std::string& operation) const
{
    const std::lock_guard lock(m_mutex);
    return static_cast<std::size_t>(std::ranges::count(m_requests, operation, &StoreRequest::operation));
}

void MemoryBucket::await(const std::function<bool(const std::vector<StoreRequest>& requests)>& condition)
{
    std::unique_lock lock(m_mutex);
    m_changed.wait(lock, [&] { return condition(m_requests); });
}

void MemoryBucket::hold(const std::string& operation)
{
    const std::lock_guard lock(m_mutex);
    m_heldOperation = operation;
    m_holder = std::this_thread::get_id();
    m_changed.notify_all();
}

std::optional<Fault> MemoryBucket::begin(const StoreRequest& request)
{
    {
        std::unique_lock lock(m_mutex);
        m_requests.push_back(request);
        m_changed.notify_all();
        m_changed.wait(
            lock, [&] { return m_heldOperation != request.operation || m_holder == std::this_thread::get_id(); });
    }
    return faults ? faults(request) : std::nullopt;
}

MemoryBucket::Object MemoryBucket::makeObject(
    const std::string& content, const std::string& hash, const ObjectMetadata& metadata)
{
    const boost::posix_time::ptime time(boost::gregorian::date(2022, 1, 1), boost::posix_time::seconds(++m_count));
    const std::string number = "tag-" + std::to_string(m_count);
    return {content, !tagsAreHashes ? number : hash.empty() ? toHex(md5(content)) : hash, time, metadata, {}};
}

const MemoryBucket::Object* MemoryBucket::find(const std::string& key) const
{
    const auto object = m_objects.find(key);
    return object == m_objects.end() ? nullptr : &object->second;
}

MemoryBucket::Upload& MemoryBucket::uploadAt(const std::string& key, const std::string& id)
{
    const auto upload = m_uploads.find(id);
    return upload != m_uploads.end() && upload->second.key == key
               ? upload->second
               : throw ResourceNotFoundException("no upload " + id + " of " + key);
}

} // namespace storage::clients::test
