#pragma once

#include <storage/cloudprovider/Export.hpp>

#include <foundation/log/basic_diagnostic_logger.hpp>

namespace storage::cloudprovider
{

/// Return the one logger of the whole system, on the channel "storage::cloudprovider".
///
/// A record is built only when the logger's mask has its severity: 2 for entry and tracing records, 4 for a part that
/// is added to a file, 16 for caught exceptions, 512 for a temporary file that could not be deleted. Any thread may
/// call.
CLOUDPROVIDER_EXPORT foundation::log::basic_diagnostic_logger<char>& getLogger();

} // namespace storage::cloudprovider
