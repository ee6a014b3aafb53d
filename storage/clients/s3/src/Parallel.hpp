#pragma once

#include <cstddef>
#include <functional>
#include <vector>

namespace storage::clients::s3
{

using Tasks = std::vector<std::function<void()>>;

/// Run tasks at the same time, each kind in its order, and wait for their end.
///
/// Fewer run at once where threads cannot be had. After a failure no further task begins; the failure is thrown when
/// those under way have ended.
/// @param threads      most tasks that run at once; the caller's own thread runs some
/// @param heavyAtOnce  most of the heavy ones that do; 1 at least
void runParallel(std::size_t threads, const Tasks& tasks, std::size_t heavyAtOnce, const Tasks& heavyTasks);

} // namespace storage::clients::s3
