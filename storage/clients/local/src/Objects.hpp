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

/// One version of an object; whatever replaces it has another number.
struct StoredObject
{
    std::int64_t number = 0;
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

/// The tag that stands for an object or a content outside the store.
std::string tagOf(std::int64_t number);

// Times as the index has them.
std::int64_t toMicroseconds(const boost::posix_time::ptime& time);
boost::posix_time::ptime fromMicroseconds(std::int64_t microseconds);

std::optional<StoredObject> findObject(Connection& index, const std::string& key);

/// As findObject(); a missing object is a StoreError.
StoredObject requireObject(Connection& index, const std::string& key);

/// List the parts of one version of an object, in order, from the one that has the byte at `first` or the last one
/// before it, up to the last one that begins at `last` or before.
std::vector<StoredPart> findParts(Connection& index, std::int64_t object, std::uint64_t first, std::uint64_t last);

/// The parts as they are shown outside the store, with the tags of their contents; counted from 0.
std::vector<cloudprovider::PartInfo> toPartInfos(const std::vector<StoredPart>& parts);

/// Make the content an object of one part, in place of what stands under the key.
void putObject(StoreTransaction& transaction, const std::string& key, StagedContent& content);

/// Make this the object under the key, in place of what stood there. Its parts are in the index already.
void placeObject(StoreTransaction& transaction, const std::string& key, std::int64_t object, std::uint64_t size);

/// Remove the object under the key, if there is one, with its parts.
void removeObject(StoreTransaction& transaction, const std::string& key);

} // namespace storage::clients::local
