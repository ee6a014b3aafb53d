#pragma once

#include "FileMetadata.hpp"
#include "MemoryBudget.hpp"
#include "ObjectReader.hpp"
#include "PartBytes.hpp"
#include "Retry.hpp"
#include "TaskPool.hpp"
#include "UploadRegistry.hpp"

#include <storage/clients/common/ObjectUploader.hpp>
#include <storage/clients/common/RequiredVersions.hpp>
#include <storage/clients/common/UploadInventory.hpp>
#include <storage/clients/common/VersionPins.hpp>
#include <storage/clients/remote/RemoteStore.hpp>
#include <storage/cloudprovider/CloudClient.hpp>

#include <functional>
#include <iosfwd>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace storage::clients
{

/// Objects that are written in parts. The operations are those of CloudClient. Safe for concurrent calls.
///
/// A part that the store accepts on its own is copied into a buffer and sent in the background. Copies are only
/// recorded, and smaller parts are kept in the upload's spool. So are those of a PartGroup of several, which is sent in
/// the background when it is complete. The completion knows the whole file: it combines what is left into few requests
/// and runs several at a time. What it has transferred stays, so that a retry of the completion
/// transfers only what is missing.
///
/// A part that could not be sent goes to the spool, too. The next uploadPart() or copyPart() of the upload throws its
/// failure, once, and the completion sends it again.
class Uploads
{
public:
    Uploads(RemoteStore& store, Retry& retry, VersionPins& pins, const RequiredVersions& required, ObjectReader& reader,
        const FileMetadata& metadata, MemoryBudget& memory, TaskPool& pool)
        : m_store(store)
        , m_retry(retry)
        , m_pins(pins)
        , m_required(required)
        , m_reader(reader)
        , m_metadata(metadata)
        , m_memory(memory)
        , m_pool(pool)
    {
    }

    std::string create(const std::string& key, const std::string& tag);
    std::string send(
        const std::string& key, const std::string& id, const cloudprovider::PartInfo& part, std::istream& content);
    std::string copy(const std::string& key, const std::string& id, const cloudprovider::PartInfo& part);
    void abort(const std::string& key, const std::string& id);
    void complete(const std::string& key, const std::string& id, const std::vector<cloudprovider::PartInfo>& parts);
    std::vector<PendingUpload> pending();

    /// Make a copy of a large object, of ranges that the store copies. Aborts the upload after a failure.
    /// @param rangeSize  maximum bytes of a range
    void copyObject(const CopySource& source, const std::string& target, std::uint64_t rangeSize);

    /// Store a large object. Aborts the upload after a failure.
    void storeObject(const std::string& key, const ObjectUploader::Source& source);

    /// Upload an object part by part, and abort that after a failure.
    /// @param part  the first one
    /// @param next  reads the one behind it; empty: there is none. A part that is shorter than the first is the last.
    void storeStream(const std::string& key, std::string_view part, const std::function<std::string_view()>& next);

    /// Abort every upload that is open, and log failures. After a TransientException, abort no other: it would take as
    /// long to fail. Call before the thread pool ends; no other call may be in progress.
    void abortAll() noexcept;

private:
    /// What a completion will do.
    struct Completion
    {
        UploadPlan plan;
        std::map<std::size_t, std::size_t> kept; // number -> index of the parts that are sent already
        Version source;                          // of the object that bytes are copied from; no tag: none are
        WriteCondition replaces;                 // the object that it may replace
    };

    /// A group of parts that is on the way.
    struct Transfer
    {
        UploadPtr upload;
        PartGroup group;
        std::uint64_t generation; // of its first part
    };

    /// The bytes of a part that is sent.
    struct MappedPart
    {
        std::vector<MappedBytes> mappings;    // none if they are in a buffer
        std::vector<std::string_view> pieces; // in order
    };

    static Retry::Request request(Operation operation, Upload& upload, std::uint64_t bytes = 0, std::size_t number = 0);
    std::string openAtStore(Upload& upload);
    std::string sendBody(Upload& upload, std::size_t number, RequestBody& body);
    void sendLater(const Transfer& transfer, bool isConcurrent);
    void send(const Transfer& transfer);
    std::string spoolPart(
        Upload& upload, const cloudprovider::PartInfo& part, const std::function<void(char* target)>& write);
    void completeWhole(const UploadPtr& upload, std::uint64_t size, std::uint64_t partSize, Upload::Part part);
    Version requireSource(const cloudprovider::PartInfo& part, Upload& upload);
    void abortOwn(Upload& upload);
    bool tryToAbort(const Upload& upload) noexcept;
    void abortForeign(const std::string& key, const std::string& storeId);
    Completion prepare(Upload& upload, const std::vector<cloudprovider::PartInfo>& parts);
    std::string assembleObject(Upload& upload, const std::vector<cloudprovider::PartInfo>& parts);
    bool hasOtherPlan(Upload& upload, const std::vector<cloudprovider::PartInfo>& parts, const UploadPlan& plan);
    std::string replaceObject(Upload& upload, const Completion& completion, const std::vector<NumberedTag>& parts);
    void transferParts(Upload& upload, const Completion& completion);
    std::string transferPart(Upload& upload, const PlannedPart& part, const Version& source);
    MappedPart map(Upload& upload, const PlannedPart& part, const Version& source);
    std::optional<std::vector<NumberedTag>> tagsOf(const Upload& upload, const Completion& completion) const;
    std::string finish(Upload& upload, const Completion& completion, const std::vector<NumberedTag>& parts);
    std::optional<bool> isOpenAtStore(const Upload& upload);

    RemoteStore& m_store;
    Retry& m_retry;
    VersionPins& m_pins;
    const RequiredVersions& m_required;
    ObjectReader& m_reader;
    const FileMetadata& m_metadata;
    MemoryBudget& m_memory;
    TaskPool& m_pool;
    UploadRegistry m_registry;
    std::mutex m_mutex;                        // innermost
    std::set<std::string> m_unconfirmedAborts; // guarded by m_mutex; uploads of others whose abort got no response
};

} // namespace storage::clients
