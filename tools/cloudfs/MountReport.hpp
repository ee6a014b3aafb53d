#pragma once

#include <storage/cloudprovider/CloudClient.hpp>
#include <storage/mount/Mount.hpp>

#include <filesystem>
#include <thread>

namespace cloudfs
{

/// Tells what a mount is doing when SIGUSR1 arrives: on standard error, and in a file, because a mount in the
/// background may have no terminal.
class MountReport
{
public:
    /// Block SIGUSR1 in this thread and those that it starts. Call it before any thread starts.
    static void blockSignal();

    /// @param client  that the mount uses; counts its calls
    /// @param file    that a report replaces; both others must outlive this object
    MountReport(storage::mount::Mount& mount, storage::cloudprovider::CloudClient& client, std::filesystem::path file);
    MountReport(const MountReport&) = delete;
    MountReport& operator=(const MountReport&) = delete;
    ~MountReport();

private:
    void write() const;

    storage::mount::Mount& m_mount;
    storage::cloudprovider::CloudClient& m_client;
    const std::filesystem::path m_file;
    std::jthread m_thread; // last: uses the members above
};

} // namespace cloudfs
