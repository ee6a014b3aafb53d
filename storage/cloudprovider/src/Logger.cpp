#include <storage/cloudprovider/Logger.hpp>

#include "LogRecords.hpp"

#include <boost/exception/diagnostic_information.hpp>

namespace storage::cloudprovider
{

foundation::log::basic_diagnostic_logger<char>& getLogger()
{
    // Never destroyed: a stream in a static object may log when it is closed at the end of the process.
    static auto& logger = *new foundation::log::basic_diagnostic_logger<char>("storage::cloudprovider");
    return logger;
}

void logCaughtException() noexcept
{
    try
    {
        if (getLogger().isEnabled(foundation::log::severity::error))
        {
            getLogger().write(foundation::log::severity::error,
                "Exception caught: " + boost::current_exception_diagnostic_information());
        }
    }
    catch (...) // There is no memory for the record, and nowhere else to report that.
    {
    }
}

} // namespace storage::cloudprovider
