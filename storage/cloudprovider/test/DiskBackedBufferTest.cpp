#include "DiskBackedBuffer.hpp"
#include "StoreTest.hpp"

#include <csignal>
#include <filesystem>
#include <sys/resource.h>
#include <sys/stat.h>

namespace storage::cloudprovider
{

namespace
{

namespace fs = std::filesystem;
using testing::IsEmpty;

/// A temporary directory of its own.
class DiskBackedBufferTest : public ::testing::Test
{
protected:
    DiskBackedBufferTest() { fs::create_directory(directory); }
    ~DiskBackedBufferTest() override { fs::remove_all(directory); }

    std::vector<fs::path> files() const { return {fs::directory_iterator(directory), fs::directory_iterator()}; }

    struct stat status() const
    {
        struct stat result
        {
        };
        EXPECT_EQ(files().size(), 1);
        EXPECT_EQ(::stat(files().at(0).c_str(), &result), 0);
        return result;
    }

    static void expectUnknownError(const std::function<void()>& action)
    {
        try
        {
            action();
            ADD_FAILURE() << "nothing thrown";
        }
        catch (const UnknownErrorException& exception)
        {
            EXPECT_EQ(exception.detail(), std::nullopt);
        }
    }

    const fs::path directory = fs::temp_directory_path() / ("buffers-" + std::to_string(::getpid()));
    const ScopedVariable variable{"TMPDIR", directory.string()};
    LogCapture log;
    DiskBackedBufferFactory factory;
};

TEST_F(DiskBackedBufferTest, IsAFileOfItsOwnAsLongAsItLives)
{
    for (const bool isOpenAtTheEnd : {false, true})
    {
        const mode_t mask = ::umask(0);
        BufferPtr buffer = factory.build(10'000);
        ::umask(mask);
        EXPECT_EQ(buffer->size(), 10'000);
        EXPECT_EQ(status().st_size, 10'000);
        EXPECT_EQ(status().st_mode & 07777, 0600);
        EXPECT_FALSE(buffer->isOpen());
        EXPECT_EQ(buffer->data(), nullptr);
        buffer->open();
        EXPECT_TRUE(buffer->isOpen());
        buffer->reserve(10'000);
        EXPECT_EQ(std::string(buffer->data(), 10'000), std::string(10'000, '\0'));
        buffer->data()[9'999] = 'x';
        buffer->close();
        EXPECT_EQ(buffer->data(), nullptr);
        EXPECT_EQ(std::as_const(*buffer).data(), nullptr);
        buffer->close();
        buffer->open();
        EXPECT_EQ(buffer->data()[9'999], 'x');
        if (!isOpenAtTheEnd)
        {
            buffer->close();
        }
        buffer.reset();
        EXPECT_THAT(files(), IsEmpty());
    }
}

TEST_F(DiskBackedBufferTest, EmptyBufferHasAFileOfOneByteAndCanBeUsed)
{
    const BufferPtr buffer = factory.build(0);
    EXPECT_EQ(buffer->size(), 0);
    EXPECT_EQ(status().st_size, 1);
    buffer->reserve(0);
    buffer->open();
    EXPECT_TRUE(buffer->isOpen());
    buffer->close();
}

TEST_F(DiskBackedBufferTest, ReservingKeepsBytesAndTakesLittleMoreThanAsked)
{
    const BufferPtr buffer = factory.build(5 * 1024 * 1024);
    EXPECT_EQ(status().st_blocks, 0);
    buffer->reserve(4096);
    buffer->open();
    buffer->data()[4095] = 'x';
    EXPECT_LE(status().st_blocks * 512, 64 * 1024) << "a small file does not pay for a whole part";
    for (const std::size_t bytes : {std::size_t{1}, std::size_t{4097}, std::size_t{4096}, std::size_t{5'000'000}})
    {
        buffer->reserve(bytes);
        EXPECT_EQ(buffer->data()[4095], 'x') << bytes;
        EXPECT_EQ(buffer->data()[bytes == 1 ? 0 : bytes - 1], bytes == 4096 ? 'x' : '\0');
    }
    EXPECT_GE(status().st_blocks * 512, 5'000'000);
    buffer->close();
    buffer->reserve(buffer->size());
    EXPECT_EQ(status().st_size, 5 * 1024 * 1024);
}

TEST_F(DiskBackedBufferTest, NoRoomIsAnErrorAndNoSignal)
{
    const BufferPtr buffer = factory.build(1'000'000);
    buffer->reserve(4096);
    buffer->open();
    buffer->data()[0] = 'x';
    struct rlimit usual
    {
    };
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &usual), 0);
    auto* const handler = std::signal(SIGXFSZ, SIG_IGN);
    const struct rlimit little
    {
        500'000, usual.rlim_max
    }; // stands for a disk with so much room
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &little), 0);
    expectUnknownError([&] { buffer->reserve(1'000'000); });
    expectUnknownError([&] { factory.build(1'000'000); });
    EXPECT_EQ(::setrlimit(RLIMIT_FSIZE, &usual), 0);
    std::signal(SIGXFSZ, handler);
    EXPECT_EQ(buffer->data()[0], 'x');
    buffer->reserve(1'000'000);
    EXPECT_EQ(buffer->data()[0], 'x');
}

TEST_F(DiskBackedBufferTest, FilesThatCannotBeMadeAreUnknownErrors)
{
    expectUnknownError([&] { factory.build(~std::size_t{0}); });
    const ScopedVariable nowhere("TMPDIR", (directory / "no").string());
    expectUnknownError([&] { factory.build(1); });
}

TEST_F(DiskBackedBufferTest, FailedDeletionIsLogged)
{
    getLogger().setEnabledSeverities(512);
    BufferPtr buffer = factory.build(1);
    const fs::path file = files().at(0);
    fs::remove(file);
    fs::create_directories(file / "full");
    buffer.reset();
    EXPECT_THAT(log.take(512), testing::ElementsAre("Failed to delete DiskFile " + file.string()));
}

TEST_F(DiskBackedBufferTest, LogsSizes)
{
    getLogger().setEnabledSeverities(2);
    BufferPtr buffer = factory.build(0);
    using testing::EndsWith;
    using testing::HasSubstr;
    EXPECT_THAT(log.take(2), testing::ElementsAre(testing::AllOf(HasSubstr("DiskBackedBufferFactory::build(size_t)"),
                                                      HasSubstr("src/DiskBackedBufferFactory"), EndsWith(" size=0")),
                                 testing::AllOf(HasSubstr("DiskFile::updateFileSize(size_t)"),
                                     HasSubstr("src/DiskBackedBufferFactory"), EndsWith(" newSizeInBytes=0"))));
}

} // namespace

} // namespace storage::cloudprovider
