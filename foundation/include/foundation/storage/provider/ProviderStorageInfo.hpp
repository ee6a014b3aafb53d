#pragma once

#include <foundation/storage/provider/fsp.hpp>

#include <cstdint>
#include <optional>

namespace foundation::storage::provider
{

/// The storage space of a store, in bytes. A field is empty if the provider does not know it.
struct ProviderStorageInfo
{
    std::optional<std::uint64_t> capacity;
    std::optional<std::uint64_t> used;
    std::optional<std::uint64_t> available;
};

} // namespace foundation::storage::provider
