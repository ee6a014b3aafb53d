#pragma once

#include "FileContents.hpp"
#include "Time.hpp"

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <initializer_list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

namespace storage::mount
{

/// Names a file or folder towards the kernel. Never used again for another one.
using NodeId = std::uint64_t;

constexpr NodeId rootId = 1;

/// A file or folder that the kernel knows, that is open, or that the store does not have yet.
struct Node : std::enable_shared_from_this<Node>
{
    using Clock = std::chrono::steady_clock;

    Node(NodeId nodeId, bool isAFolder, std::uint64_t inodeNumber, std::unique_ptr<FileContents> fileContents)
        : id(nodeId)
        , isFolder(isAFolder)
        , inode(inodeNumber)
        , contents(std::move(fileContents))
    {
    }

    const NodeId id;
    const bool isFolder;
    const std::uint64_t inode; ///< what programs see as its number: usually the same at the next mount
    const std::unique_ptr<FileContents> contents; ///< of a file

    // These require the lock of the Tree.
    Node* parent = nullptr; ///< null: the root, or it was removed
    std::string name;
    std::string removedKey;        ///< of a node that was removed: the key that it had
    std::uint64_t lookups = 0;     ///< references of the kernel
    unsigned opens = 0;            ///< handles
    Clock::time_point expires{};   ///< until then, the store need not be asked for the attributes
    Time modified{};               ///< of the contents
    Time changed{};                ///< of anything
    mode_t mode = 0;               ///< permissions
    unsigned sending = 0;          ///< threads that are sending its contents
    std::string cachedTag;         ///< of the version that the kernel may have in its page cache; empty: a new file
    bool hasOwnAttributes = false; ///< that a program has set; the store may not keep them

    // Of a folder.
    std::map<std::string, std::shared_ptr<Node>> children; ///< those that have a Node
    std::map<std::string, Found> listed;                   ///< all that the store has, while listedUntil is not over
    Clock::time_point listedUntil{};
    std::map<std::string, Clock::time_point> missing; ///< names that the store did not have, and until when that counts
    bool hasMarker = false;                           ///< false also: not known
    bool isLocal = false;  ///< the store does not have it, because it represents no empty folders
    unsigned requests = 0; ///< lookups and listings of it that are in progress

    /// What this mount has done under a name meanwhile, which the store may have done after it has read its response.
    struct OwnChange
    {
        std::uint64_t sequence = 0;
        std::optional<Found> result; ///< nullopt: nothing has the name any more
    };
    std::map<std::string, OwnChange> ownChanges; ///< by name; empty while there are no requests

    // See Tree::Use and Tree::Change.
    unsigned users = 0; ///< of this node and of those below it
    bool isChanging = false;
};

using NodePtr = std::shared_ptr<Node>;

/// The nodes, and who may use their paths.
///
/// Locks: mutex is taken before that of FileContents, and never held during a call of the store. Use and Change are
/// waited for without any lock; a thread has at most one of them at a time.
class Tree
{
public:
    Tree();

    std::mutex mutex; ///< guards the members of all nodes

    const NodePtr& root() const noexcept { return m_root; }

    // All of these require the lock.

    /// @throws Failure  ESTALE
    NodePtr find(NodeId id) const;

    /// Make a node in a folder, instead of the one that has this name there.
    NodePtr add(Node& parent, const std::string& name, bool isFolder, std::unique_ptr<FileContents> contents);

    /// Take a node out of its folder. It lives on for those who have it open.
    void detach(Node& node);

    /// Give a node another path. What was there is detached.
    void move(Node& node, Node& parent, const std::string& name);

    /// Forget a node that is not needed, and folders above it that were kept for its sake only.
    void release(NodePtr node);

    /// @return the key; that of a folder ends in "/", that of the root is empty
    static std::string keyOf(const Node& node);
    static std::string keyOf(const Node& folder, const std::string& name);

    /// The time in which the path of a node stays as it is.
    class Use
    {
    public:
        /// Wait while a Change of the node or of a folder above it lasts.
        ///
        /// @throws Failure  ENOENT if it is a folder that was removed
        Use(Tree& tree, const NodePtr& node);
        Use(const Use&) = delete;
        Use& operator=(const Use&) = delete;
        ~Use();

        /// Of a file that was removed, it is the key that it had.
        const std::string& key() const noexcept { return m_key; }

    private:
        Tree& m_tree;
        std::vector<NodePtr> m_used;
        std::string m_key;
    };

    /// The time in which nobody else uses the paths of some nodes, nor any path below them.
    class Change
    {
    public:
        /// Wait for each Use and Change of the nodes and below them, and for each Change above them.
        ///
        /// @param nodes  may contain null
        /// @throws Failure  ENOENT if one was removed
        Change(Tree& tree, std::initializer_list<NodePtr> nodes);
        Change(const Change&) = delete;
        Change& operator=(const Change&) = delete;
        ~Change();

    private:
        Tree& m_tree;
        std::vector<NodePtr> m_nodes;
        std::vector<NodePtr> m_used; // the folders above
    };

private:
    static bool isChanging(const Node* node);
    static void addUsers(Node* node, std::vector<NodePtr>& used);
    void removeUsers(const std::vector<NodePtr>& used);

    const NodePtr m_root;
    std::unordered_map<NodeId, NodePtr> m_nodes;
    std::unordered_set<std::uint64_t> m_inodes; // of m_nodes
    NodeId m_lastId = rootId;
    std::condition_variable m_changed; // users or isChanging of a node
};

} // namespace storage::mount
