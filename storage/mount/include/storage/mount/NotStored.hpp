#pragma once

#include <string>

namespace storage::mount
{

/// A file that is not stored.
struct NotStored
{
    std::string key;
    std::string reason; ///< for people; says what becomes of it
};

} // namespace storage::mount
