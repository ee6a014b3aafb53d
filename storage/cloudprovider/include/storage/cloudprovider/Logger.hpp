#pragma once

#include <storage/cloudprovider/Export.hpp>

#include <foundation/log/basic_diagnostic_logger.hpp>

namespace storage::cloudprovider
{

/// Return the logger that the whole library writes to, on the channel "storage::cloudprovider".
///
/// A record is built only when its severity is enabled in the logger's mask: 2 for entry and tracing records, 4 for a
/// part that is added to a file, 16 for caught exceptions, 512 for a temporary file that could not be deleted. Any
/// thread may call.
CLOUDPROVIDER_EXPORT foundation::log::basic_diagnostic_logger<char>& getLogger();

} // namespace storage::cloudprovider
