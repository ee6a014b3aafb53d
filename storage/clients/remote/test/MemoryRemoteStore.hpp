#pragma once

#include <storage/clients/common/TransientException.hpp>
#include <storage/clients/remote/RemoteStore.hpp>

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace storage::clients::test
{

/// A request that a store has received.
struct StoreRequest
{
    std::string operation; ///< of RemoteStore: "getObject"
    std::string key;       ///< or the prefix of a listing
    ByteRange range = {};  ///< that is read or copied; of a body: all of it
};

/// What goes wrong with a request.
struct Fault
{
    enum class How
    {
        Before,  ///< throws `failure` instead of taking effect
        After,   ///< takes effect, then throws `failure`, as if the response were lost
        Twice,   ///< takes effect, and is sent again with another outcome, as when a connection breaks
        Break,   ///< of getObject(): delivers `bytes` bytes, then throws `failure`; of others: as Before
        Corrupt, ///< of getObject(): delivers wrong bytes, then throws CorruptContent; of others: as Before
    };

    How how = How::Before;
    std::exception_ptr failure = std::make_exception_ptr(TransientException("Busy", "store busy"));
    std::uint64_t bytes = 0;
};

/// Objects and uploads in memory, of the RemoteStores that connect() makes. Safe for concurrent calls.
///
/// A store refuses what its abilities exclude, and ignores the conditions that they do not promise.
class MemoryBucket : public std::enable_shared_from_this<MemoryBucket>
{
public:
    std::unique_ptr<RemoteStore> connect();

    // Change these while no request runs.
    StoreAbilities abilities{.minPartSize = 1,
        .maxObjectSize = 1U << 30U,
        .maxTakeSize = 1U << 20U,
        .maxDeletions = 1'000,
        .conditionalTakes = true,
        .conditionalWrites = true,
        .conditionalCreation = true,
        .conditionalCompletion = true};
    bool refusesTakes = false;        ///< whatever `abilities` say, until a refusal has changed them
    bool refusesUnequalParts = false; ///< likewise
    bool tagsAreHashes = true;        ///< the tags of objects can be computed, else they cannot
    std::size_t pageSize = 1'000;     ///< maximum entries of a page
    unsigned emptyPages = 0;          ///< before each page of a listing
    /// Called without a lock before each request. It may block, change the bucket, throw, and return a fault.
    std::function<std::optional<Fault>(const StoreRequest& request)> faults;

    // Calls of somebody else.
    void put(const std::string& key, const std::optional<std::string>& content); ///< nullopt: remove the object
    std::optional<std::string> content(const std::string& key) const;            ///< nullopt: there is no such object
    std::string tag(const std::string& key) const;                               ///< empty: there is no such object
    std::size_t openUploads() const;                                             ///< that have parts

    /// The requests since the last call of this, in the order of their arrival.
    std::vector<StoreRequest> takeRequests();

    /// How many of these the requests since then contain.
    std::size_t count(const std::string& operation) const;

    /// Wait until they meet a condition.
    void await(const std::function<bool(const std::vector<StoreRequest>& requests)>& condition);

    /// Let requests of other threads for this operation wait before they take effect, until another one is held; empty:
    /// none.
    void hold(const std::string& operation);

private:
    class Store;
    struct Object
    {
        std::string content;
        std::string tag;
        boost::posix_time::ptime time;
        ObjectMetadata metadata;
        std::vector<std::uint64_t> partEnds;
    };
    struct Upload
    {
        std::string key;
        boost::posix_time::ptime time;
        ObjectMetadata metadata;
        std::map<std::size_t, Object> parts;
    };

    std::optional<Fault> begin(const StoreRequest& request);

    // With m_mutex held:
    Object makeObject(const std::string& content, const std::string& hash = "", const ObjectMetadata& metadata = {});
    const Object* find(const std::string& key) const; // null: there is none
    Upload& uploadAt(const std::string& key, const std::string& id);

    mutable std::mutex m_mutex; // innermost; guards everything below
    std::condition_variable m_changed;
    std::map<std::string, Object> m_objects;
    std::map<std::string, Upload> m_uploads; // by id
    unsigned m_count = 0;                    // of objects, uploads and parts ever made
    std::vector<StoreRequest> m_requests;
    std::string m_heldOperation;
    std::thread::id m_holder;
};

} // namespace storage::clients::test
