#pragma once

#include <foundation/storage/provider/fsp.hpp>

#include <cstdint>

namespace foundation::storage::provider
{

/// What a move or a copy does if the destination is an existing file. Other values can be represented;
/// IProvider::supportsReplacementPolicy tells which ones a provider supports.
enum class ReplacementPolicy : std::uint32_t
{
    Fail = 0,    ///< fail with ErrorCode::AlreadyExists
    Replace = 1, ///< replace the file
};

} // namespace foundation::storage::provider
