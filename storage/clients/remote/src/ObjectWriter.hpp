#pragma once

#include "FileMetadata.hpp"
#include "Retry.hpp"

#include <storage/clients/common/RequiredVersions.hpp>
#include <storage/clients/common/VersionPins.hpp>
#include <storage/clients/remote/RemoteStore.hpp>

#include <cstdint>
#include <exception>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace storage::clients
{

/// Puts, copies and deletes objects in one request, under the conditions of RequiredVersions, and finds out what a
/// request with a lost response has done. Safe for concurrent calls.
class ObjectWriter
{
public:
    ObjectWriter(
        RemoteStore& store, Retry& retry, VersionPins& pins, RequiredVersions& required, const FileMetadata& metadata)
        : m_store(store)
        , m_retry(retry)
        , m_pins(pins)
        , m_required(required)
        , m_metadata(metadata)
    {
    }

    void put(const std::string& key, RequestBody& body);
    void remove(const std::string& key);

    /// See RemoteClient::deleteObjects().
    std::map<std::string, std::exception_ptr> remove(const std::vector<std::string>& keys);

    /// Copy an object of at most StoreAbilities::maxCopySize bytes.
    void copy(const CopySource& source, const std::string& target);

private:
    using Send = std::function<void(const WriteCondition& condition)>;
    using Effect = std::function<bool(const std::optional<StoredObject>& stored)>;

    /// Make one attempt to change an object if it has the required version.
    ///
    /// @param needsLookup  the store does not check the condition
    /// @param hasEffect    whether the object shows that an earlier attempt, whose response was lost, has succeeded
    void attempt(const std::string& key, const WriteCondition& required, bool needsLookup, const Send& send,
        const Effect& hasEffect);

    /// @param failures  gets the keys that the store refuses to delete
    void removeBatch(std::vector<std::string> keys, std::map<std::string, std::exception_ptr>& failures);

    /// Throw unless the object has the version that is copied.
    void requireCurrent(const CopySource& source);

    RemoteStore& m_store;
    Retry& m_retry;
    VersionPins& m_pins;
    RequiredVersions& m_required;
    const FileMetadata& m_metadata;
};

} // namespace storage::clients
