#pragma once

#include <storage/clients/local/LocalClient.hpp>
#include <storage/clients/testing/ClientCalls.hpp>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace storage::clients::test
{

using conformance::get;
using conformance::put;
using conformance::putParts;

constexpr std::uint64_t nothingInline = 0; // for LocalClient's maxInlineSize

/// A temporary directory. The destructor removes it.
class TestFolder
{
public:
    TestFolder();
    TestFolder(const TestFolder&) = delete;
    TestFolder& operator=(const TestFolder&) = delete;
    ~TestFolder();

    /// The directory of the store, which does not exist at first.
    std::filesystem::path store() const { return m_path / "store"; }
    const std::filesystem::path& path() const { return m_path; }

private:
    std::filesystem::path m_path;
};

/// Content that can be checked for completeness: it begins with its version and size, which determine all other bytes.
std::string content(std::uint64_t version, std::size_t size);

/// The version of such a content. Fails the test when the content is not complete.
std::uint64_t versionOf(const std::string& content);

/// The buffer of a stream that calls a function before the first bytes are read or written.
class CallbackBuffer : public std::stringbuf
{
public:
    CallbackBuffer(const std::string& content, std::function<void()> callback)
        : std::stringbuf(content)
        , m_callback(std::move(callback))
    {
    }

protected:
    std::streamsize xsgetn(char* target, std::streamsize size) override
    {
        std::exchange(m_callback, [] {})();
        return std::stringbuf::xsgetn(target, size);
    }
    std::streamsize xsputn(const char* bytes, std::streamsize size) override
    {
        std::exchange(m_callback, [] {})();
        return std::stringbuf::xsputn(bytes, size);
    }

private:
    std::function<void()> m_callback;
};

/// Names of the files in a folder, sorted.
std::vector<std::string> files(const std::filesystem::path& folder);

/// Run SQL on the index directly.
///
/// @return the first column of the first row; empty when there is none
std::string runSql(const std::filesystem::path& store, const std::string& sql);

/// Fail the test unless index and files are consistent: the reference counts are right, the content files are exactly
/// those that the index names, and no file is incoming.
void checkStore(const std::filesystem::path& store);

/// Run a task in a child process, which ends when the task returns.
///
/// @return process id
int startProcess(const std::function<void()>& task);

/// Wait for the end of the process.
///
/// @return its exit status: 0 if the task returned without a failed check, 1 if not; -1: ended by a signal
int waitForProcess(int process);

} // namespace storage::clients::test
