#pragma once

#include "StoreTransaction.hpp"

#include <storage/cloudprovider/CloudClient.hpp>

#include <boost/date_time/posix_time/posix_time_types.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace storage::clients::local
{

/// One version of an object. A version that replaces it has another id.
struct StoredObject
{
    std::int64_t id = 0;
    std::uint64_t size = 0;
    boost::posix_time::ptime modified;
};

/// One part of a version of an object.
struct StoredPart
{
    std::int64_t content = 0;
    std::uint64_t offset = 0;
    std::uint64_t size = 0;
};

/// The tag of an object or a part: the id of the object, or of the content that has the part's bytes.
std::string tagOf(std::int64_t id);
std::int64_t idOf(const std::string& tag); ///< the inverse

// Times as the index stores them: microseconds since 1970, UTC.
std::int64_t toMicroseconds(const boost::posix_time::ptime& time);
boost::posix_time::ptime fromMicroseconds(std::int64_t microseconds);

std::optional<StoredObject> findObject(Connection& index, const std::string& key);

/// As findObject(); throws StoreError when there is no object.
StoredObject requireObject(Connection& index, const std::string& key);

/// List the parts of one version of an object that hold its bytes [first, last], in order. A range beyond the end
/// begins with the last part.
std::vector<StoredPart> findParts(Connection& index, std::int64_t object, std::uint64_t first, std::uint64_t last);

/// The parts as clients of the store see them, with indexes from 0 and the tags of their contents.
std::vector<cloudprovider::PartInfo> toPartInfos(const std::vector<StoredPart>& parts);

/// Store an object of one part under the key, replacing the one that is there.
///
/// @return the new object
StoredObject putObject(StoreTransaction& transaction, const std::string& key, StagedContent& content);

/// Store an object under the key, replacing the one that is there. Its parts are in the index already.
///
/// @return the new object
StoredObject placeObject(
    StoreTransaction& transaction, const std::string& key, std::int64_t object, std::uint64_t size);

/// Remove the object under the key. A missing object is not an error.
void removeObject(StoreTransaction& transaction, const std::string& key);

/// Remove the parts of a version of an object that is no longer under its key. If there are many, some are dropped only
/// after the commit.
void removeParts(StoreTransaction& transaction, std::int64_t object);

/// Drop the parts of removed objects that are left, in small transactions: on a full disk, there is no room for a large
/// one. If that fails, it is left to the orphan collector.
///
/// @param wait  for other clients; empty: as long as LocalSettings say
void dropRemoved(Database& database, ContentFiles& files, std::optional<LockWait> wait = std::nullopt);

} // namespace storage::clients::local
