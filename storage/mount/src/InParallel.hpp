#pragma once

#include <cstddef>
#include <functional>

namespace storage::mount
{

/// Call run(0) … run(count - 1), by up to 8 threads of which this is one. After a failure no more calls begin, and it
/// is thrown when those in progress have ended.
void inParallel(std::size_t count, const std::function<void(std::size_t index)>& run);

} // namespace storage::mount
