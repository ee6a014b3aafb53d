#pragma once

#include <string>

namespace storage::cloudprovider::detail
{

/// Return how the names of this process's temporary files begin: "cloudprovider-PLACE-PID-START-".
///
/// PLACE is the same for all processes that can see each other's ids: those of one boot of one machine in one pid
/// namespace. START is the start time of the process. If /proc does not show them, the name has no PLACE and no START,
/// and nobody takes the process for dead.
std::string temporaryFilePrefix();

} // namespace storage::cloudprovider::detail
