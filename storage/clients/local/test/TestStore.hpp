#pragma once

#include <storage/clients/local/LocalClient.hpp>
#include <storage/clients/testing/ClientCalls.hpp>

#include <boost/algorithm/string/join.hpp>
#include <gtest/gtest.h>

#include <sqlite3.h>

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <iostream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace storage::clients::test
{

using namespace conformance;
using std::filesystem::path;

inline const LocalSettings nothingInline{.maxInlineSize = 0};

/// A temporary directory. The destructor removes it.
class TestFolder
{
public:
    TestFolder()
    {
        std::string name = std::filesystem::temp_directory_path() / "local_test_XXXXXX";
        root = ::mkdtemp(name.data()); // throws if there is none
        store = root / "store";
    }
    TestFolder(const TestFolder&) = delete;
    ~TestFolder() { std::filesystem::remove_all(root); }

    path root;
    path store; ///< does not exist at first
};

/// Content that can be checked for completeness: it begins with its version and size, which determine all other bytes.
inline std::string content(std::uint64_t version, std::size_t size)
{
    std::string result = std::to_string(version) + ' ' + std::to_string(size) + ' ';
    for (std::uint64_t state = version * 2 + 1; result.size() < size;)
    {
        state = state * 6364136223846793005U + 1442695040888963407U;
        result += static_cast<char>(state >> 56U);
    }
    return result;
}

/// The version of such a content. Fails the test when the content is not complete.
inline std::uint64_t versionOf(const std::string& found)
{
    const std::uint64_t version = std::strtoull(found.c_str(), nullptr, 10);
    EXPECT_TRUE(found == content(version, found.size())) << found.size() << " bytes of version " << version;
    return version;
}

/// The buffer of a stream that calls a function whenever bytes are read or written.
class CallbackBuffer : public std::stringbuf
{
public:
    CallbackBuffer(const std::string& content, std::function<void()> callback)
        : std::stringbuf(content)
        , m_callback(std::move(callback))
    {
    }

private:
    std::streamsize xsgetn(char* target, std::streamsize size) override
    {
        m_callback();
        return std::stringbuf::xsgetn(target, size);
    }
    std::streamsize xsputn(const char* bytes, std::streamsize size) override
    {
        m_callback();
        return std::stringbuf::xsputn(bytes, size);
    }

    const std::function<void()> m_callback;
};

/// Names of the files in a folder, sorted.
inline std::vector<std::string> files(const path& folder)
{
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
    {
        names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
}

/// Let SQLite know the file layer that checks the pages of an index.
inline void registerFileLayer()
{
    static const TestFolder other;
    static const LocalClient registering(other.store);
}

/// Run SQL on the index directly. @return the first column of the first row; empty when there is none
inline std::string runSql(const path& store, const std::string& sql, const char* vfs = "cloudprovider-checked")
{
    registerFileLayer();
    sqlite3* handle = nullptr;
    constexpr int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;
    EXPECT_EQ(sqlite3_open_v2((store / "index.sqlite").c_str(), &handle, flags, vfs), SQLITE_OK);
    std::string value;
    const auto take = [](void* out, int, char** columns, char**)
    {
        *static_cast<std::string*>(out) = columns[0] == nullptr ? "" : columns[0];
        return 0;
    };
    EXPECT_EQ(sqlite3_exec(handle, sql.c_str(), take, &value, nullptr), SQLITE_OK) << sqlite3_errmsg(handle);
    EXPECT_EQ(sqlite3_close(handle), SQLITE_OK);
    return value;
}

/// Fail the test unless index and files are consistent: the reference counts are right, the content files are exactly
/// those that the index names, and no file is incoming.
inline void checkStore(const path& store)
{
    EXPECT_EQ(runSql(store, "PRAGMA integrity_check"), "ok");
    EXPECT_EQ(
        runSql(store, "SELECT (SELECT count(*) FROM contents WHERE refs != "
                      "(SELECT count(*) FROM object_parts WHERE content = id) + "
                      "(SELECT count(*) FROM upload_parts WHERE content = id)) + "
                      "(SELECT count(*) FROM objects WHERE size != coalesce((SELECT sum(c.size) FROM object_parts "
                      "p JOIN contents c ON c.id = p.content WHERE p.object = objects.id), 0))"),
        "0");
    EXPECT_EQ(boost::algorithm::join(files(store / "contents"), " "),
        runSql(store, "SELECT group_concat(name, ' ') FROM (SELECT format('%d-%016x', id, session) AS name "
                      "FROM contents WHERE session IS NOT NULL ORDER BY name)"));
    EXPECT_EQ(files(store / "incoming"), std::vector<std::string>());
}

/// Run a task in a child process, which ends when the task returns. @return process id
inline int startProcess(const std::function<void()>& task)
{
    registerFileLayer(); // here, because the child does not remove its folder
    std::cout.flush();   // or the child prints it again
    const pid_t process = ::fork();
    if (process == 0)
    {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL); // never outlive a test that fails
        EXPECT_NO_THROW(task());
        std::cout.flush();
        ::_exit(::testing::Test::HasFailure() ? 1 : 0); // without the parent's destructors
    }
    EXPECT_GT(process, 0);
    return process;
}

/// Wait for the end of the process.
/// @return its exit status: 0 if the task returned without a failed check, 1 if not; -1: ended by a signal
inline int waitForProcess(int process)
{
    int status = 0;
    EXPECT_EQ(::waitpid(process, &status, 0), process);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

} // namespace storage::clients::test
