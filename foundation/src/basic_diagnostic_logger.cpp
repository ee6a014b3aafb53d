#include <foundation/log/basic_diagnostic_logger.hpp>

#include "oneLine.hpp"

#include <boost/log/attributes/attribute_value_impl.hpp>
#include <boost/log/core.hpp>
#include <boost/log/expressions/message.hpp>
#include <boost/log/sinks/sink.hpp>
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

/// Pass on a record. If that throws, write the record and the reason to standard error: callers often log while they
/// close or destroy something, which has to complete.
template <typename PassOn>
void attempt(std::uint32_t level, std::string_view channel, std::string_view message, const PassOn& passOn) noexcept
{
    try
    {
        try
        {
            passOn();
        }
        catch (const std::exception& failure)
        {
            writeToStandardError(level, channel, std::string(message) + " (log sink failed: " + failure.what() + ")");
        }
        catch (...)
        {
            writeToStandardError(level, channel, std::string(message) + " (log sink failed)");
        }
    }
    catch (...) // There is no memory for the text, and nowhere else to report that.
    {
    }
}

/// Opens records for the sinks that the host has attached to the core of Boost.Log, and for no other.
///
/// If no sink is attached, the core passes each record to a fallback, which writes it to standard output. The records
/// of the host must reach the fallback, the framework's must not. The core does not tell whether it has sinks, but it
/// does not use the fallback while it has one. Therefore a gate, which accepts none of the framework's records, is
/// among the sinks while such a record is opened.
class HostSinks
{
public:
    HostSinks()
        : m_core(boost::log::core::get())
        , m_gate(boost::make_shared<Gate>(std::ref(*this)))
    {
    }

    /// @param open  opens a record in the core; must not log
    /// @return the record, which is empty if no sink of the host accepts it
    template <typename Open>
    boost::log::record openForHost(const Open& open)
    {
        const std::lock_guard lock(m_mutex);
        const GateInPlace inPlace(*this);
        return open();
    }

private:
    class Gate : public sinks::sink
    {
    public:
        explicit Gate(HostSinks& owner)
            : sink(false)
            , m_owner(owner)
        {
        }

        bool will_consume(const boost::log::attribute_value_set&) override { return !isOpening; }

        /// Receive a record of the host that another thread opened while the gate was in place.
        void consume(const boost::log::record_view& record) override
        {
            boost::log::core& core = *m_owner.m_core;
            const auto open = [&] { return core.open_record(record.attribute_values()); };
            if (m_owner.openForHost(open))
            {
                return; // sinks of the host receive it, too
            }
            if (boost::log::record again = open())
            {
                core.push_record(std::move(again));
            }
        }

        void flush() override {}

    private:
        HostSinks& m_owner;
    };

    struct GateInPlace
    {
        explicit GateInPlace(HostSinks& host)
            : owner(host)
        {
            owner.m_core->add_sink(owner.m_gate);
            isOpening = true;
        }
        GateInPlace(const GateInPlace&) = delete;
        GateInPlace& operator=(const GateInPlace&) = delete;
        ~GateInPlace()
        {
            isOpening = false;
            owner.m_core->remove_sink(owner.m_gate);
        }

        HostSinks& owner;
    };

    static inline thread_local bool isOpening = false; // this thread opens a record that the gate has to reject

    std::mutex m_mutex;                // held while the gate is in place
    const boost::log::core_ptr m_core; // keeps the core for loggers that outlive Boost.Log's own reference
    const boost::shared_ptr<Gate> m_gate;
};

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
        (*sink)(level, channel, message);
    }

    void setSink(Sink sink)
    {
        auto shared = std::make_shared<const Sink>(sink ? std::move(sink) : Sink(writeToStandardError));
        const std::lock_guard lock(m_mutex);
        m_sink.swap(shared);
    }

    void passToHost(BoostLogger& logger, std::uint32_t level, std::string_view message)
    {
        boost::log::record record =
            m_hostSinks.openForHost([&] { return logger.open_record(keywords::severity = level); });
        if (record)
        {
            record.attribute_values().insert(boost::log::expressions::tag::smessage::get_name(),
                boost::log::attributes::make_attribute_value(std::string(message)));
            logger.push_record(std::move(record));
        }
    }

    /// Tell whether Boost.Log's static objects may be destroyed already, so that records must bypass Boost.Log.
    bool isProcessEnding() const noexcept { return m_processEnding.load(std::memory_order_relaxed); }

private:
    Router()
        : m_sink(std::make_shared<const Sink>(writeToStandardError))
    {
        // The first record makes Boost.Log construct the last of its static objects. They are destroyed after the
        // handler that is registered here has run.
        BoostLogger().open_record(keywords::severity = severity::error);
        std::atexit([] { instance().m_processEnding.store(true); });
    }

    // Held while the sink runs, so that its calls are serialised. Recursive, because the sink may log or call setSink.
    std::recursive_mutex m_mutex;
    std::shared_ptr<const Sink> m_sink; // guarded by m_mutex; never null
    HostSinks m_hostSinks;
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

void basic_diagnostic_logger<char>::write(std::uint32_t level, std::string_view message) noexcept
{
    if (!isEnabled(level))
    {
        return;
    }
    attempt(level, m_channel, message, [&] { Router::instance().route(level, m_channel, message); });
    if (m_implementation && !Router::instance().isProcessEnding())
    {
        attempt(level, m_channel, message,
            [&] { Router::instance().passToHost(m_implementation->logger, level, message); });
    }
}

void setSink(Sink sink)
{
    Router::instance().setSink(std::move(sink));
}

} // namespace foundation::log
