#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace storage::clients
{

/// The version that a key is read from.
struct PinnedVersion
{
    std::string tag;        ///< cloudprovider::ObjectInfo::tag
    std::uint64_t size = 0; ///< bytes of the object
    std::uint64_t pin = 0;  ///< the same until the key is pinned to another version; it may change at other times, too

    bool operator==(const PinnedVersion&) const = default;
};

/// An interface that a client implements besides CloudClient if it reads each key from the version that was there when
/// the key was opened. A caller that keeps bytes of objects looks for it with findInterface().
class PinnedVersions
{
public:
    virtual ~PinnedVersions() = default;

    /// Return the version that getObjectRange() of this key would read now. Does not block. Any thread may call this.
    ///
    /// If two calls return the same, getObjectRange() has read this version and no other in between.
    /// @return nullopt: the client was told no version, or it may have replaced or deleted it since, so that only the
    ///         store knows whether the key can be read
    virtual std::optional<PinnedVersion> pinnedVersion(const std::string& key) = 0;
};

} // namespace storage::clients
