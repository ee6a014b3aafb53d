#pragma once

#include <cstddef>
#include <functional>
#include <vector>

namespace storage::clients::s3
{

using Tasks = std::vector<std::function<void()>>;

/// Run tasks concurrently and wait for all of them. Tasks of one kind start in their order.
///
/// If threads cannot be started, fewer tasks run at a time. After a failure no further task starts; the first failure
/// is thrown when the running tasks have ended.
/// @param threads   maximum tasks that run at a time, some of them on the caller's thread
/// @param maxHeavy  maximum heavy tasks that run at a time; at least 1
void runParallel(std::size_t threads, const Tasks& tasks, std::size_t maxHeavy, const Tasks& heavyTasks);

} // namespace storage::clients::s3
