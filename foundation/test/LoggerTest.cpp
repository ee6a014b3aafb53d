#include <foundation/log/basic_diagnostic_logger.hpp>

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace
{

namespace severity = foundation::log::severity;

using Logger = foundation::log::basic_diagnostic_logger<char>;

class LoggerTest : public ::testing::Test
{
protected:
    LoggerTest()
    {
        foundation::log::setSink([this](std::uint32_t level, std::string_view channel, std::string_view message)
            { m_records.push_back(std::string(channel) + '|' + std::to_string(level) + '|' + std::string(message)); });
    }
    ~LoggerTest() override { foundation::log::setSink({}); }

    std::vector<std::string> m_records;
};

TEST_F(LoggerTest, LetsThroughWhatTheMaskSays)
{
    Logger logger("some::channel");
    EXPECT_EQ(logger.enabledSeverities(), 16U | 512U);
    const auto writeAll = [&]
    {
        for (const std::uint32_t level : {severity::detail, severity::progress, severity::error, severity::warning})
        {
            logger.write(level, "line 1\nline 2");
        }
        return std::exchange(m_records, {}).size();
    };
    EXPECT_EQ(writeAll(), 2U);
    logger.setEnabledSeverities(~0U);
    EXPECT_EQ(writeAll(), 4U);
    logger.setEnabledSeverities(severity::progress);
    logger.write(severity::progress, "line 1\nline 2");
    EXPECT_EQ(m_records, std::vector<std::string>{"some::channel|4|line 1\nline 2"});
    EXPECT_FALSE(logger.isEnabled(severity::detail | severity::error));
}

TEST_F(LoggerTest, SerialisesTheSinkOverThreadsAndChannels)
{
    constexpr int perThread = 500;
    Logger shared("shared");
    const auto work = [&shared]
    {
        Logger own("own");
        for (int i = 0; i < perThread; ++i)
        {
            (i % 2 == 0 ? shared : own).write(severity::error, "text");
        }
    };
    {
        const std::jthread first(work);
        const std::jthread second(work);
    }
    EXPECT_EQ(m_records.size(), 2U * perThread);
}

TEST_F(LoggerTest, SinksMayLogReplaceThemselvesAndThrow)
{
    Logger logger("channel");
    std::vector<std::string> seen;
    foundation::log::setSink(
        [&](std::uint32_t, std::string_view, std::string_view message)
        {
            seen.emplace_back(message);
            if (message == "outer")
            {
                logger.write(severity::error, "inner");
            }
            else
            {
                foundation::log::setSink([](std::uint32_t, std::string_view, std::string_view)
                    { throw std::runtime_error("the sink is full"); });
            }
        });
    logger.write(severity::error, "outer");
    EXPECT_EQ(seen, (std::vector<std::string>{"outer", "inner"}));
    ::testing::internal::CaptureStderr();
    logger.write(severity::error, "third");
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "channel error: third (log sink failed: the sink is full)\n");
}

TEST_F(LoggerTest, WritesOneLineToStandardErrorByDefault)
{
    foundation::log::setSink({});
    ::testing::internal::CaptureStderr();
    Logger("channel").write(severity::warning, "one\n\x1b[31mtwo\n");
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "channel warning: one  [31mtwo\n");
}

/// Logs when the process is about to end, long after Boost.Log's own static objects could be gone.
struct LogsLast
{
    ~LogsLast()
    {
        Logger("static").write(severity::error, "from a static destructor");
        std::_Exit(0);
    }
};

TEST(LoggerDeathTest, CanBeUsedByStaticDestructors)
{
    ::testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_EXIT(
        {
            static const LogsLast logsLast;
            static Logger logger("later");
            logger.write(severity::error, "before");
            std::exit(1);
        },
        ::testing::ExitedWithCode(0), "later error: before\nstatic error: from a static destructor");
}

} // namespace
