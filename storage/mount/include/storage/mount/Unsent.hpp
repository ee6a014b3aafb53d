#pragma once

#include <cstdint>
#include <string>

namespace storage::mount
{

/// A file that is not stored yet.
struct Unsent
{
    std::string key;
    std::uint64_t size = 0; ///< bytes
    bool isBeingSent = false;
};

} // namespace storage::mount
