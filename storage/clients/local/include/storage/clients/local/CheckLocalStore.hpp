#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>

namespace storage::clients
{

/// Something in a local store that is damaged.
struct Damage
{
    enum class Kind
    {
        Object, ///< an object cannot be read as a whole
        Upload, ///< an open upload has lost a part
        Index   ///< the index has damaged pages, or cannot be opened
    };

    Kind kind = Kind::Object;
    std::string key;    ///< of the object or upload; empty for the index
    std::string reason; ///< one clause
    std::string repair; ///< what was done and what is lost; empty: nothing was done
};

struct CheckOptions
{
    /// Remove what is damaged, so that everything left can be read.
    bool repair = false;

    /// Called for each damage, after its repair if that was asked for.
    std::function<void(const Damage&)> report = [](const Damage&) {};

    /// Called at least once for every 256 KiB that are read. Whatever it throws ends the check.
    std::function<void()> progress = [] {};

    /// As in LocalSettings. It also ends the check and the repair of the index, during which progress() is not
    /// called.
    std::function<bool()> interrupted = {};
};

struct CheckResult
{
    std::uint64_t objects = 0;
    std::uint64_t bytes = 0;           ///< of these objects
    std::uint64_t withoutChecksum = 0; ///< objects that are partly stored by version 1 of this program: only their
                                       ///< sizes could be checked
    std::uint64_t damaged = 0;         ///< how often report() was called
    std::uint64_t repaired = 0;        ///< how many of those were repaired
};

/// Read everything in the local store of a directory and compare it with its checksums.
///
/// Other clients may use the store meanwhile. Objects that they change during the check may be left out.
///
/// A repair moves what is damaged into the folder `damaged` of the store:
/// - A damaged object is removed. The file `damaged/OBJECT` gets its bytes as they were found, zeros for those that are
///   missing. OBJECT is the tag that the object had.
/// - A damaged upload is aborted.
/// - A damaged index is replaced by one with everything that can still be read, and the old one is moved into a new
///   folder `damaged/index-NUMBER`. Nobody else may use the store then. Open uploads are lost. Content files that the
///   new index does not name are moved, too.
///
/// @throws as the constructor of LocalClient, but not for a damaged store
/// @throws PermissionDeniedException, UnknownErrorException also when something cannot be read for another reason than
///         damage, for example without descriptors, and when a repair fails, for example on a full disk. Then repairs
///         that were reported have been made.
/// @throws UnknownErrorException also when the check or the repair of the index was interrupted
CheckResult checkLocalStore(const std::filesystem::path& directory, const CheckOptions& options);

} // namespace storage::clients
