#include <foundation/log/basic_diagnostic_logger.hpp>

#include <fl/filesystem.hpp>
#include <fl/i18n.hpp>

#include <gmock/gmock.h>

#include <boost/filesystem/operations.hpp>
#include <boost/log/trivial.hpp>
#include <boost/log/utility/setup/console.hpp>

#include <algorithm>
#include <cstdlib>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <sys/stat.h>

// What the framework offers around storage: logging, local files, text. The tests of the provider cover interrupts.

namespace
{

namespace fs = boost::filesystem;
namespace severity = foundation::log::severity;

using Logger = foundation::log::basic_diagnostic_logger<char>;

class LoggerTest : public testing::Test
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

TEST_F(LoggerTest, WritesTheSeveritiesInItsMask)
{
    Logger logger("some::channel");
    for (const std::uint32_t mask : {logger.enabledSeverities(), ~0U, severity::progress})
    {
        logger.setEnabledSeverities(mask);
        for (const std::uint32_t level : {severity::detail, severity::progress, severity::error, severity::warning})
        {
            logger.write(level, "1\n2");
        }
        m_records.emplace_back("--");
    }
    EXPECT_THAT(m_records, testing::ElementsAre("some::channel|16|1\n2", "some::channel|512|1\n2", "--",
                               "some::channel|2|1\n2", "some::channel|4|1\n2", "some::channel|16|1\n2",
                               "some::channel|512|1\n2", "--", "some::channel|4|1\n2", "--"));
    EXPECT_FALSE(logger.isEnabled(severity::detail | severity::error));
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
            foundation::log::setSink([](std::uint32_t, std::string_view, std::string_view)
                { throw std::runtime_error("the sink is full"); });
        });
    logger.write(severity::error, "outer");
    EXPECT_THAT(seen, testing::ElementsAre("outer", "inner"));
    testing::internal::CaptureStderr();
    logger.write(severity::error, "third");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "channel error: third (log sink failed: the sink is full)\n");
}

TEST_F(LoggerTest, WritesToBoostLogOnlyIfTheHostHasASinkThere)
{
    Logger logger("channel");
    const auto logBoth = [&logger]
    {
        Logger own("own");
        for (int i = 0; i < 500; ++i)
        {
            BOOST_LOG_TRIVIAL(info) << "host";
            logger.write(severity::error, "framework");
            own.write(severity::error, "framework");
        }
    };
    const auto log = [&]
    {
        const std::jthread other(logBoth);
        logBoth();
    };
    const auto count = [](const std::string& text) { return std::count(text.begin(), text.end(), '\n'); };
    // ThreadSanitizer does not see how Boost.Log's library protects what its first use creates: one thread comes first.
    boost::log::trivial::logger::get();
    testing::internal::CaptureStdout();
    log();
    const std::string output = testing::internal::GetCapturedStdout();
    EXPECT_EQ(count(output), 1000) << "each record of the host";
    EXPECT_EQ(output.find("framework"), std::string::npos);
    std::ostringstream written;
    const auto sink = boost::log::add_console_log(written);
    BOOST_LOG_TRIVIAL(info) << "alone";
    log();
    EXPECT_EQ(count(written.str()), 3001);
    sink->set_formatter([](const auto&, auto&) { throw 1; });
    testing::internal::CaptureStderr();
    logger.write(severity::error, "text");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "channel error: text (log sink failed)\n");
    boost::log::core::get()->remove_sink(sink);
    EXPECT_EQ(m_records.size(), 4001U) << "one thread at a time calls the sink";
}

TEST_F(LoggerTest, WritesOneLineToStandardErrorByDefault)
{
    foundation::log::setSink({});
    testing::internal::CaptureStderr();
    Logger logger("channel");
    logger.setEnabledSeverities(~0U);
    logger.write(severity::warning, "one\n\x1b[31mtwo\n");
    logger.write(severity::progress, "3");
    logger.write(severity::detail, "4");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
        "channel warning: one  [31mtwo\nchannel progress: 3\nchannel detail: 4\n");
}

TEST(LoggerDeathTest, StaticDestructorsMayLog)
{
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_EXIT(
        {
            const auto atEnd = [] // registered first, so it runs when Boost.Log's static objects are destroyed
            {
                Logger("static").write(severity::error, "at the end");
                std::_Exit(0);
            };
            std::atexit(atEnd);
            static Logger logger("later");
            logger.write(severity::error, "before");
            std::exit(1);
        },
        testing::ExitedWithCode(0), "later error: before\nstatic error: at the end");
}

TEST(FilesystemTest, TemporaryFilesAreNewEmptyAndPrivate)
{
    const fs::path folder = fs::temp_directory_path() / fs::unique_path();
    const auto create = [&](const char* prefix, const char* suffix)
    { return fl::filesystem::tmpnam(folder.string(), prefix, suffix); };
    EXPECT_THROW(create("pre", ".suf"), boost::system::system_error) << "there is no such folder";
    fs::create_directory(folder);
    EXPECT_THROW(create("../", ".suf"), std::invalid_argument);
    EXPECT_THROW(create("pre", "a/b"), std::invalid_argument);
    const auto openFiles = [] { return std::distance(fs::directory_iterator("/proc/self/fd"), {}); };
    const auto openBefore = openFiles();
    const ::mode_t former = ::umask(0777);
    const fl::filesystem::path files[] = {create("pre", ".suf"), create("pre", ".suf")};
    ::umask(former);
    EXPECT_EQ(openFiles(), openBefore);
    EXPECT_NE(files[0], files[1]);
    EXPECT_THAT(files[0].native(), testing::MatchesRegex(folder.string() + "/pre.{6}\\.suf"));
    EXPECT_EQ(fs::status(files[0].native()).permissions(), fs::owner_read | fs::owner_write);
    EXPECT_EQ(fs::file_size(files[0].native()), 0U);
    EXPECT_THROW(fl::filesystem::remove(folder.string()), boost::system::system_error) << "it is not empty";
    fs::remove_all(folder);
}

TEST(FilesystemTest, OutputStreamsTruncateAndThrow)
{
    const fl::filesystem::path file = fl::filesystem::tmpnam();
    EXPECT_TRUE(fs::equivalent(fs::path(file.native()).parent_path(), fs::temp_directory_path()));
    fl::filesystem::basic_ofstream<char>(file) << "longer";
    fl::filesystem::basic_ofstream<char>(file) << "short";
    EXPECT_EQ(fs::file_size(file.native()), 5U);
    EXPECT_THROW(fl::filesystem::basic_ofstream<char>(file.native() + "/no"), std::ios_base::failure);
    EXPECT_TRUE(fl::filesystem::remove(file));
    EXPECT_FALSE(fl::filesystem::remove(file)) << "a missing file is no failure";
}

TEST(FilesystemTest, PathsConvert)
{
    using fl::filesystem::detail::make_native_form;
    const fl::filesystem::path file(std::u16string(u"\u00e4/b"));
    EXPECT_EQ(file.native(), "\xc3\xa4/b");
    EXPECT_EQ(file.u16string(), u"\u00e4/b");
    EXPECT_EQ(make_native_form(file, false), file);
    EXPECT_EQ(make_native_form(file, true).native(), (fs::current_path() / "\xc3\xa4/b").string());
    EXPECT_THROW(fl::filesystem::path("\xff").u16string(), std::range_error);
}

TEST(TextTest, WellFormedTextSurvivesBothConversions)
{
    // The first and the last character of each length in UTF-8, the neighbours of the surrogates, and a zero byte.
    const std::u16string wide(u"\0\u007f\u0080\u07ff\u0800\ud7ff\ue000\uffff\U00010000\U0010ffff", 12);
    const std::string narrow("\0\x7f\xc2\x80\xdf\xbf\xe0\xa0\x80\xed\x9f\xbf\xee\x80\x80\xef\xbf\xbf"
                             "\xf0\x90\x80\x80\xf4\x8f\xbf\xbf",
        26);
    EXPECT_EQ(fl::i18n::to_string(wide), narrow);
    EXPECT_EQ(fl::i18n::utf8_to_ustring(narrow), wide);
}

TEST(TextTest, IllFormedTextIsRefused)
{
    for (const char* bad : {"a\xff", "\xc3", "\xc3(", "\xc0\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80"})
    {
        EXPECT_THROW(fl::i18n::utf8_to_ustring(bad), std::range_error) << testing::PrintToString(std::string(bad));
    }
    for (const std::u16string bad : {u"\xd800", u"\xdc00", u"\xd800\xd800\xdc00"})
    {
        EXPECT_THROW(fl::i18n::ustring_to_utf8(bad), std::range_error) << testing::PrintToString(bad);
    }
}

} // namespace
