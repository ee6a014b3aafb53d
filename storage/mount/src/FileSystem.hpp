#pragma once

#include "Database.hpp"
#include "Failure.hpp"
#include "FileContents.hpp"
#include "FolderMoves.hpp"
#include "MountedStore.hpp"
#include "Tree.hpp"
#include "UnsentFiles.hpp"

#include <storage/cloudprovider/CloudProvider.hpp>
#include <storage/mount/NotStored.hpp>
#include <storage/mount/Unsent.hpp>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace storage::mount
{

/// How a FileSystem presents its store.
struct FileSystemSettings
{
    std::filesystem::path folder; ///< for what is not stored yet; exists, and nobody else uses it
    cloudprovider::FolderPolicy folderPolicy = cloudprovider::FolderPolicy::MarkerObjects;
    std::chrono::milliseconds attributeTimeout = std::chrono::seconds(1);
    mode_t fileMode = 0644;
    mode_t folderMode = 0755;
    std::size_t renameLimit = 10'000; ///< objects in a folder that can be renamed
};

/// What a program sees of a file or folder.
struct Attributes
{
    NodeId node = 0;
    std::uint64_t inode = 0;
    bool isFolder = false;
    std::uint64_t size = 0; ///< bytes
    Time modified;
    Time changed;
    mode_t mode = 0;        ///< permissions
    bool isRemoved = false; ///< only those who have it open see it
};

/// What setAttributes() changes.
struct AttributeChanges
{
    std::optional<std::uint64_t> size = {};
    std::optional<mode_t> mode = {};
    std::optional<Time> modified = {};
};

/// An open file.
struct FileHandle
{
    NodePtr node;
    bool keepsPages = false; ///< what the kernel has read of the file is still right
};

/// An open folder.
struct FolderHandle
{
    struct Entry
    {
        std::string name;
        Found found;
    };

    NodePtr node;
    std::vector<Entry> entries; ///< what the folder had when it was listed
    bool isListed = false;
};

/// A store as a file system: the operations that a kernel asks for.
///
/// Any thread may call any operation at any time. Those that return Attributes of a name count one reference of the
/// kernel, which forget() takes back. Each throws a Failure, or what Failure::current() can translate.
class FileSystem
{
public:
    /// @param store  must outlive this
    FileSystem(MountedStore& store, const FileSystemSettings& settings);
    FileSystem(const FileSystem&) = delete;
    FileSystem& operator=(const FileSystem&) = delete;

    /// What is not stored stays in the folder, for the next mount.
    ~FileSystem();

    /// Find a name in a folder. @return nullopt: there is none
    std::optional<Attributes> lookup(NodeId folder, const std::string& name);
    void forget(NodeId node, std::uint64_t references);
    Attributes attributes(NodeId node);
    Attributes setAttributes(NodeId node, const AttributeChanges& changes);

    std::pair<Attributes, FileHandle> create(NodeId folder, const std::string& name, mode_t mode);

    /// @param truncates  open it empty
    FileHandle open(NodeId node, bool truncates = false);
    std::size_t read(const FileHandle& file, std::uint64_t offset, char* target, std::size_t size);
    void write(const FileHandle& file, std::uint64_t offset, const char* bytes, std::size_t size);

    /// A program closes one of its descriptors: store what is unsent, except a file that was created or emptied by
    /// opening it and to which nothing was written.
    void flush(const FileHandle& file);

    /// Store what is unsent.
    void sync(const FileHandle& file);

    /// The last descriptor was closed. Never throws; what cannot be stored now is tried again.
    void release(const FileHandle& file) noexcept;

    Attributes createFolder(NodeId folder, const std::string& name, mode_t mode);
    void removeFile(NodeId folder, const std::string& name);
    void removeFolder(NodeId folder, const std::string& name);

    /// @param replaces  whether something that has the new name may be replaced
    void rename(NodeId folder, const std::string& name, NodeId newFolder, const std::string& newName, bool replaces);

    FolderHandle openFolder(NodeId node);

    /// List the folder again. Does nothing if that is done and `again` is false.
    void list(FolderHandle& folder, bool again);

    /// As lookup(), for an entry of a listing.
    std::optional<Attributes> lookup(const FolderHandle& folder, const FolderHandle::Entry& entry);

    void release(const FolderHandle& folder) noexcept;

    /// Take over what earlier processes have left, and send it in the background. Call once, before all others.
    ///
    /// What was left unsent is kept as a conflict if the machine has stopped since, or if another program has changed
    /// the file.
    void recover();

    /// Store all that is unsent. @return what could not be stored, and all conflicts since the mount
    std::vector<NotStored> sendAll();

    /// Return the files that are not stored yet.
    std::vector<Unsent> unsent();

private:
    /// A node that must not be forgotten during an operation; may be null.
    class Reference;

    NodePtr find(NodeId id);
    static NodePtr childOf(const Node& folder, const std::string& name);
    static bool isUnsent(const Node& node);
    void noteOwnChange(Node& folder, const std::string& name, const std::optional<Found>& result);
    static void endRequest(Node& folder);
    NodePtr ensureFolder(const NodePtr& folder, const std::string& name);
    NodePtr resolve(const NodePtr& folder, const std::string& name);
    NodePtr apply(Node& folder, const std::string& name, const std::optional<Found>& found);
    Reference hold(NodeId folder, const std::string& name);
    void refresh(const NodePtr& node);
    void openCurrent(const NodePtr& node, const std::string& key);
    Attributes describe(const Node& node) const;
    Attributes reference(Node& node) const;
    FileHandle handle(const NodePtr& node);
    void send(const NodePtr& node, const std::string& key);
    std::vector<NodePtr> unsentNodes();
    void noteSent(Node& node, const std::optional<ObjectVersion>& before);
    void keepConflict(FileContents& contents, const std::string& key, const std::string& reason);
    void recover(const UnsentFile& file);
    void loadForReaders(FileContents& contents, const std::string& key);
    void keepFolder(const NodePtr& folder, const std::string& key);
    void moveFile(const NodePtr& node, const std::string& source, const std::string& target);
    void moveFolder(const NodePtr& node, const std::string& source, const std::string& target);
    void retry();
    void retry(const NodePtr& node);

    MountedStore& m_store;
    const FileSystemSettings m_settings;
    Database m_database;
    UnsentFiles m_unsent;
    FolderMoves m_moves;
    Tree m_tree;
    std::uint64_t m_lastChange = 0; // of this mount; guarded by the lock of the tree

    // Held while a conflict is copied, also during calls of the store: only other conflicts and the end of sendAll()
    // wait for it, which must not miss one. Taken before the lock of FileContents.
    std::mutex m_conflictMutex;
    std::vector<NotStored> m_conflicts;

    std::mutex m_retryMutex; // innermost; guards the next four
    std::condition_variable m_retryChanged;
    std::map<NodeId, NodePtr> m_failed; // that are to be sent again
    bool m_isHurried = false;           // now
    bool m_isEnding = false;
    std::thread m_retrier; // last: uses all others
};

} // namespace storage::mount
