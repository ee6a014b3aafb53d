#pragma once

#include "ContentFiles.hpp"
#include "Database.hpp"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>

namespace storage::clients::local
{

/// Bytes of an object that lie in one place: in a file, or here.
struct Segment
{
    std::uint64_t size = 0;
    std::string bytes; // all of them, if path is empty
    FileHandle file;
    std::filesystem::path path;
    std::uint64_t offset = 0; // of the first one in the file
};

/// Hand over the bytes [offset, end) of one version of an object, segment by segment and in order.
///
/// No transaction is open while `take` runs, so it may take its time. A version that is replaced meanwhile stays
/// readable to the end if the range touches no more than a handful of parts; the files of these are open by then.
/// @return false: the version was replaced before anything was handed over
/// @throws StoreError also when it was replaced later, or its bytes are damaged
bool readSegments(Database& database, const ContentFiles& files, std::int64_t object, std::uint64_t offset,
    std::uint64_t end, const std::function<void(Segment&)>& take);

} // namespace storage::clients::local
