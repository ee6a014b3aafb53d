#pragma once

#include "CommandContext.hpp"
#include "LocalSource.hpp"
#include "Progress.hpp"
#include "StorePath.hpp"

#include <foundation/storage/provider/ByteStreamOpenOptions.hpp>

#include <cstddef>
#include <cstdint>
#include <functional>

namespace cloudfs
{

/// A new file, or the whole new contents of an old one.
inline constexpr fsp::ByteStreamOpenOptions wholeFile{fsp::ByteStreamReadAccess::None, fsp::ByteStreamCreate::IfMissing,
    fsp::ByteStreamTruncate::Discard, fsp::ByteStreamWritePosition::AtOffset};

/// Write everything that the source has into a file of the store, beginning at `offset` of the opened stream.
///
/// All or nothing: when the source, the store or the user ends it early, the file in the store stays what it was.
/// @throws CommandError; interrupt::Interrupted
void upload(const CommandContext& context, const StorePath& path, const fsp::ByteStreamOpenOptions& options,
    std::uint64_t offset, LocalSource& source, Progress& progress);

using Sink = std::function<void(const char* data, std::size_t size)>;

/// Read a whole file of the store, in order.
///
/// @throws CommandError; interrupt::Interrupted; whatever the sink throws
void download(const CommandContext& context, const StorePath& path, const Sink& sink, Progress& progress);

} // namespace cloudfs
