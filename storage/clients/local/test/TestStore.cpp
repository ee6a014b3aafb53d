#include "TestStore.hpp"

#include <gtest/gtest.h>

#include <sqlite3.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <stdexcept>

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace storage::clients::test
{

TestFolder::TestFolder()
{
    std::string path = std::filesystem::temp_directory_path() / "local_test_XXXXXX";
    if (::mkdtemp(path.data()) == nullptr)
    {
        throw std::runtime_error("cannot create " + path);
    }
    m_path = path;
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
    for (std::uint64_t state = version * 2 + 1; result.size() < size;)
    {
        state = state * 6364136223846793005U + 1442695040888963407U;
        result += static_cast<char>(state >> 56U);
    }
    return result;
}

std::uint64_t versionOf(const std::string& found)
{
    const std::uint64_t version = std::strtoull(found.c_str(), nullptr, 10);
    EXPECT_TRUE(found == content(version, found.size())) << found.size() << " bytes of version " << version;
    return version;
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
    sqlite3_stmt* statement = nullptr;
    EXPECT_EQ(sqlite3_open((store / "index.sqlite").c_str(), &handle), SQLITE_OK);
    EXPECT_EQ(sqlite3_prepare_v2(handle, sql.c_str(), -1, &statement, nullptr), SQLITE_OK) << sqlite3_errmsg(handle);
    const bool hasValue = sqlite3_step(statement) == SQLITE_ROW && sqlite3_column_type(statement, 0) != SQLITE_NULL;
    std::string value = hasValue ? reinterpret_cast<const char*>(sqlite3_column_text(statement, 0)) : "";
    EXPECT_EQ(sqlite3_finalize(statement), SQLITE_OK);
    EXPECT_EQ(sqlite3_close(handle), SQLITE_OK);
    return value;
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
    std::string found;
    for (const std::string& name : files(store / "contents"))
    {
        found += name + '\n';
    }
    EXPECT_EQ(found, runSql(store, "SELECT group_concat(name, '') FROM (SELECT format('%d-%016x\n', id, session) AS "
                                   "name FROM contents WHERE session IS NOT NULL ORDER BY name)"));
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
    ::prctl(PR_SET_PDEATHSIG, SIGKILL); // never outlive a test that fails
    EXPECT_NO_THROW(task());
    std::cout.flush();
    ::_exit(::testing::Test::HasFailure() ? 1 : 0); // without the parent's destructors
}

int waitForProcess(int process)
{
    int status = 0;
    EXPECT_EQ(::waitpid(process, &status, 0), process);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

} // namespace storage::clients::test
