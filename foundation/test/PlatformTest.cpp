#include <foundation/log/basic_diagnostic_logger.hpp>

#include <fl/filesystem.hpp>

#include <gmock/gmock.h>

#include <boost/filesystem/operations.hpp>
#include <boost/log/trivial.hpp>
#include <boost/log/utility/setup/console.hpp>

#include <algorithm>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <sys/stat.h>

// What the framework offers around storage: logging and local files. The tests of the provider cover interrupts.

namespace
{

namespace fs = boost::filesystem;
namespace severity = foundation::log::severity;

using Logger = foundation::log::basic_diagnostic_logger<char>;

class LoggerTest : public testing::Test
{
protected:
    ~LoggerTest() override { foundation::log::setSink({}); }
};

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
    std::size_t records = 0;
    foundation::log::setSink([&](auto&&...) { ++records; });
    Logger logger("channel");
    const auto logBoth = [&logger]
    {
        for (int i = 0; i < 500; ++i)
        {
            BOOST_LOG_TRIVIAL(info) << "host";
            logger.write(severity::error, "framework");
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
    log();
    EXPECT_EQ(count(written.str()), 2000);
    sink->set_formatter([](const auto&, auto&) { throw 1; });
    testing::internal::CaptureStderr();
    logger.write(severity::error, "text");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "channel error: text (log sink failed)\n");
    boost::log::core::get()->remove_sink(sink);
    EXPECT_EQ(records, 2001U) << "one thread at a time calls the sink";
}

TEST_F(LoggerTest, WritesOneLineToStandardErrorByDefault)
{
    testing::internal::CaptureStderr();
    Logger logger("channel");
    for (const std::uint32_t level : {severity::detail, severity::progress, severity::error})
    {
        logger.write(level, "default");
    }
    logger.setEnabledSeverities(~0U);
    logger.write(severity::warning, "one\n\x1b[31mtwo\n");
    logger.write(severity::progress, "3");
    logger.write(severity::detail, "4");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
        "channel error: default\nchannel warning: one  [31mtwo\nchannel progress: 3\nchannel detail: 4\n");
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

TEST(FilesystemTest, PathsConvertWellFormedText)
{
    using fl::filesystem::detail::make_native_form;
    const fl::filesystem::path file(std::u16string(u"\u00e4/b"));
    EXPECT_EQ(file.native(), "\xc3\xa4/b");
    EXPECT_EQ(file.u16string(), u"\u00e4/b");
    EXPECT_EQ(make_native_form(file, false), file);
    EXPECT_EQ(make_native_form(file, true).native(), (fs::current_path() / "\xc3\xa4/b").string());
    EXPECT_THROW(fl::filesystem::path("\xff").u16string(), std::range_error);
    EXPECT_THROW(fl::filesystem::path(std::u16string(u"\xd800")), std::range_error);
}

} // namespace
