#pragma once

#include <cstddef>
#include <functional>
#include <vector>

namespace storage::clients::s3
{

/// Run tasks at the same time, in order of their beginning, and wait for their end.
///
/// After a failure no further task begins; the failure is thrown when those under way have ended.
/// @param threads  most that run at once, the caller's own among them
void runParallel(std::size_t threads, const std::vector<std::function<void()>>& tasks);

} // namespace storage::clients::s3
