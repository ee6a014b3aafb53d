#include <fl/filesystem.hpp>

#include <gtest/gtest.h>

#include <boost/filesystem/operations.hpp>
#include <boost/system/system_error.hpp>

#include <fstream>
#include <set>
#include <stdexcept>
#include <string>

#include <sys/stat.h>

namespace
{

namespace fs = boost::filesystem;

TEST(FilesystemTest, TemporaryFilesAreFreshEmptyAndPrivateWhateverTheUmask)
{
    std::set<std::string> names;
    for (const ::mode_t mask : {0777U, 0077U, 0U})
    {
        const ::mode_t former = ::umask(mask);
        const fl::filesystem::path file = fl::filesystem::tmpnam({}, {}, {});
        ::umask(former);
        const fs::path real = fl::filesystem::detail::make_access_form(fl::filesystem::detail::to_filesystem(file));
        struct ::stat status = {};
        ASSERT_EQ(::lstat(file.native().c_str(), &status), 0);
        EXPECT_EQ(status.st_mode, static_cast<::mode_t>(S_IFREG | 0600));
        EXPECT_EQ(status.st_size, 0);
        EXPECT_TRUE(fs::equivalent(real.parent_path(), fs::temp_directory_path()));
        EXPECT_TRUE(names.insert(file.native()).second);
        EXPECT_TRUE(fl::filesystem::remove(file));
        EXPECT_FALSE(fl::filesystem::remove(file)) << "a missing file is no failure";
    }
}

TEST(FilesystemTest, TemporaryFilesGoWhereAndAreNamedAsAsked)
{
    const fs::path folder = fs::temp_directory_path() / fs::unique_path();
    EXPECT_THROW(fl::filesystem::tmpnam(folder.string()), boost::system::system_error);
    fs::create_directory(folder);
    const fl::filesystem::path file = fl::filesystem::tmpnam(folder.string(), "pre", ".suf");
    const fs::path name = fs::path(file.native()).filename();
    EXPECT_EQ(fs::path(file.native()).parent_path(), folder);
    EXPECT_EQ(name.string().substr(0, 3) + name.extension().string(), "pre.suf");
    for (const char* bad : {"../", "a/b"})
    {
        EXPECT_THROW(fl::filesystem::tmpnam(folder.string(), bad), std::invalid_argument);
        EXPECT_THROW(fl::filesystem::tmpnam(folder.string(), {}, bad), std::invalid_argument);
    }
    EXPECT_THROW(fl::filesystem::remove(folder.string()), boost::system::system_error) << "it is not empty";
    fs::remove_all(folder);
}

TEST(FilesystemTest, OutputStreamsTruncateAndThrow)
{
    const fl::filesystem::path file = fl::filesystem::tmpnam();
    for (const std::string content : {"longer", "short"})
    {
        fl::filesystem::basic_ofstream<char>(file) << content;
        std::ifstream in(file.native());
        EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), content);
    }
    EXPECT_THROW(fl::filesystem::basic_ofstream<char>(file.native() + "/no"), std::ios_base::failure);
    fl::filesystem::remove(file);
}

TEST(FilesystemTest, PathsConvert)
{
    const fl::filesystem::path file(std::u16string(u"\u00e4/b"));
    EXPECT_EQ(file.native(), "\xc3\xa4/b");
    EXPECT_EQ(file.u16string(), u"\u00e4/b");
    EXPECT_EQ(fl::filesystem::detail::make_native_form(file, false), file);
    EXPECT_EQ(
        fl::filesystem::detail::make_native_form(file, true).native(), (fs::current_path() / "\xc3\xa4/b").string());
    EXPECT_THROW(fl::filesystem::path("\xff").u16string(), std::range_error);
}

} // namespace
