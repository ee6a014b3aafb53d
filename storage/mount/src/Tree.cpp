#include "Tree.hpp"

#include "Failure.hpp"
#include "Names.hpp"

#include <xxhash.h>

#include <cerrno>
#include <utility>

namespace storage::mount
{

Tree::Tree()
    : m_root(std::make_shared<Node>(rootId, true, rootId, nullptr))
{
    m_root->lookups = 1; // never forgotten
    m_root->hasMarker = true;
    m_nodes.emplace(rootId, m_root);
}

NodePtr Tree::find(NodeId id) const
{
    const auto known = m_nodes.find(id);
    if (known == m_nodes.end())
    {
        throw Failure(ESTALE, "the file or folder is not known any more");
    }
    return known->second;
}

NodePtr Tree::add(Node& parent, const std::string& name, bool isFolder, std::unique_ptr<FileContents> contents)
{
    const std::string key = keyOf(parent, name);
    std::uint64_t inode = XXH3_64bits(key.data(), key.size());
    while (!m_inodes.insert(inode).second) // of a file that had this name before
    {
        ++inode;
    }
    NodePtr node = std::make_shared<Node>(++m_lastId, isFolder, inode, std::move(contents));
    m_nodes.emplace(node->id, node);
    move(*node, parent, name);
    return node;
}

void Tree::detach(Node& node)
{
    if (node.parent != nullptr)
    {
        const NodePtr keep = node.shared_from_this();
        node.removedKey = keyOf(node);
        node.parent->children.erase(node.name);
        node.parent = nullptr;
        release(keep);
    }
}

void Tree::move(Node& node, Node& parent, const std::string& name)
{
    const NodePtr keep = node.shared_from_this();
    if (const auto there = parent.children.find(name); there != parent.children.end() && there->second != keep)
    {
        const NodePtr old = there->second;
        detach(*old);
    }
    if (node.parent != nullptr)
    {
        node.parent->children.erase(node.name);
    }
    node.parent = &parent;
    node.name = name;
    parent.children.emplace(name, keep);
}

void Tree::release(NodePtr node)
{
    while (node != m_root && node->lookups == 0 && node->opens == 0 && node->children.empty() && node->users == 0 &&
           !node->isChanging)
    {
        const bool isKept = node->parent != nullptr &&
                            (node->hasOwnAttributes || node->isLocal || (node->contents && node->contents->isUnsent()));
        if (isKept)
        {
            return;
        }
        m_nodes.erase(node->id);
        m_inodes.erase(node->inode);
        if (node->parent == nullptr)
        {
            return;
        }
        Node* const parent = std::exchange(node->parent, nullptr);
        parent->children.erase(node->name);
        node = parent->shared_from_this();
    }
}

std::string Tree::keyOf(const Node& node)
{
    if (node.parent == nullptr)
    {
        return node.removedKey;
    }
    return keyOf(*node.parent, node.name) + (node.isFolder ? "/" : "");
}

std::string Tree::keyOf(const Node& folder, const std::string& name)
{
    return keyOf(folder) + names::toSegment(name);
}

bool Tree::isChanging(const Node* node)
{
    for (; node != nullptr; node = node->parent)
    {
        if (node->isChanging)
        {
            return true;
        }
    }
    return false;
}

void Tree::addUsers(Node* node, std::vector<NodePtr>& used)
{
    for (; node != nullptr; node = node->parent)
    {
        used.push_back(node->shared_from_this());
        ++node->users;
    }
}

void Tree::removeUsers(const std::vector<NodePtr>& used)
{
    for (const NodePtr& node : used)
    {
        --node->users;
    }
    m_changed.notify_all();
    used.empty() ? void() : release(used.front());
}

Tree::Use::Use(Tree& tree, const NodePtr& node)
    : m_tree(tree)
{
    std::unique_lock lock(tree.mutex);
    tree.m_changed.wait(lock, [&] { return !isChanging(node.get()); });
    if (node->isFolder && node->parent == nullptr && node != tree.m_root)
    {
        throw Failure(ENOENT, "the folder was removed");
    }
    m_key = keyOf(*node);
    addUsers(node.get(), m_used);
}

Tree::Use::~Use()
{
    const std::lock_guard lock(m_tree.mutex);
    m_tree.removeUsers(m_used);
}

Tree::Change::Change(Tree& tree, std::initializer_list<NodePtr> nodes)
    : m_tree(tree)
{
    std::unique_lock lock(tree.mutex);
    std::ranges::copy_if(nodes, std::back_inserter(m_nodes), [](const NodePtr& node) { return node != nullptr; });
    tree.m_changed.wait(lock,
        [&] { return std::ranges::none_of(m_nodes, [](const NodePtr& node) { return isChanging(node.get()); }); });
    for (const NodePtr& node : m_nodes)
    {
        if (node->parent == nullptr)
        {
            throw Failure(ENOENT, "the file or folder was removed");
        }
    }
    for (const NodePtr& node : m_nodes)
    {
        node->isChanging = true;
        addUsers(node->parent, m_used);
    }
    tree.m_changed.wait(
        lock, [&] { return std::ranges::all_of(m_nodes, [](const NodePtr& node) { return node->users == 0; }); });
}

Tree::Change::~Change()
{
    const std::lock_guard lock(m_tree.mutex);
    for (const NodePtr& node : m_nodes)
    {
        node->isChanging = false;
    }
    m_tree.removeUsers(m_used);
    for (const NodePtr& node : m_nodes)
    {
        m_tree.release(node);
    }
}

} // namespace storage::mount
