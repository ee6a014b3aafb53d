#include <foundation/log/basic_diagnostic_logger.hpp>

#include "oneLine.hpp"

#include <boost/log/attributes/value_extraction.hpp>
#include <boost/log/core.hpp>
#include <boost/log/expressions.hpp>
#include <boost/log/sinks/basic_sink_backend.hpp>
#include <boost/log/sinks/unlocked_frontend.hpp>
#include <boost/log/sources/record_ostream.hpp>
#include <boost/log/sources/severity_channel_logger.hpp>
#include <boost/smart_ptr/make_shared_object.hpp>

#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <utility>

namespace foundation::log
{

namespace
{

namespace keywords = boost::log::keywords;
namespace sinks = boost::log::sinks;
namespace sources = boost::log::sources;

using BoostLogger = sources::severity_channel_logger_mt<std::uint32_t, std::string>;

constexpr const char* severityName = "Severity";
constexpr const char* channelName = "Channel";

std::string_view nameOf(std::uint32_t level)
{
    if ((level & (severity::error | severity::warning)) != 0)
    {
        return (level & severity::error) != 0 ? "error" : "warning";
    }
    return (level & severity::progress) != 0 ? "progress" : "detail";
}

/// Write a record as one line without control characters, which could change what a terminal shows.
void writeToStandardError(std::uint32_t level, std::string_view channel, std::string_view message)
{
    std::string line = std::string(channel) + ' ' + std::string(nameOf(level)) + ": " + std::string(message);
    line.erase(line.find_last_not_of('\n') + 1);
    line = onOneLine(std::move(line)) + '\n';
    std::fwrite(line.data(), 1, line.size(), stderr); // one call, so that lines of several processes do not mix
}

/// Pass every record of the process to the sink that setSink() set.
class Router
{
public:
    /// Never destroyed: static destructors may log.
    static Router& instance()
    {
        static Router& router = *new Router();
        return router;
    }

    void route(std::uint32_t level, std::string_view channel, std::string_view message)
    {
        const std::lock_guard lock(m_mutex);
        const auto sink = m_sink; // the sink may replace itself
        try
        {
            (*sink)(level, channel, message);
        }
        catch (const std::exception& failure)
        {
            // Callers often log while they close or destroy something, which has to complete.
            writeToStandardError(level, channel, std::string(message) + " (log sink failed: " + failure.what() + ")");
        }
    }

    void setSink(Sink sink)
    {
        auto shared = std::make_shared<const Sink>(sink ? std::move(sink) : Sink(writeToStandardError));
        const std::lock_guard lock(m_mutex);
        m_sink.swap(shared);
    }

    /// Tell whether Boost.Log's static objects may be destroyed already, so that records must bypass Boost.Log.
    bool isProcessEnding() const noexcept { return m_processEnding.load(std::memory_order_relaxed); }

private:
    class Backend : public sinks::basic_sink_backend<sinks::concurrent_feeding>
    {
    public:
        explicit Backend(Router& router)
            : m_router(router)
        {
        }

        void consume(const boost::log::record_view& record)
        {
            const auto level = boost::log::extract<std::uint32_t>(severityName, record);
            const auto channel = boost::log::extract<std::string>(channelName, record);
            const auto message = record[boost::log::expressions::smessage];
            if (level && channel && message)
            {
                m_router.route(*level, *channel, *message);
            }
        }

    private:
        Router& m_router;
    };

    Router()
        : m_sink(std::make_shared<const Sink>(writeToStandardError))
        , m_core(boost::log::core::get())
    {
        const auto frontend =
            boost::make_shared<sinks::unlocked_sink<Backend>>(boost::make_shared<Backend>(std::ref(*this)));
        // The host routes the records of its own Boost.Log loggers.
        frontend->set_filter(boost::log::expressions::has_attr<std::uint32_t>(severityName) &&
                             boost::log::expressions::has_attr<std::string>(channelName));
        m_core->add_sink(frontend);

        // The first record makes Boost.Log construct the last of its static objects. They are destroyed after the
        // handler that is registered here has run.
        BoostLogger().open_record(keywords::severity = severity::error);
        std::atexit([] { instance().m_processEnding.store(true); });
    }

    // Held while the sink runs, so that its calls are serialised. Recursive, because the sink may log or call setSink.
    std::recursive_mutex m_mutex;
    std::shared_ptr<const Sink> m_sink; // guarded by m_mutex; never null
    const boost::log::core_ptr m_core;  // keeps the core for loggers that outlive Boost.Log's own reference
    std::atomic<bool> m_processEnding{false};
};

} // namespace

struct basic_diagnostic_logger<char>::Implementation
{
    explicit Implementation(const std::string& channel)
        : logger(keywords::channel = channel)
    {
    }

    BoostLogger logger;
};

basic_diagnostic_logger<char>::basic_diagnostic_logger(std::string channel)
    : m_enabled(severity::defaultMask)
    , m_channel(std::move(channel))
    , m_implementation(Router::instance().isProcessEnding() ? nullptr : std::make_unique<Implementation>(m_channel))
{
}

basic_diagnostic_logger<char>::~basic_diagnostic_logger() = default;

void basic_diagnostic_logger<char>::write(std::uint32_t level, std::string_view message)
{
    if (!isEnabled(level))
    {
        return;
    }
    if (Router::instance().isProcessEnding())
    {
        Router::instance().route(level, m_channel, message);
        return;
    }
    auto& logger = m_implementation->logger;
    if (boost::log::record record = logger.open_record(keywords::severity = level))
    {
        boost::log::record_ostream stream(record);
        stream.write(message.data(), static_cast<std::streamsize>(message.size()));
        stream.flush();
        logger.push_record(std::move(record));
    }
}

void setSink(Sink sink)
{
    Router::instance().setSink(std::move(sink));
}

} // namespace foundation::log
