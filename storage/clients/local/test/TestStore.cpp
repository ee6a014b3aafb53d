#include "TestStore.hpp"

#include <gtest/gtest.h>

#include <sqlite3.h>

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <sstream>
#include <stdexcept>

#include <sys/wait.h>
#include <unistd.h>

namespace storage::clients::test
{

namespace
{

std::filesystem::path makeTemporaryFolder()
{
    std::string path = std::filesystem::temp_directory_path() / "local_test_XXXXXX";
    if (::mkdtemp(path.data()) == nullptr)
    {
        throw std::runtime_error("cannot create " + path);
    }
    return path;
}

} // namespace

TestFolder::TestFolder()
    : m_path(makeTemporaryFolder())
{
}

TestFolder::~TestFolder()
{
    std::error_code error;
    std::filesystem::remove_all(m_path, error);
    EXPECT_FALSE(error) << m_path << ": " << error.message();
}

std::string content(std::uint64_t version, std::size_t size)
{
    std::string result = std::to_string(version) + ' ' + std::to_string(size) + ' ';
    EXPECT_LE(result.size(), size);
    result.reserve(size);
    for (std::uint64_t state = version * 2 + 1; result.size() < size;)
    {
        state = state * 6364136223846793005U + 1442695040888963407U;
        result += static_cast<char>(state >> 56U);
    }
    return result;
}

std::uint64_t versionOf(const std::string& found)
{
    std::istringstream in(found);
    std::uint64_t version = 0;
    std::size_t size = 0;
    in >> version >> size;
    EXPECT_EQ(found.size(), size);
    EXPECT_TRUE(found == content(version, found.size())) << "version " << version << " is not whole";
    return version;
}

void put(cloudprovider::CloudClient& client, const std::string& key, const std::string& content)
{
    std::istringstream in(content);
    client.putObject(key, in, content.size());
}

std::string get(cloudprovider::CloudClient& client, const std::string& key)
{
    std::ostringstream out;
    client.getObjectRange(key, out, 0, 0);
    return out.str();
}

void putParts(cloudprovider::CloudClient& client, const std::string& key, const std::vector<std::string>& parts)
{
    const std::string upload = client.createMultipartUpload(key, "");
    std::vector<cloudprovider::PartInfo> infos;
    for (const std::string& part : parts)
    {
        std::istringstream in(part);
        infos.push_back({infos.size(), 0, part.size(), ""});
        infos.back().Tag = client.uploadPart(key, upload, infos.back(), in);
    }
    client.completeMultipartUpload(key, upload, infos);
}

std::vector<std::string> keys(cloudprovider::CloudClient& client)
{
    std::vector<std::string> found;
    std::string token;
    do
    {
        for (const auto& entry : client.listObjects("", token, {}))
        {
            found.push_back(entry.key);
        }
    } while (!token.empty());
    return found;
}

std::vector<std::string> files(const std::filesystem::path& folder)
{
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
    {
        names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::string runSql(const std::filesystem::path& store, const std::string& sql)
{
    sqlite3* handle = nullptr;
    EXPECT_EQ(sqlite3_open((store / "index.sqlite").c_str(), &handle), SQLITE_OK);
    std::string result;
    const auto keepFirst = [](void* target, int, char** values, char**)
    {
        auto& text = *static_cast<std::string*>(target);
        text = text.empty() && values[0] != nullptr ? values[0] : text;
        return 0;
    };
    EXPECT_EQ(sqlite3_exec(handle, sql.c_str(), keepFirst, &result, nullptr), SQLITE_OK) << sqlite3_errmsg(handle);
    EXPECT_EQ(sqlite3_close(handle), SQLITE_OK);
    return result;
}

void checkStore(const std::filesystem::path& store)
{
    EXPECT_EQ(runSql(store, "PRAGMA integrity_check"), "ok");
    EXPECT_EQ(runSql(store, "SELECT count(*) FROM contents WHERE refs != "
                            "(SELECT count(*) FROM object_parts WHERE content = id) + "
                            "(SELECT count(*) FROM upload_parts WHERE content = id)"),
        "0");
    EXPECT_EQ(runSql(store, "SELECT count(*) FROM objects WHERE size != coalesce((SELECT sum(c.size) FROM object_parts "
                            "p JOIN contents c ON c.id = p.content WHERE p.object = objects.id), 0)"),
        "0");
    const std::string named = runSql(store, "SELECT group_concat(name, '\n') FROM (SELECT format('%d-%016x', id, "
                                            "session) AS name FROM contents WHERE session IS NOT NULL ORDER BY name)");
    std::string found;
    for (const std::string& name : files(store / "contents"))
    {
        found += (found.empty() ? "" : "\n") + name;
    }
    EXPECT_EQ(found, named);
    EXPECT_EQ(files(store / "incoming"), std::vector<std::string>());
}

int startProcess(const std::function<void()>& task)
{
    std::cout.flush(); // or the child prints it again
    const pid_t process = ::fork();
    if (process != 0)
    {
        EXPECT_GT(process, 0);
        return process;
    }
    try
    {
        task();
    }
    catch (const cloudprovider::CloudException& error)
    {
        ADD_FAILURE() << error.what() << ": " << error.detail().value_or("");
    }
    catch (const std::exception& error)
    {
        ADD_FAILURE() << error.what();
    }
    std::cout.flush();
    ::_exit(::testing::Test::HasFailure() ? 1 : 0); // the fixtures are the parent's
}

void expectSuccess(int process)
{
    int status = 0;
    ASSERT_EQ(::waitpid(process, &status, 0), process);
    EXPECT_TRUE(WIFEXITED(status)) << "ended by signal " << WTERMSIG(status);
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

} // namespace storage::clients::test
