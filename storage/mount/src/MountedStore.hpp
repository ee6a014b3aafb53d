#pragma once

#include "PartStream.hpp"
#include "Time.hpp"
#include "UploadAhead.hpp"

#include <storage/clients/common/ObjectCopier.hpp>
#include <storage/clients/common/ObjectUploader.hpp>
#include <storage/clients/common/PinnedVersions.hpp>
#include <storage/clients/common/WriteConditions.hpp>
#include <storage/cloudprovider/CloudClient.hpp>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace storage::mount
{

/// One version of an object.
struct ObjectVersion
{
    std::string tag;        ///< cloudprovider::ObjectInfo::tag
    std::uint64_t size = 0; ///< bytes

    bool operator==(const ObjectVersion&) const = default;
};

/// What the store has under a name.
struct Found
{
    bool isFolder = false;
    std::uint64_t size = 0;       ///< bytes of a file
    std::optional<Time> modified; ///< nullopt: the store does not say
    std::string tag;              ///< of a file; empty: not known, as in listings
};

/// A listing of a folder, without what is in the folders inside.
struct Listing
{
    std::map<std::string, Found> entries; ///< by name, see Names.hpp
    bool hasMarker = false;               ///< the folder has an object of its own, so it may be empty
};

/// The requests of a mount, for objects and folders by key. The key of a folder ends in "/", that of the root is empty.
///
/// Any thread may call any operation at any time. Each blocks until the store has responded. Unless it says something
/// else, it throws what the store's client throws.
class MountedStore
{
public:
    /// @param client    must be able to tell its PinnedVersions and to take WriteConditions
    /// @param partSize  bytes of a new part. A smaller file is stored in one piece. Most stores copy no smaller parts
    ///                  than the default
    /// @throws Failure  ENOTSUP if the client is not able to do that
    explicit MountedStore(std::shared_ptr<cloudprovider::CloudClient> client, std::uint64_t partSize = 5U << 20);

    /// Look for a file or a folder, with two requests at the same time. A folder hides a file with the same name.
    ///
    /// @param key  of the file; not empty
    std::optional<Found> find(const std::string& key);

    /// @param folder  its key
    Listing list(const std::string& folder);

    /// Return the keys that begin with that of a folder, in ascending order, at most about `maxKeys`.
    std::vector<std::string> keysBelow(const std::string& folder, std::size_t maxKeys);

    /// Whether there is any key below a folder, besides its own.
    bool hasEntries(const std::string& folder);

    /// Return the version that is stored now, which read() will then read.
    ///
    /// @throws ResourceNotFoundException
    ObjectVersion open(const std::string& key);

    /// Read bytes [offset, offset + size) of a version.
    ///
    /// @return false: the store has another version now, or none
    bool read(
        const std::string& key, const ObjectVersion& version, std::uint64_t offset, char* target, std::size_t size);

    /// A new version of a file.
    struct Change
    {
        std::uint64_t size = 0; ///< bytes of the new version
        std::uint64_t kept = 0; ///< the old version's bytes from here on do not count any more
        /// Whether any of the bytes [offset, offset + size) differ from those of the old version. Not called beyond
        /// `kept`.
        std::function<bool(std::uint64_t offset, std::uint64_t size)> isChanged;
        std::uint64_t changed = 0;    ///< about how many bytes differ
        ReadBytes read;               ///< of the new version
        UploadAhead* ahead = nullptr; ///< what has been sent already
    };

    using Condition = std::unique_ptr<clients::WriteConditions::Condition>;

    /// Let store() and remove() of a key fail as long as the result lives, unless the store has this version.
    ///
    /// @param before  nullopt: there must be no object
    Condition require(const std::string& key, const std::optional<ObjectVersion>& before);

    /// Begin to send a file that is still being written.
    std::unique_ptr<UploadAhead> uploadAhead(const std::string& key);

    /// Bytes of its parts: twice the usual ones, for half the requests.
    std::uint64_t partSizeAhead() const { return 2 * m_partSize; }

    /// Store a new version of a file: all of it or nothing.
    ///
    /// @param before  the version that require() was called with; its result is to be kept after a failure, until
    ///                another call has succeeded: only then this recognises that the first one has taken effect
    /// @return the new version
    /// @throws Failure  ESTALE if the store has another version than `before`; nothing has changed
    ObjectVersion store(const std::string& key, const std::optional<ObjectVersion>& before, const Change& change);

    /// Store the marker of a folder. @param folder  its key
    void createMarker(const std::string& folder);

    bool isThere(const std::string& key);

    void remove(const std::string& key);

    /// Remove an object if it has this version. @return false: it has another one, or is not there
    bool removeVersion(const std::string& key, const std::string& tag);

    /// An object and its copy.
    struct Copy
    {
        std::string sourceTag; ///< of the version that was copied
        ObjectVersion target;
    };

    /// Copy an object, inside the store if it can do that.
    Copy copy(const std::string& source, const std::string& target);

    /// Return two objects with the same bytes. @return nullopt: they differ, or one of them is not there
    std::optional<Copy> findCopy(const std::string& source, const std::string& target);

private:
    void write(const std::string& key, const std::optional<ObjectVersion>& before, const Change& change);
    void writeParts(const std::string& key, const Change& change, const std::vector<cloudprovider::PartInfo>& stored);
    bool unlessChanged(
        const std::string& key, const std::optional<ObjectVersion>& version, const std::function<void()>& call);
    bool isStored(const std::string& key, const std::optional<ObjectVersion>& version);
    ObjectVersion versionOf(const std::string& key);

    const std::shared_ptr<cloudprovider::CloudClient> m_client;
    const std::uint64_t m_partSize;
    clients::PinnedVersions& m_versions;
    clients::WriteConditions& m_conditions;
    clients::ObjectUploader* const m_uploader; // null: the store has none, like the next one
    clients::ObjectCopier* const m_copier;
};

} // namespace storage::mount
