#pragma once

#include <storage/clients/common/VersionPins.hpp>
#include <storage/clients/remote/RemoteStore.hpp>
#include <storage/cloudprovider/CloudClient.hpp>

#include <cstdint>
#include <vector>

namespace storage::clients
{

/// Cut a stored object into parts. How it was written does not matter: any range of it can be read or copied.
///
/// Parts have `partSize` bytes, so that accessing one byte transfers little. There are two exceptions:
/// - Parts of a large object are larger, but up to 5 TiB not above 8 MiB, so that it has at most half as many parts as
/// the store
///   accepts. The other half is left for appended parts. An object of more than 39 GiB, with the limits of S3, has more
///   parts: most of them get no number of their own when they change. Where all parts must be equal, parts grow
///   further, because there each part has its own.
/// - Parts of an object that is hardly larger than the store's minimum part size have at least that size. Otherwise the
///   unchanged ones before the last could not fill a part of the new object.
///
/// If there are several parts below the store's minimum, an empty one follows: appended bytes then begin a part of
/// their own, for which nothing has to be read and sent again.
/// @return at least one part; an empty one for an empty object
std::vector<cloudprovider::PartInfo> cutIntoParts(
    const Version& object, std::uint64_t partSize, const StoreAbilities& store);

} // namespace storage::clients
