#include <storage/clients/local/LocalClient.hpp>

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>
#include <string>

namespace
{

namespace fs = std::filesystem;

// The command line itself would refuse these keys.
TEST(ForeignKeysTest, StayInsideTheTargetAndCanBeRemoved)
{
    std::string name = (fs::temp_directory_path() / "foreign-keys-XXXXXX").string();
    const fs::path directory = mkdtemp(name.data());
    fs::create_directory(directory / "in");
    for (const char* key : {"t/ok", "t/deep/ok", "t/../../escape", "t/x/../../../escape", "t//etc/absolute",
             "t/../../made/", "t/dot.", "t/dot./file", "t/both", "t/both/file"})
    {
        std::istringstream content("content");
        storage::clients::LocalClient(directory / "store").putObject(key, content, 7);
    }
    std::string errors; // of the last run
    const auto run = [&](const std::string& arguments)
    {
        const int status =
            std::system(("cd '" + (directory / "in").string() + "' && " CLOUDFS_PROGRAM " --store local:../store " +
                         arguments + " >../out 2>../err")
                            .c_str());
        std::ifstream file(directory / "err");
        errors.assign(std::istreambuf_iterator<char>(file), {});
        return WEXITSTATUS(status);
    };

    EXPECT_EQ(run("get -r /t tree"), 1);
    std::set<std::string> files;
    for (const auto& entry : fs::recursive_directory_iterator(directory))
    {
        const std::string file = fs::relative(entry.path(), directory).string();
        entry.is_regular_file() && !file.starts_with("store/") ? void(files.insert(file)) : void();
    }
    // A file and a folder cannot have the same local name; either may come first.
    EXPECT_EQ(files.erase("in/tree/both") + files.erase("in/tree/both/file"), 1U);
    EXPECT_EQ(files, (std::set<std::string>{"err", "in/tree/deep/ok", "in/tree/ok", "out"})) << errors;
    EXPECT_FALSE(fs::exists(directory / "made"));
    EXPECT_FALSE(fs::exists("/etc/absolute"));
    for (const char* refused : {"/t/../../escape", "t//etc/absolute", "/t/dot.: ", "/t/dot./file", "both"})
    {
        EXPECT_NE(errors.find(refused), std::string::npos) << refused << " is not reported:\n" << errors;
    }
    EXPECT_EQ(run("ls -R --files /t"), 0) << errors;
    EXPECT_EQ(run("rm -r /t"), 0) << errors;
    EXPECT_EQ(run("ls /t"), 1);
    fs::remove_all(directory);
}

} // namespace
