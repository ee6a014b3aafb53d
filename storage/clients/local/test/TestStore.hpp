#pragma once

#include <storage/clients/local/LocalClient.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace storage::clients::test
{

constexpr std::uint64_t everythingInFiles = 0; // for LocalClient's maxInlineSize

/// A directory of its own, removed with all that is in it.
class TestFolder
{
public:
    TestFolder();
    TestFolder(const TestFolder&) = delete;
    TestFolder& operator=(const TestFolder&) = delete;
    ~TestFolder();

    /// The directory of the store, which is not there at first.
    std::filesystem::path store() const { return m_path / "store"; }
    const std::filesystem::path& path() const { return m_path; }

private:
    const std::filesystem::path m_path;
};

/// Content that tells whether it is whole: its version and size in front, then bytes that follow from these.
std::string content(std::uint64_t version, std::size_t size);

/// The version of such content; fails the test when it is not whole.
std::uint64_t versionOf(const std::string& content);

void put(cloudprovider::CloudClient& client, const std::string& key, const std::string& content);
std::string get(cloudprovider::CloudClient& client, const std::string& key);

/// Put the parts under the key by one upload.
void putParts(cloudprovider::CloudClient& client, const std::string& key, const std::vector<std::string>& parts);

std::vector<std::string> keys(cloudprovider::CloudClient& client);

/// Names of the files in a folder of the store.
std::vector<std::string> files(const std::filesystem::path& folder);

/// Run SQL on the index behind the client's back.
///
/// @return the first column of the first row, empty when there is none
std::string runSql(const std::filesystem::path& store, const std::string& sql);

/// Fail the test unless index and files agree: references are counted right, every file is named and every named one
/// there, and nothing is being written.
void checkStore(const std::filesystem::path& store);

/// Run a task in a process of its own, which ends when it returns.
///
/// @return process id
int startProcess(const std::function<void()>& task);

/// Wait for its end and fail the test unless the task returned without a failed check.
void expectSuccess(int process);

} // namespace storage::clients::test
