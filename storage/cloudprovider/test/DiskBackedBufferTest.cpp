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

/// Buffers whose files are the only ones in `temp`.
class DiskBackedBufferTest : public StoreTest
{
protected:
    fs::path file() const { return *fs::directory_iterator(temp.path()); }

    struct stat status() const
    {
        struct stat result = {};
        EXPECT_EQ(::stat(file().c_str(), &result), 0);
        return result;
    }

    DiskBackedBufferFactory factory;
};

TEST_F(DiskBackedBufferTest, IsAFileOfItsOwnAsLongAsItLives)
{
    for (const std::size_t size : {10'000U, 1U, 0U})
    {
        BufferPtr buffer = factory.build(size);
        EXPECT_EQ(buffer->size(), size);
        EXPECT_EQ(status().st_size, size == 0 ? 1 : static_cast<off_t>(size));
        buffer->reserve(size);
        for (const char found : {'\0', 'x'})
        {
            EXPECT_EQ(buffer->data(), nullptr);
            EXPECT_EQ(std::as_const(*buffer).data(), nullptr);
            EXPECT_FALSE(buffer->isOpen());
            buffer->open();
            EXPECT_TRUE(buffer->isOpen());
            EXPECT_EQ(std::string(buffer->data(), size), std::string(size, found)) << "bytes stay when it is closed";
            std::fill_n(buffer->data(), size, 'x');
            found == 'x' ? void() : buffer->close();
        }
        size == 1 ? buffer->close() : void();
        buffer.reset();
        EXPECT_TRUE(temp.isEmpty());
    }
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
    }
    EXPECT_GE(status().st_blocks * 512, 5'000'000);
    buffer->reserve(buffer->size());
    EXPECT_EQ(status().st_size, 5 * 1024 * 1024);
}

TEST_F(DiskBackedBufferTest, NoRoomIsAnErrorAndNoSignal)
{
    const BufferPtr buffer = factory.build(1'000'000);
    buffer->reserve(300'000);
    buffer->open();
    buffer->data()[0] = 'x';
    struct rlimit usual = {};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &usual), 0);
    auto* const handler = std::signal(SIGXFSZ, SIG_IGN);
    const struct rlimit little = {500'000, usual.rlim_max}; // stands for a disk with so much room
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &little), 0);
    EXPECT_NO_THROW(buffer->reserve(400'000)) << "there is no room for as much as would be generous";
    const auto blocks = status().st_blocks;
    EXPECT_LT(blocks * 512, 450'000) << "others are short of room too";
    EXPECT_THROW(buffer->reserve(1'000'000), UnknownErrorException);
    EXPECT_THROW(factory.build(1'000'000), UnknownErrorException);
    EXPECT_EQ(::setrlimit(RLIMIT_FSIZE, &usual), 0);
    std::signal(SIGXFSZ, handler);
    EXPECT_EQ(status().st_blocks, blocks);
    buffer->reserve(1'000'000);
    EXPECT_EQ(buffer->data()[0], 'x');
}

TEST_F(DiskBackedBufferTest, FilesThatCannotBeSizedAreUnknownErrorsAndGo)
{
    EXPECT_THROW(factory.build(~std::size_t{0}), UnknownErrorException);
    EXPECT_TRUE(temp.isEmpty());
}

TEST_F(DiskBackedBufferTest, FailedDeletionIsLogged)
{
    getLogger().setEnabledSeverities(512);
    BufferPtr buffer = factory.build(1);
    const fs::path lost = file();
    fs::remove(lost);
    fs::create_directories(lost / "full");
    buffer.reset();
    EXPECT_THAT(takeLog(512), testing::ElementsAre("Failed to delete DiskFile " + lost.string()));
}

} // namespace

} // namespace storage::cloudprovider
