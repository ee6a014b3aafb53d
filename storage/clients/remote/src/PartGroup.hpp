#pragma once

#include <storage/clients/remote/RemoteStore.hpp>

#include <cstddef>

namespace storage::clients
{

/// Consecutive parts of a file that are sent as one part of the store.
struct PartGroup
{
    std::size_t number = 0; ///< of the store's part, from 1; 0: none
    std::size_t first = 0;  ///< index of the first part
    std::size_t count = 1;

    /// Index behind the last part.
    std::size_t end() const noexcept { return first + count; }
};

/// The group of a part of the file, for a file of unknown size: its numbers last for StoreAbilities::maxObjectSize in
/// parts of StoreAbilities::minPartSize, or in larger ones.
///
/// Groups have one part at the beginning of a file. Later ones are a fixed fraction of the bytes before them: with the
/// limits of S3 a 1,111th, so that a file of 5 TiB has no part above 4.6 GiB. Where all parts must be equal, all groups
/// have one part.
/// @param ungrouped  parts at the beginning of the file that are groups of one in any case, and count for nothing else
/// @return a number above StoreAbilities::maxParts if the store has none for the part
PartGroup groupOf(std::size_t index, std::size_t ungrouped, const StoreAbilities& store);

} // namespace storage::clients
