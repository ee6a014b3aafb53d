#include <storage/cloudprovider/Logger.hpp>

#include "LogRecords.hpp"

#include <boost/exception/diagnostic_information.hpp>

namespace storage::cloudprovider
{

foundation::log::basic_diagnostic_logger<char>& getLogger()
{
    static foundation::log::basic_diagnostic_logger<char> logger("storage::cloudprovider");
    return logger;
}

void logCaughtException()
{
    if (getLogger().isEnabled(foundation::log::severity::error))
    {
        getLogger().write(
            foundation::log::severity::error, "Exception caught: " + boost::current_exception_diagnostic_information());
    }
}

} // namespace storage::cloudprovider
