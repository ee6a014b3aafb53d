#include <storage/clients/s3/EndpointProbe.hpp>

#include "S3Store.hpp"

#include "protocol/Responses.hpp"
#include <storage/clients/common/KeyRules.hpp>
#include <storage/clients/common/TransientException.hpp>
#include <storage/clients/http/Hashing.hpp>
#include <storage/clients/remote/RemoteFailures.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <random>
#include <set>
#include <thread>
#include <utility>

namespace storage::clients::s3
{

using namespace cloudprovider;

namespace
{

constexpr std::size_t minPartSize = StoreAbilities().minPartSize;

std::string detailOf(const CloudException& failure)
{
    return failure.detail().value_or(failure.what());
}

/// Call a function until it does not fail temporarily, at most three times.
template <typename Call>
auto retried(const std::function<bool()>& interrupted, const Call& call)
{
    for (int attempts = 1;; ++attempts)
    {
        try
        {
            return call();
        }
        catch (const TransientException&)
        {
            if (attempts == 3 || (interrupted && interrupted()))
            {
                throw;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(500));
        }
    }
}

/// The settings of a folder of the bucket that nobody else uses. All conditions are sent. Requests are not cancelled: a
/// store may process one that was cancelled after what it has written was removed. Each sends a few MiB at most.
S3Settings settingsForProbe(S3Settings settings)
{
    std::random_device random;
    settings.prefix += fmt::format("cloudfs-check-{:08x}{:08x}/", random(), random());
    settings.capabilities = {
        .conditionalCopies = true, .conditionalCompletion = true, .conditionalWrites = true, .copiesAnyKey = true};
    if (!settings.credentials)
    {
        settings.credentials = defaultCredentials(settings.profile, settings.authorities, settings.interrupted);
    }
    settings.interrupted = nullptr;
    return settings;
}

/// What the probes write, and its removal.
class Workspace
{
public:
    explicit Workspace(const S3Settings& settings)
        : m_interrupted(settings.interrupted)
        , m_settings(settingsForProbe(settings))
    {
        renewStore();
    }

    S3Store& store() { return *m_store; }
    const S3Settings& settings() const { return m_settings; }
    const std::function<bool()>& interrupted() const { return m_interrupted; }

    /// Forget what the store has learnt from refusals.
    void renewStore() { m_store = std::make_unique<S3Store>(m_settings); }

    /// @return a key under which there is no object
    std::string newKey(const std::string& ending = "") { return fmt::format("{}{}", ++m_count, ending); }

    std::string put(const std::string& key, const std::string& content, const WriteCondition& condition = {},
        const ObjectMetadata& metadata = {})
    {
        TextBody body(content);
        return write(key, [&] { return m_store->putObject(key, body, condition, {metadata, key}); });
    }

    std::string get(const std::string& key, const std::optional<ByteRange>& range = {})
    {
        std::string content;
        m_store->getObject(key, range, {}, [&](const Version&, std::string_view bytes) { content += bytes; });
        return content;
    }

    /// The version of an object that was stored. (A completion need not return its tag.)
    Version version(const std::string& key)
    {
        const auto object = m_store->findObject(key);
        return object ? object->version : throw ResourceNotFoundException(key + " was stored and is not found");
    }

    /// @return the id of an upload that will be aborted, unless it has ended by then
    std::string begin(const std::string& key, const ObjectMetadata& metadata = {})
    {
        std::string id = m_store->createUpload(key, {metadata, key});
        m_uploads.emplace_back(key, id);
        return id;
    }

    NumberedTag send(const std::string& key, const std::string& id, std::size_t number, const std::string& content)
    {
        TextBody body(content);
        return {number, m_store->uploadPart(key, id, number, body)};
    }

    void upload(const std::string& key, const std::vector<std::string>& contents, const WriteCondition& condition = {},
        const ObjectMetadata& metadata = {})
    {
        const std::string id = begin(key, metadata);
        std::vector<NumberedTag> parts;
        parts.reserve(contents.size());
        for (const std::string& content : contents)
        {
            parts.push_back(send(key, id, parts.size() + 1, content));
        }
        write(key, [&] { return m_store->completeUpload(key, id, parts, condition); });
        m_uploads.pop_back();
    }

    /// Replace an object by a range of it, which the store copies.
    void copy(const std::string& key, const Version& version, const ByteRange& range)
    {
        const std::string id = begin(key);
        m_store->completeUpload(key, id, {{1, m_store->takePart(key, id, 1, {key, version}, range)}}, {});
        m_uploads.pop_back();
    }

    /// Remove everything. When the store has gone away, do not try for the rest. @return what is left
    std::vector<std::string> clear()
    {
        std::vector<std::string> left;
        bool isAway = false;
        const auto remove = [&](const std::string& what, const auto& call)
        {
            try
            {
                isAway ? throw TransientException("Store unreachable", "not tried") : retried(m_interrupted, call);
            }
            catch (const ResourceNotFoundException&)
            {
            }
            catch (const CloudException& failure)
            {
                isAway = isAway || dynamic_cast<const TransientException*>(&failure) != nullptr;
                left.push_back(fmt::format("{}: {}", what, detailOf(failure)));
            }
        };
        for (const auto& [key, id] : std::exchange(m_uploads, {}))
        {
            remove(fmt::format("upload {} of {}", quoted(id), quoted(m_settings.prefix + key)),
                [&, key = key, id = id] { m_store->abortUpload(key, id); });
        }
        for (const std::string& key : std::exchange(m_keys, {}))
        {
            remove(quoted(m_settings.prefix + key), [&] { m_store->deleteObject(key, {}); });
        }
        return left;
    }

private:
    /// Unless the process is interrupted, send a request that stores an object. It is to be removed unless the store
    /// has refused the request.
    template <typename Call>
    std::string write(const std::string& key, const Call& call)
    {
        if (m_interrupted && m_interrupted())
        {
            throw TransientException("Interrupted", "not written");
        }
        const bool isNew = m_keys.insert(key).second;
        try
        {
            return call();
        }
        catch (const TransientException&)
        {
            throw;
        }
        catch (const CloudException&)
        {
            isNew ? void(m_keys.erase(key)) : void();
            throw;
        }
    }

    const std::function<bool()> m_interrupted;
    const S3Settings m_settings;
    std::unique_ptr<S3Store> m_store;
    unsigned m_count = 0; // of keys
    std::set<std::string> m_keys;
    std::vector<std::pair<std::string, std::string>> m_uploads; // key and id
};

using Probe = std::string (*)(Workspace& space);

std::string yesOrNo(bool isYes)
{
    return isYes ? "yes" : "no";
}

/// What an endpoint makes of a condition.
/// @param unmet, met  a request whose condition is not met, and one whose condition is met
std::string judge(const std::function<void()>& unmet, const std::function<void()>& met)
{
    try
    {
        unmet();
        return "no: ignored";
    }
    catch (const PreconditionFailed&)
    {
    }
    try
    {
        met();
        return "yes";
    }
    catch (const PreconditionFailed&)
    {
        return "no: refused even if it is met";
    }
}

/// Judge the condition that an object has a certain tag, on an object that was stored in one piece and one of parts.
std::string judgeMatch(
    Workspace& space, const std::function<void(const std::string& key, const std::string& tag)>& request)
{
    for (const bool hasParts : {false, true})
    {
        const std::string key = space.newKey();
        hasParts ? space.upload(key, {"old"}) : void(space.put(key, "old"));
        const std::string tag = space.version(key).tag;
        const std::string result = judge([&] { request(key, toHex(md5("another"))); }, [&] { request(key, tag); });
        if (result != "yes")
        {
            return result + (hasParts ? ", for objects made of parts" : "");
        }
    }
    return "yes";
}

std::string useObjects(Workspace& space)
{
    const std::string key = space.newKey();
    space.put(key, "content");
    if (space.get(key) != "content" || space.version(key).size != 7)
    {
        return "no: other bytes were read than were stored";
    }
    if (space.store().listObjects(key, "", {}).entries.size() != 1)
    {
        return "no: the object is not listed";
    }
    space.store().deleteObject(key, {});
    return space.store().findObject(key) ? "no: a deleted object is still there" : "yes";
}

std::string readRange(Workspace& space)
{
    const std::string key = space.newKey();
    space.put(key, "content");
    return yesOrNo(space.get(key, ByteRange{2, 3}) == "nte");
}

std::string uploadParts(Workspace& space)
{
    const std::string key = space.newKey();
    space.upload(key, {std::string(minPartSize, 'x'), "end"});
    return yesOrNo(space.get(key, ByteRange{minPartSize - 1, 9}) == "xend");
}

std::string refuseUnequalParts(Workspace& space)
{
    try
    {
        space.upload(space.newKey(), {std::string(minPartSize, 'x'), std::string(minPartSize + 1, 'x'), "end"});
        return "no";
    }
    catch (const UnequalParts&)
    {
        return "yes";
    }
}

std::string uploadSmallParts(Workspace& space)
{
    try
    {
        space.upload(space.newKey(), {std::string(minPartSize - 1, 'x'), "end"});
        return "yes";
    }
    catch (const TransientException&)
    {
        throw;
    }
    catch (const CloudException&)
    {
        return "no";
    }
}

std::string listUpload(Workspace& space)
{
    const std::string key = space.newKey();
    const std::string id = space.begin(key);
    space.send(key, id, 1, "part");
    const auto uploads = space.store().listUploads("").uploads;
    return yesOrNo(std::ranges::find(uploads, id, &PendingUpload::uploadId) != uploads.end());
}

std::string copyPart(Workspace& space)
{
    const std::string key = space.newKey();
    space.upload(key, {std::string(minPartSize, 'x'), "end"});
    space.copy(key, space.version(key), {1, minPartSize + 2});
    return yesOrNo(space.get(key, ByteRange{minPartSize - 2, 9}) == "xend");
}

std::string copyPartIfMatch(Workspace& space)
{
    return judgeMatch(space,
        [&](const std::string& key, const std::string& tag)
        {
            space.renewStore();
            space.store().takePart(key, space.begin(key), 1, {key, {tag, 3}}, {0, 3});
            if (!space.store().abilities(key).conditionalTakes) // it was sent again without the condition
            {
                throw PreconditionFailed("");
            }
        });
}

std::string copyNameWithPercent(Workspace& space)
{
    const std::string key = space.newKey("%2541");
    const std::string decoded = key.substr(0, key.find('%')) + "%41";
    space.put(decoded, "bad");
    const std::string tag = space.put(key, "good");
    space.copy(key, {tag, 4}, {0, 4});
    return space.get(key) == "good" ? "yes" : "no: the name is decoded twice";
}

std::string putIfNoneMatch(Workspace& space)
{
    const std::string key = space.newKey();
    space.put(key, "old");
    return judge([&] { space.put(key, "new", ""); }, [&] { space.put(space.newKey(), "new", ""); });
}

std::string completeIfNoneMatch(Workspace& space)
{
    const std::string key = space.newKey();
    space.put(key, "old");
    return judge([&] { space.upload(key, {"new"}, ""); }, [&] { space.upload(space.newKey(), {"new"}, ""); });
}

std::string putIfMatch(Workspace& space)
{
    return judgeMatch(space, [&](const auto& key, const auto& tag) { space.put(key, "new", tag); });
}

std::string deleteIfMatch(Workspace& space)
{
    return judgeMatch(space, [&](const auto& key, const auto& tag) { space.store().deleteObject(key, tag); });
}

std::string completeIfMatch(Workspace& space)
{
    return judgeMatch(space, [&](const auto& key, const auto& tag) { space.upload(key, {"new"}, tag); });
}

std::string compareTag(Workspace& space)
{
    return yesOrNo(space.put(space.newKey(), "content") == toHex(md5("content")));
}

std::string deleteMany(Workspace& space)
{
    const std::vector<std::string> keys{space.newKey(), space.newKey()};
    for (const std::string& key : keys)
    {
        space.put(key, "content");
    }
    const auto failures = space.store().deleteObjects(keys);
    failures.empty() ? void() : std::rethrow_exception(failures.begin()->second);
    return yesOrNo(
        std::ranges::none_of(keys, [&](const std::string& key) { return space.store().findObject(key).has_value(); }));
}

std::string keepTags(Workspace& space)
{
    const ObjectMetadata tagged{{"x-amz-tagging", "probe=1"}};
    const auto has = [&](const std::string& key)
    {
        const auto metadata = space.version(key).metadata;
        return std::ranges::any_of(*metadata, [](const auto& field) { return field.first == tagCountField; });
    };
    const std::string key = space.newKey();
    space.put(key, "content", {}, tagged);
    if (!has(key))
    {
        return "no";
    }
    space.upload(key, {"content"}, {}, tagged);
    return has(key) ? "yes" : "yes, but not for objects made of parts";
}

std::string useLongKey(Workspace& space)
{
    std::string ending;
    while (ending.size() + space.settings().prefix.size() + 4 < maxKeyBytes)
    {
        ending += ending.size() % 200 == 0 ? '/' : 'k'; // some stores have their own limit for names of files
    }
    const std::string key = space.newKey(ending);
    space.put(key, "content");
    try
    {
        space.upload(key, {"content"});
    }
    catch (const CloudException&) // a store need not have a response for this
    {
        return "yes, but not for objects made of parts";
    }
    return "yes";
}

struct Row
{
    const char* name;
    Probe probe;
    bool EndpointCapabilities::*capability = nullptr; ///< that needs this
    bool isRequired = false;                          ///< by everything
};

using Can = EndpointCapabilities;

constexpr Row rows[] = {
    {"write, read, list, delete", useObjects, nullptr, true},
    {"read a range", readRange, nullptr, true},
    {"parts of 5 MiB", uploadParts, nullptr, true},
    {"parts smaller than 5 MiB", uploadSmallParts},
    {"wants parts of equal size", refuseUnequalParts, &Can::equalParts},
    {"list open uploads", listUpload},
    {"copy parts", copyPart},
    {"copy parts if the version matches", copyPartIfMatch, &Can::conditionalCopies},
    {"copy from names with %", copyNameWithPercent, &Can::copiesAnyKey},
    {"complete if the version matches", completeIfMatch, &Can::conditionalCompletion},
    {"complete if there is no object", completeIfNoneMatch, &Can::conditionalWrites},
    {"put if there is no object", putIfNoneMatch, &Can::conditionalWrites},
    {"put if the version matches", putIfMatch, &Can::conditionalWrites},
    {"delete if the version matches", deleteIfMatch, &Can::conditionalWrites},
    {"delete many objects at once", deleteMany},
    {"MD5 as entity tags", compareTag},
    {"tags of objects", keepTags},
    {"names of 1,024 bytes", useLongKey},
};

std::string run(Workspace& space, Probe probe)
{
    try
    {
        return retried(space.interrupted(), [&] { return probe(space); });
    }
    catch (const TransientException& failure)
    {
        return "unknown: " + detailOf(failure);
    }
    catch (const UnsupportedOperationException&)
    {
        return "no: not implemented";
    }
    catch (const CloudException& failure)
    {
        return "no: " + detailOf(failure);
    }
}

} // namespace

EndpointReport probeEndpoint(
    const S3Settings& settings, const std::function<void(const EndpointFeature& feature)>& found)
{
    Workspace space(settings);
    EndpointReport report;
    report.capabilities = {true, true, true, true, true};
    try
    {
        for (const Row& row : rows)
        {
            const std::string result = run(space, row.probe);
            if (settings.interrupted && settings.interrupted()) // which may be the reason for the result
            {
                report.isUsable = false;
                break;
            }
            found({row.name, result});
            const bool isYes = result.starts_with("yes");
            if (row.capability != nullptr)
            {
                report.capabilities.*row.capability = report.capabilities.*row.capability && isYes;
            }
            if (row.isRequired && !isYes)
            {
                report.isUsable = false;
                break;
            }
        }
    }
    catch (...)
    {
        space.clear();
        throw;
    }
    report.capabilities = report.isUsable ? report.capabilities : EndpointCapabilities();
    report.leftovers = space.clear();
    return report;
}

} // namespace storage::clients::s3
