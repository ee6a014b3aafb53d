#pragma once

#include <foundation/storage/provider/fsp.hpp>

#include <cstdint>
#include <optional>

namespace foundation::storage::provider
{

/// How much room a store has, in bytes; none where the provider cannot tell.
struct ProviderStorageInfo
{
    std::optional<std::uint64_t> capacity;
    std::optional<std::uint64_t> used;
    std::optional<std::uint64_t> available;
};

} // namespace foundation::storage::provider
