#include "FileSystem.hpp"

#include "Failure.hpp"
#include "InParallel.hpp"
#include "Names.hpp"

#include <storage/clients/common/KeyRules.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>
#include <storage/cloudprovider/Logger.hpp>

#include <foundation/log/Severity.hpp>

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <utility>

namespace storage::mount
{

namespace
{

constexpr std::size_t maxMissing = 1'000; // names of a folder that are remembered

constexpr auto retryInterval = std::chrono::seconds(5);

void warn(const std::string& text)
{
    cloudprovider::getLogger().write(foundation::log::severity::warning, text);
}

bool isAbove(const Node* folder, const Node* node)
{
    for (; node != nullptr; node = node->parent)
    {
        if (node == folder)
        {
            return true;
        }
    }
    return false;
}

} // namespace

class FileSystem::Reference
{
public:
    /// @param node  referenced already
    Reference(FileSystem& files, NodePtr node)
        : m_files(files)
        , m_node(std::move(node))
    {
    }
    Reference(const Reference&) = delete;
    Reference& operator=(const Reference&) = delete;
    ~Reference() { m_node ? m_files.forget(m_node->id, 1) : void(); }

    const NodePtr& node() const noexcept { return m_node; }

    /// @throws Failure  ENOENT if it is null
    const NodePtr& require() const
    {
        if (!m_node)
        {
            throw Failure(ENOENT, "there is no such file or folder");
        }
        return m_node;
    }

private:
    FileSystem& m_files;
    const NodePtr m_node;
};

FileSystem::FileSystem(MountedStore& store, const FileSystemSettings& settings)
    : m_store(store)
    , m_settings(settings)
    , m_database(settings.folder / "records.sqlite")
    , m_unsent(m_database, settings.folder)
    , m_moves(m_database, store)
{
    m_tree.root()->modified = m_tree.root()->changed = now();
    m_tree.root()->mode = settings.folderMode;
    m_retrier = std::thread([this] { retry(); });
}

FileSystem::~FileSystem()
{
    {
        const std::lock_guard lock(m_retryMutex);
        m_isEnding = true;
    }
    m_retryChanged.notify_all();
    m_retrier.join();
}

NodePtr FileSystem::find(NodeId id)
{
    const std::lock_guard lock(m_tree.mutex);
    return m_tree.find(id);
}

NodePtr FileSystem::childOf(const Node& folder, const std::string& name)
{
    const auto known = folder.children.find(name);
    return known == folder.children.end() ? nullptr : known->second;
}

/// Whether a file, or anything in a folder, is here only. Requires the lock of the tree.
bool FileSystem::isUnsent(const Node& node)
{
    return node.isLocal || node.sending > 0 || (node.contents && node.contents->isUnsent()) ||
           std::ranges::any_of(node.children, [](const auto& child) { return isUnsent(*child.second); });
}

/// Requires the lock of the tree.
Attributes FileSystem::describe(const Node& node) const
{
    return {node.id, node.inode, node.isFolder, node.contents ? node.contents->size() : 0, node.modified, node.changed,
        node.mode, node.parent == nullptr && node.id != rootId};
}

/// Requires the lock of the tree.
Attributes FileSystem::reference(Node& node) const
{
    ++node.lookups;
    return describe(node);
}

/// Take note of what the store has under a name. Requires the lock of the tree.
///
/// @return null: there is nothing, also not here
NodePtr FileSystem::apply(Node& folder, const std::string& name, const std::optional<Found>& found)
{
    NodePtr node = childOf(folder, name);
    if (node && (!found || found->isFolder != node->isFolder))
    {
        if (isUnsent(*node) || (node->contents && !node->contents->supersede()))
        {
            return node;
        }
        m_tree.detach(*node);
        node = nullptr;
    }
    if (!found)
    {
        return nullptr;
    }
    if (node && node->sending > 0)
    {
        return node; // what was found may be from before
    }
    const auto match =
        node && node->contents ? node->contents->found(*found, node->opens == 0) : FileContents::Match::Same;
    if (!node || match == FileContents::Match::Refused)
    {
        auto contents = found->isFolder ? nullptr : std::make_unique<FileContents>(m_store, m_unsent, *found);
        node = m_tree.add(folder, name, found->isFolder, std::move(contents));
        node->mode = found->isFolder ? m_settings.folderMode : m_settings.fileMode;
        node->modified = node->changed = found->modified.value_or(now());
    }
    else if (match == FileContents::Match::Replaced)
    {
        node->modified = node->changed = found->modified.value_or(now());
    }
    node->expires = Node::Clock::now() + m_settings.attributeTimeout;
    return node;
}

/// Find a name in a folder. @return with one more reference; null: there is none
NodePtr FileSystem::resolve(const NodePtr& folder, const std::string& name)
{
    const auto referenced = [](const NodePtr& node) // before the lock is released, or it might be forgotten
    {
        node ? void(++node->lookups) : void();
        return node;
    };
    const Tree::Use use(m_tree, folder);
    std::unique_lock lock(m_tree.mutex);
    const auto time = Node::Clock::now();
    const NodePtr node = childOf(*folder, name);
    if (node && (time < node->expires || isUnsent(*node)))
    {
        return referenced(node);
    }
    if (time < folder->listedUntil)
    {
        const auto listed = folder->listed.find(name);
        return referenced(
            apply(*folder, name, listed != folder->listed.end() ? std::optional(listed->second) : std::nullopt));
    }
    const auto missing = folder->missing.find(name);
    if (!node && missing != folder->missing.end() && time < missing->second)
    {
        return nullptr;
    }
    const std::uint64_t before = m_lastChange;
    const std::string key = Tree::keyOf(*folder, name);
    ++folder->requests;
    lock.unlock();
    std::optional<Found> found;
    try
    {
        found = m_store.find(key);
    }
    catch (...)
    {
        lock.lock();
        endRequest(*folder);
        throw;
    }
    lock.lock();
    const auto own = folder->ownChanges.find(name);
    const bool isOld = own != folder->ownChanges.end() && own->second.sequence > before;
    found = isOld ? own->second.result : found;
    endRequest(*folder);
    folder->missing.size() < maxMissing ? void() : folder->missing.clear();
    found ? void() : void(folder->missing[name] = Node::Clock::now() + m_settings.attributeTimeout);
    const NodePtr current = childOf(*folder, name);
    return referenced(isOld && current ? current : apply(*folder, name, found));
}

/// Take note of what this mount has done, so that responses to earlier requests do not hide it. Requires the lock of
/// the tree.
void FileSystem::noteOwnChange(Node& folder, const std::string& name, const std::optional<Found>& result)
{
    ++m_lastChange;
    folder.requests > 0 ? void(folder.ownChanges[name] = {m_lastChange, result}) : void();
    folder.missing.erase(name);
    if (!result)
    {
        folder.listed.erase(name);
    }
    else if (Node::Clock::now() < folder.listedUntil)
    {
        folder.listed[name] = *result;
    }
}

/// Requires the lock of the tree.
void FileSystem::endRequest(Node& folder)
{
    --folder.requests == 0 ? folder.ownChanges.clear() : void();
}

/// Find a name in a folder, and keep its node.
FileSystem::Reference FileSystem::hold(NodeId folder, const std::string& name)
{
    return {*this, resolve(find(folder), name)};
}

std::optional<Attributes> FileSystem::lookup(NodeId folder, const std::string& name)
{
    const NodePtr node = resolve(find(folder), name);
    const std::lock_guard lock(m_tree.mutex);
    return node ? std::optional(describe(*node)) : std::nullopt;
}

void FileSystem::forget(NodeId id, std::uint64_t references)
{
    const std::lock_guard lock(m_tree.mutex);
    const NodePtr node = m_tree.find(id);
    node->lookups -= std::min(node->lookups, references);
    m_tree.release(node);
}

/// Ask the store again for a node whose attributes have expired.
void FileSystem::refresh(const NodePtr& node)
{
    NodePtr parent;
    std::string name;
    {
        const std::lock_guard lock(m_tree.mutex);
        if (node->parent == nullptr || Node::Clock::now() < node->expires)
        {
            return;
        }
        parent = node->parent->shared_from_this();
        name = node->name;
    }
    const Reference current(*this, resolve(parent, name));
}

Attributes FileSystem::attributes(NodeId id)
{
    const NodePtr node = find(id);
    refresh(node);
    const std::lock_guard lock(m_tree.mutex);
    return describe(*node);
}

Attributes FileSystem::setAttributes(NodeId id, const AttributeChanges& changes)
{
    const NodePtr node = find(id);
    if (changes.size)
    {
        if (node->isFolder)
        {
            throw Failure(EISDIR, "a folder has no size");
        }
        const Tree::Use use(m_tree, node);
        node->contents->resize(use.key(), *changes.size);
        std::unique_lock lock(m_tree.mutex);
        const bool isSentNow = node->opens == 0 && node->parent != nullptr; // no close will do it
        lock.unlock();
        isSentNow ? send(node, use.key()) : void();
    }
    const std::lock_guard lock(m_tree.mutex);
    node->changed = now();
    node->modified = changes.size ? node->changed : node->modified;
    node->modified = changes.modified.value_or(node->modified);
    node->mode = changes.mode.value_or(node->mode);
    node->hasOwnAttributes = node->hasOwnAttributes || changes.mode || changes.modified;
    return describe(*node);
}

/// Requires the lock of the tree.
FileHandle FileSystem::handle(const NodePtr& node)
{
    ++node->opens;
    const auto stored = node->contents->stored();
    std::string tag = stored ? stored->tag : "";
    const bool keepsPages = !tag.empty() && node->cachedTag == tag;
    node->cachedTag = std::move(tag);
    return {node, keepsPages};
}

std::pair<Attributes, FileHandle> FileSystem::create(NodeId folderId, const std::string& name, mode_t mode)
{
    const NodePtr folder = find(folderId);
    if (const Reference existing(*this, resolve(folder, name)); existing.node())
    {
        throw Failure(EEXIST, clients::quoted(name) + " exists");
    }
    const Tree::Use use(m_tree, folder);
    const std::string key = use.key() + names::toSegment(name);
    names::check(name, key);
    auto contents = FileContents::createNew(m_store, m_unsent, key);
    const std::lock_guard lock(m_tree.mutex);
    if (childOf(*folder, name))
    {
        contents->remove();
        throw Failure(EEXIST, clients::quoted(name) + " exists");
    }
    const NodePtr node = m_tree.add(*folder, name, false, std::move(contents));
    node->mode = mode & 07777U;
    node->hasOwnAttributes = node->mode != m_settings.fileMode;
    node->modified = node->changed = folder->modified = folder->changed = now();
    noteOwnChange(*folder, name, Found());
    return {reference(*node), handle(node)};
}

FileHandle FileSystem::open(NodeId id, bool truncates)
{
    const NodePtr node = find(id);
    if (node->isFolder)
    {
        throw Failure(EISDIR, "it is a folder");
    }
    const Tree::Use use(m_tree, node);
    bool isCurrent = false;
    {
        // From here on it counts as open, so that of several who open it at a time, none replaces the others' version.
        const std::lock_guard lock(m_tree.mutex);
        ++node->opens;
        isCurrent = node->contents->isSuperseded()
                        ? false
                        : node->parent == nullptr || (Node::Clock::now() < node->expires && node->contents->stored());
    }
    try
    {
        if (!isCurrent)
        {
            openCurrent(node, use.key());
        }
        truncates ? node->contents->resize(use.key(), 0, true) : void();
    }
    catch (...)
    {
        const std::lock_guard lock(m_tree.mutex);
        --node->opens;
        throw;
    }
    const std::lock_guard lock(m_tree.mutex);
    node->modified = truncates ? now() : node->modified;
    node->changed = truncates ? node->modified : node->changed;
    FileHandle result = handle(node);
    --node->opens; // counted twice
    result.keepsPages = result.keepsPages && !truncates;
    return result;
}

/// Let reads return the version that is stored now.
///
/// @throws Failure  ESTALE: look the file up again, and open what that finds
void FileSystem::openCurrent(const NodePtr& node, const std::string& key)
{
    if (node->contents->isUnsent())
    {
        return;
    }
    std::optional<ObjectVersion> version;
    try
    {
        version = m_store.open(key);
    }
    catch (const cloudprovider::ResourceNotFoundException&) // removed since it was looked up
    {
    }
    const std::lock_guard lock(m_tree.mutex);
    const std::uint64_t size = node->contents->size();
    const auto match =
        version && !node->contents->isSuperseded()
            ? node->contents->found(Found{false, version->size, std::nullopt, version->tag}, node->opens == 1)
            : FileContents::Match::Refused;
    // The kernel must not read a version with the size of another.
    const bool hasOtherSize = match == FileContents::Match::Replaced && node->contents->size() != size;
    if (match == FileContents::Match::Refused || hasOtherSize)
    {
        node->expires = {};
        if (node->parent != nullptr)
        {
            node->parent->listedUntil = {};
            node->contents->isSuperseded() ? m_tree.detach(*node) : void();
        }
        throw Failure(ESTALE, "another program has replaced or removed the file");
    }
}

std::size_t FileSystem::read(const FileHandle& file, std::uint64_t offset, char* target, std::size_t size)
{
    const Tree::Use use(m_tree, file.node);
    return file.node->contents->read(use.key(), offset, target, size);
}

void FileSystem::write(const FileHandle& file, std::uint64_t offset, const char* bytes, std::size_t size)
{
    const Tree::Use use(m_tree, file.node);
    file.node->contents->write(use.key(), offset, bytes, size);
    const std::lock_guard lock(m_tree.mutex);
    file.node->modified = file.node->changed = now();
}

void FileSystem::send(const NodePtr& node, const std::string& key)
{
    std::optional<Failure> failure;
    bool isStored = false;
    const auto before = node->contents->stored();
    {
        const std::lock_guard lock(m_tree.mutex);
        ++node->sending;
    }
    try
    {
        isStored = node->contents->send(key);
    }
    catch (...)
    {
        failure = Failure::current();
    }
    {
        const std::lock_guard lock(m_tree.mutex);
        --node->sending;
        isStored ? noteSent(*node, before) : void();
    }
    if (!failure)
    {
        return;
    }
    if (failure->error() == ESTALE)
    {
        keepConflict(*node->contents, key, failure->what());
        const std::lock_guard lock(m_tree.mutex);
        if (node->parent != nullptr && node->contents->isSuperseded())
        {
            node->parent->listedUntil = {};
            m_tree.detach(*node);
        }
    }
    else
    {
        warn(fmt::format("storing {} failed and will be tried again: {}", clients::quoted(key), failure->what()));
        const std::lock_guard lock(m_retryMutex);
        m_failed.emplace(node->id, node);
    }
    throw Failure(*failure);
}

/// Requires the lock of the tree. @param before  the version that was replaced
void FileSystem::noteSent(Node& node, const std::optional<ObjectVersion>& before)
{
    const auto stored = node.contents->stored();
    if (node.cachedTag == (before ? before->tag : "") && stored)
    {
        node.cachedTag = stored->tag; // all writes went through the kernel
    }
    if (node.parent != nullptr)
    {
        node.expires = Node::Clock::now() + m_settings.attributeTimeout;
        noteOwnChange(*node.parent, node.name, Found{false, node.contents->size(), std::nullopt, ""});
    }
}

/// Keep our version of a file that another program has changed, too.
void FileSystem::keepConflict(FileContents& contents, const std::string& key, const std::string& reason)
{
    const auto folder = m_settings.folder / "conflicts";
    std::filesystem::create_directories(folder);
    std::string name =
        fmt::format("{:%Y%m%dT%H%M%SZ}-{}-{}", fmt::gmtime(std::chrono::system_clock::now()), m_unsent.nextId(), key);
    std::ranges::replace(name, '/', '_');
    name.resize(std::min<std::size_t>(name.size(), 200));
    while (std::filesystem::exists(folder / name))
    {
        name += '+'; // an earlier process has used the same number in this second
    }
    const std::lock_guard lock(m_conflictMutex);
    if (const auto isComplete = contents.moveToConflict(key, folder / name))
    {
        std::string text =
            fmt::format("{}; what was written here is in {}{}", reason, clients::quoted((folder / name).native()),
                *isComplete ? "" : ", with zeros where only the old version had bytes");
        warn(text);
        m_conflicts.push_back({key, std::move(text)});
    }
}

void FileSystem::flush(const FileHandle& file)
{
    if (file.node->contents->needsFlush())
    {
        sync(file);
    }
}

void FileSystem::sync(const FileHandle& file)
{
    const Tree::Use use(m_tree, file.node);
    {
        const std::lock_guard lock(m_tree.mutex);
        if (file.node->parent == nullptr && !file.node->contents->isSuperseded())
        {
            return; // it was removed here, so nobody will see it
        }
    }
    send(file.node, use.key());
}

void FileSystem::release(const FileHandle& file) noexcept
{
    try
    {
        sync(file);
    }
    catch (const std::exception&) // was logged
    {
    }
    const std::lock_guard lock(m_tree.mutex);
    --file.node->opens == 0 ? file.node->contents->trim() : void();
    m_tree.release(file.node);
}

Attributes FileSystem::createFolder(NodeId folderId, const std::string& name, mode_t mode)
{
    const NodePtr folder = find(folderId);
    if (const Reference existing(*this, resolve(folder, name)); existing.node())
    {
        throw Failure(EEXIST, clients::quoted(name) + " exists");
    }
    const Tree::Use use(m_tree, folder);
    const std::string key = use.key() + names::toSegment(name);
    names::check(name, key);
    const bool hasMarkers = m_settings.folderPolicy == cloudprovider::FolderPolicy::MarkerObjects;
    hasMarkers ? m_store.createMarker(key + '/') : void();
    const std::lock_guard lock(m_tree.mutex);
    const NodePtr node = m_tree.add(*folder, name, true, nullptr);
    node->mode = mode & 07777U;
    node->hasOwnAttributes = node->mode != m_settings.folderMode;
    node->hasMarker = hasMarkers;
    node->isLocal = !hasMarkers;
    node->modified = node->changed = folder->modified = folder->changed = now();
    node->expires = Node::Clock::now() + m_settings.attributeTimeout;
    node->listedUntil = node->expires; // it is empty
    noteOwnChange(*folder, name, Found{true, 0, std::nullopt, ""});
    return reference(*node);
}

/// Let a folder go on to exist when what is in it goes.
void FileSystem::keepFolder(const NodePtr& folder, const std::string& key)
{
    {
        const std::lock_guard lock(m_tree.mutex);
        if (folder->hasMarker || folder->isLocal)
        {
            return;
        }
    }
    const bool hasMarkers = m_settings.folderPolicy == cloudprovider::FolderPolicy::MarkerObjects;
    hasMarkers ? m_store.createMarker(key) : void();
    const std::lock_guard lock(m_tree.mutex);
    folder->hasMarker = hasMarkers;
    folder->isLocal = !hasMarkers;
}

/// Get all bytes of a file that is about to be removed.
void FileSystem::loadForReaders(FileContents& contents, const std::string& key)
{
    try
    {
        contents.load(key);
    }
    catch (const Failure& failure)
    {
        // Another program has replaced it; those who read it see that.
        failure.error() == ESTALE ? void() : throw;
    }
}

void FileSystem::removeFile(NodeId folderId, const std::string& name)
{
    const Reference reference = hold(folderId, name);
    const NodePtr& node = reference.require();
    const NodePtr folder = find(folderId);
    if (node->isFolder)
    {
        throw Failure(EISDIR, clients::quoted(name) + " is a folder");
    }
    const Tree::Change change(m_tree, {node});
    bool isOpen = false;
    std::string key, folderKey;
    {
        const std::lock_guard lock(m_tree.mutex);
        isOpen = node->opens > 0;
        key = Tree::keyOf(*node);
        folderKey = Tree::keyOf(*folder);
    }
    node->contents->settle(key);
    if (!node->contents->isNew())
    {
        isOpen ? loadForReaders(*node->contents, key) : void();
        keepFolder(folder, folderKey);
        m_store.remove(key);
    }
    node->contents->remove();
    const std::lock_guard lock(m_tree.mutex);
    noteOwnChange(*folder, name, std::nullopt);
    folder->modified = folder->changed = now();
    m_tree.detach(*node);
}

void FileSystem::removeFolder(NodeId folderId, const std::string& name)
{
    const Reference reference = hold(folderId, name);
    const NodePtr& node = reference.require();
    const NodePtr folder = find(folderId);
    if (!node->isFolder)
    {
        throw Failure(ENOTDIR, clients::quoted(name) + " is a file");
    }
    const Tree::Change change(m_tree, {node});
    std::string key, folderKey;
    bool isEmpty = true;
    {
        const std::lock_guard lock(m_tree.mutex);
        key = Tree::keyOf(*node);
        folderKey = Tree::keyOf(*folder);
        isEmpty = std::ranges::none_of(node->children, [](const auto& child) { return isUnsent(*child.second); });
    }
    if (!isEmpty || m_store.hasEntries(key))
    {
        throw Failure(ENOTEMPTY, clients::quoted(key) + " is not empty");
    }
    keepFolder(folder, folderKey);
    m_store.remove(key);
    const std::lock_guard lock(m_tree.mutex);
    noteOwnChange(*folder, name, std::nullopt);
    folder->modified = folder->changed = now();
    for (const auto children = node->children; const auto& [childName, child] : children)
    {
        m_tree.detach(*child); // which somebody else has removed
    }
    m_tree.detach(*node);
}

void FileSystem::rename(
    NodeId folderId, const std::string& name, NodeId newFolderId, const std::string& newName, bool replaces)
{
    const NodePtr folder = find(folderId);
    const NodePtr newFolder = find(newFolderId);
    const Reference reference = hold(folderId, name);
    const Reference targetReference = hold(newFolderId, newName);
    const NodePtr& node = reference.require();
    const NodePtr& target = targetReference.node();
    if (target == node)
    {
        return;
    }
    if (target && !replaces)
    {
        throw Failure(EEXIST, clients::quoted(newName) + " exists");
    }
    if (target && target->isFolder != node->isFolder)
    {
        throw Failure(target->isFolder ? EISDIR : ENOTDIR, clients::quoted(newName) + " is of another kind");
    }
    {
        const std::lock_guard lock(m_tree.mutex);
        if (isAbove(node.get(), newFolder.get()))
        {
            throw Failure(EINVAL, "a folder cannot be moved into itself");
        }
        if (isAbove(target.get(), folder.get()) && target)
        {
            throw Failure(ENOTEMPTY, clients::quoted(newName) + " is not empty");
        }
    }
    const Tree::Change change(m_tree, {node, target});
    std::string key, newKey, folderKey;
    bool isTargetOpen = false, hasUnsent = false;
    {
        const std::lock_guard lock(m_tree.mutex);
        key = Tree::keyOf(*node);
        folderKey = Tree::keyOf(*folder);
        newKey = Tree::keyOf(*newFolder, newName);
        isTargetOpen = target && target->opens > 0;
        hasUnsent =
            target && std::ranges::any_of(target->children, [](const auto& child) { return isUnsent(*child.second); });
    }
    names::check(newName, newKey);
    if (node->isFolder)
    {
        if (target && (hasUnsent || m_store.hasEntries(newKey + '/')))
        {
            throw Failure(ENOTEMPTY, clients::quoted(newName) + " is not empty");
        }
        keepFolder(folder, folderKey);
        moveFolder(node, key, newKey + '/');
    }
    else
    {
        node->contents->settle(key);
        target ? target->contents->settle(newKey) : void();
        auto replaced = target ? target->contents->stored() : std::nullopt;
        if (target && !replaced && !target->contents->isNew())
        {
            replaced = m_store.open(newKey);
        }
        isTargetOpen && !target->contents->isNew() ? loadForReaders(*target->contents, newKey) : void();
        if (node->contents->isNew())
        {
            node->contents->movedUnsent(newKey, replaced);
        }
        else
        {
            keepFolder(folder, folderKey);
            moveFile(node, key, newKey);
        }
        target ? target->contents->remove() : void();
    }
    const std::lock_guard lock(m_tree.mutex);
    noteOwnChange(*folder, name, std::nullopt);
    noteOwnChange(
        *newFolder, newName, Found{node->isFolder, node->contents ? node->contents->size() : 0, std::nullopt, ""});
    folder->modified = folder->changed = newFolder->modified = newFolder->changed = node->changed = now();
    m_tree.move(*node, *newFolder, newName);
    node->hasOwnAttributes = true; // the copy has another time
}

void FileSystem::moveFile(const NodePtr& node, const std::string& source, const std::string& target)
{
    bool isOpen = false;
    {
        const std::lock_guard lock(m_tree.mutex);
        isOpen = node->opens > 0;
    }
    node->contents->isUnsent() ? send(node, source) : void(); // or the copy would be a version that nobody wanted there
    const MountedStore::Copy copy = m_store.copy(source, target);
    node->contents->moved(target, copy, !isOpen); // first, for the case that the process is killed
    try
    {
        m_store.removeVersion(source, copy.sourceTag);
    }
    catch (...)
    {
        warn(fmt::format("{} was moved to {}, but deleting it failed and will be tried again: {}",
            clients::quoted(source), clients::quoted(target), Failure::current().what()));
        m_moves.deleteLater(source, target, copy);
    }
}

void FileSystem::moveFolder(const NodePtr& node, const std::string& source, const std::string& target)
{
    const auto copies = m_moves.move(source, target, m_settings.renameLimit);
    std::vector<std::pair<NodePtr, std::string>> files; // that are known here, with their keys
    const auto collect = [&](const auto& self, const Node& folder, const std::string& key) -> void
    {
        for (const auto& [name, child] : folder.children)
        {
            const std::string childKey = key + names::toSegment(name);
            child->isFolder ? self(self, *child, childKey + '/') : void(files.emplace_back(child, childKey));
        }
    };
    {
        const std::lock_guard lock(m_tree.mutex);
        collect(collect, *node, target);
    }
    for (const auto& [file, key] : files)
    {
        std::unique_lock lock(m_tree.mutex);
        const bool isOpen = file->opens > 0;
        lock.unlock();
        const auto copy = copies.find(key);
        file->contents->isNew()
            ? file->contents->movedUnsent(key, std::nullopt)
            : file->contents->moved(key, copy != copies.end() ? std::optional(copy->second) : std::nullopt, !isOpen);
    }
}

FolderHandle FileSystem::openFolder(NodeId id)
{
    const NodePtr node = find(id);
    if (!node->isFolder)
    {
        throw Failure(ENOTDIR, "it is a file");
    }
    const std::lock_guard lock(m_tree.mutex);
    ++node->opens;
    return {node, {}, false};
}

void FileSystem::list(FolderHandle& folder, bool again)
{
    if (folder.isListed && !again)
    {
        return;
    }
    const Tree::Use use(m_tree, folder.node);
    Node& node = *folder.node;
    std::unique_lock lock(m_tree.mutex);
    if (Node::Clock::now() >= node.listedUntil)
    {
        const std::uint64_t before = m_lastChange;
        ++node.requests;
        lock.unlock();
        Listing listing;
        try
        {
            listing = m_store.list(use.key());
        }
        catch (...)
        {
            lock.lock();
            endRequest(node);
            throw;
        }
        lock.lock();
        for (const auto& [name, own] : node.ownChanges)
        {
            own.sequence > before ? void(listing.entries.erase(name)) : void();
            own.sequence > before&& own.result ? void(listing.entries.emplace(name, *own.result)) : void();
        }
        endRequest(node);
        node.listed = std::move(listing.entries);
        node.hasMarker = node.hasMarker || listing.hasMarker;
        node.listedUntil = Node::Clock::now() + m_settings.attributeTimeout;
    }
    folder.entries.clear();
    for (const auto& [name, found] : node.listed)
    {
        const NodePtr child = childOf(node, name);
        const bool isOther = child && isUnsent(*child) && child->isFolder != found.isFolder;
        isOther ? void() : folder.entries.push_back({name, found});
    }
    for (const auto& [name, child] : node.children)
    {
        const auto known = node.listed.find(name);
        if (isUnsent(*child) && (known == node.listed.end() || known->second.isFolder != child->isFolder))
        {
            folder.entries.push_back({name, {child->isFolder, 0, std::nullopt, ""}});
        }
    }
    folder.isListed = true;
}

std::optional<Attributes> FileSystem::lookup(const FolderHandle& folder, const FolderHandle::Entry& entry)
{
    const std::lock_guard lock(m_tree.mutex);
    NodePtr node = childOf(*folder.node, entry.name);
    if (!node || (Node::Clock::now() >= node->expires && !isUnsent(*node)))
    {
        if (Node::Clock::now() >= folder.node->listedUntil)
        {
            return std::nullopt; // may have been removed since
        }
        const auto listed = folder.node->listed.find(entry.name);
        node = listed == folder.node->listed.end() ? nullptr : apply(*folder.node, entry.name, listed->second);
    }
    return node ? std::optional(reference(*node)) : std::nullopt;
}

void FileSystem::release(const FolderHandle& folder) noexcept
{
    const std::lock_guard lock(m_tree.mutex);
    --folder.node->opens;
    m_tree.release(folder.node);
}

/// Requires the lock of the tree.
NodePtr FileSystem::ensureFolder(const NodePtr& folder, const std::string& name)
{
    NodePtr node = childOf(*folder, name);
    if (!node || !node->isFolder)
    {
        node = m_tree.add(*folder, name, true, nullptr);
        node->mode = m_settings.folderMode;
        node->modified = node->changed = now();
    }
    return node;
}

void FileSystem::recover()
{
    m_moves.resume();
    for (const UnsentFile& file : m_unsent.recover())
    {
        try
        {
            recover(file);
        }
        catch (...) // others can be recovered
        {
            warn(fmt::format("{} was not stored, and is left for the next mount: {}", clients::quoted(file.key),
                Failure::current().what()));
        }
    }
    m_retryChanged.notify_all();
}

void FileSystem::recover(const UnsentFile& file)
{
    if (!std::filesystem::exists(m_unsent.pathOf(file.id)))
    {
        warn(clients::quoted(file.key) + " was not stored, and what was written to it is lost");
        m_unsent.forget(file.id);
        return;
    }
    auto contents = std::make_unique<FileContents>(m_store, m_unsent, file);
    if (!file.isOfThisBoot)
    {
        keepConflict(*contents, file.key,
            clients::quoted(file.key) + " was not stored when the machine stopped, so it may be incomplete");
        return;
    }
    std::unique_lock lock(m_tree.mutex);
    NodePtr folder = m_tree.root();
    std::size_t begin = 0;
    for (std::size_t end = 0; (end = file.key.find('/', begin)) != std::string::npos; begin = end + 1)
    {
        folder = ensureFolder(folder, names::fromSegment(std::string_view(file.key).substr(begin, end - begin)));
    }
    const std::string name = names::fromSegment(std::string_view(file.key).substr(begin));
    if (childOf(*folder, name)) // a rename was recorded in part
    {
        lock.unlock();
        keepConflict(*contents, file.key, clients::quoted(file.key) + " was left unsent twice");
        return;
    }
    const NodePtr node = m_tree.add(*folder, name, false, std::move(contents));
    node->mode = m_settings.fileMode;
    node->modified = node->changed = now();
    const std::lock_guard retryLock(m_retryMutex);
    m_failed.emplace(node->id, node);
    m_isHurried = true;
}

/// Requires the lock of the tree.
std::vector<NodePtr> FileSystem::unsentNodes()
{
    std::vector<NodePtr> unsent;
    const auto collect = [&](const auto& self, const Node& folder) -> void
    {
        for (const auto& [name, child] : folder.children)
        {
            child->isFolder ? self(self, *child) : child->contents->isUnsent() ? unsent.push_back(child) : void();
        }
    };
    collect(collect, *m_tree.root());
    return unsent;
}

std::vector<Unsent> FileSystem::unsent()
{
    const std::lock_guard lock(m_tree.mutex);
    std::vector<Unsent> result;
    for (const NodePtr& node : unsentNodes())
    {
        result.push_back({Tree::keyOf(*node), node->contents->size(), node->sending > 0});
    }
    return result;
}

std::vector<NotStored> FileSystem::sendAll()
{
    std::unique_lock treeLock(m_tree.mutex);
    const auto unsent = unsentNodes();
    treeLock.unlock();
    std::mutex mutex;
    std::vector<NotStored> failed;
    inParallel(unsent.size(),
        [&](std::size_t index)
        {
            try
            {
                sync({unsent[index]});
            }
            catch (...) // was logged
            {
                const Failure failure = Failure::current();
                const std::scoped_lock lock(m_tree.mutex, mutex);
                failure.error() == ESTALE
                    ? void() // a conflict
                    : failed.push_back({Tree::keyOf(*unsent[index]),
                          fmt::format("{}; the next mount of this store tries again", failure.what())});
            }
        });
    const std::lock_guard lock(m_conflictMutex);
    failed.insert(failed.end(), m_conflicts.begin(), m_conflicts.end());
    return failed;
}

void FileSystem::retry(const NodePtr& node)
{
    {
        const std::scoped_lock lock(m_tree.mutex, m_retryMutex);
        if (node->opens > 0 || m_isEnding)
        {
            m_failed.emplace(node->id, node); // it may be half written, and is sent when it is closed
            return;
        }
    }
    try
    {
        sync({node});
    }
    catch (const std::exception&) // was logged
    {
    }
}

/// Try again to store what could not be stored.
void FileSystem::retry()
{
    std::unique_lock lock(m_retryMutex);
    for (;;)
    {
        m_retryChanged.wait_for(lock, retryInterval, [this] { return m_isEnding || m_isHurried; });
        if (m_isEnding)
        {
            return;
        }
        m_isHurried = false;
        const auto failed = std::exchange(m_failed, {});
        lock.unlock();
        m_moves.resume();
        for (const auto& [id, node] : failed)
        {
            retry(node);
        }
        lock.lock();
    }
}

} // namespace storage::mount
