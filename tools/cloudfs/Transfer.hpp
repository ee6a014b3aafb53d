#pragma once

#include "CommandContext.hpp"
#include "LocalSource.hpp"
#include "LocalTarget.hpp"
#include "Progress.hpp"
#include "StorePath.hpp"

#include <foundation/storage/provider/ByteStreamOpenOptions.hpp>

#include <cstddef>
#include <cstdint>
#include <functional>

namespace cloudfs
{

/// Options for a new file, or for new contents of an existing one.
inline constexpr fsp::ByteStreamOpenOptions wholeFile{fsp::ByteStreamReadAccess::None, fsp::ByteStreamCreate::IfMissing,
    fsp::ByteStreamTruncate::Discard, fsp::ByteStreamWritePosition::AtOffset};

/// Write everything from the source into a file of the store, starting at byte `offset`, or at the end of the file if
/// the options say so.
///
/// All or nothing: if the source or the store fails or the user interrupts, the file in the store is unchanged.
/// @throws CommandError; interrupt::Interrupted
void upload(const CommandContext& context, const StorePath& path, const fsp::ByteStreamOpenOptions& options,
    std::uint64_t offset, LocalSource& source, Progress& progress);

/// Store everything from the source as a whole file of the store. If the store has an ObjectUploader, this works
/// without the provider's streams and their temporary files; a regular file is read in any order, and must not change
/// until it is stored.
///
/// All or nothing, as above.
/// @throws CommandError; interrupt::Interrupted
void upload(const CommandContext& context, const StorePath& path, LocalSource& source, Progress& progress);

/// Takes the size of a file in bytes, before any of them.
using TakeSize = std::function<void(std::uint64_t size)>;

using Write = std::function<void(const char* data, std::size_t size)>;

/// Read a whole file of the store and pass it on, block by block in order, from any thread but one at a time. If the
/// store has an ObjectDownloader and no cache, this works without the provider's streams and their temporary files.
///
/// @throws CommandError; interrupt::Interrupted; whatever the functions throw
void download(const CommandContext& context, const StorePath& path, const TakeSize& begin, const Write& write,
    Progress& progress);

/// Read a whole file of the store and commit it as a local one. If the store has an ObjectDownloader, but no cache, and
/// the target is a regular file, the bytes arrive in any order.
///
/// @throws CommandError; interrupt::Interrupted
void download(const CommandContext& context, const StorePath& path, const TakeSize& begin, LocalTarget& target,
    Progress& progress);

} // namespace cloudfs
