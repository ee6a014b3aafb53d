#pragma once

#include <storage/cloudprovider/CloudClient.hpp>
#include <storage/cloudprovider/CloudProvider.hpp>
#include <storage/mount/NotStored.hpp>
#include <storage/mount/Unsent.hpp>

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace storage::mount
{

/// How a store is mounted.
struct MountSettings
{
    std::filesystem::path mountPoint; ///< an empty folder
    std::string source;               ///< shown by mount(8)

    /// For what is not stored yet. Made if it is missing; its parent must exist. One mount at a time uses it.
    std::filesystem::path folder;

    cloudprovider::FolderPolicy folderPolicy = cloudprovider::FolderPolicy::MarkerObjects;

    /// How long attributes, names and missing names count without asking the store again.
    std::chrono::milliseconds attributeTimeout = std::chrono::seconds(1);

    uid_t user = 0;
    gid_t group = 0;
    mode_t fileMode = 0644;
    mode_t folderMode = 0755;
    std::size_t renameLimit = 10'000; ///< objects in a folder that can be renamed
    std::filesystem::path disk = {};  ///< whose space programs see as that of the store; empty: a large constant
    bool isReadOnly = false;
    bool allowsOthers = false; ///< other users may use the mount, as far as modes allow
};

/// A store as a folder of this machine, which all programs can use.
///
/// The promises to these programs are in docs/mount.md. Any thread may call any operation but run().
class Mount
{
public:
    /// Mount the store. Programs that use the mount wait until run() is called.
    ///
    /// @param client  must implement PinnedVersions and WriteConditions, as the stores of this project do
    /// @throws std::exception whose text says what failed, for people
    Mount(std::shared_ptr<cloudprovider::CloudClient> client, const MountSettings& settings);
    Mount(const Mount&) = delete;
    Mount& operator=(const Mount&) = delete;

    /// Unmount, if run() has not.
    ~Mount();

    /// Serve programs until somebody unmounts the folder or stop() is called. Meanwhile, SIGUSR2 must not be blocked in
    /// this thread, and is handled.
    void run();

    /// Let run() return. Any thread may call this, while run() works.
    void stop();

    /// Store everything that programs have written.
    ///
    /// @return what could not be stored, and all conflicts since the mount
    std::vector<NotStored> sendAll();

    /// Return the files that are not stored yet.
    std::vector<Unsent> unsent();

private:
    class Server;
    const std::unique_ptr<Server> m_server;
};

} // namespace storage::mount
