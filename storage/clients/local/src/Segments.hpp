#pragma once

#include "ContentFiles.hpp"
#include "Database.hpp"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>

namespace storage::clients::local
{

/// Consecutive bytes of an object from one stored part: in a file, or in memory if they were inline in the index.
struct Segment
{
    std::uint64_t size = 0;
    std::string bytes; // the bytes, if path is empty
    FileHandle file;
    std::filesystem::path path;
    std::uint64_t offset = 0; // of the first byte in the stored part
    std::uint64_t fileSize = 0;
    std::string hashes; // of the blocks of the file; empty: a version of this program without hashes has stored it
};

/// Pass the bytes of a segment to `take`, after checking them.
///
/// @throws StoreError before the first byte of a damaged block is passed
void readSegment(const Segment& segment, const std::function<void(const char* bytes, std::uint64_t size)>& take);

/// Pass the bytes [offset, end) of one version of an object to `take`, one segment at a time and in order.
///
/// No transaction is open while `take` runs, so it may be slow. When the object is replaced meanwhile, a range of up to
/// 16 parts is still read to its end: all its files are open before `take` is called.
/// @param object  the id of the version
/// @return false: the version was replaced before `take` was called
/// @throws StoreError also when the version was replaced later, or its bytes are damaged
bool readSegments(Database& database, const ContentFiles& files, std::int64_t object, std::uint64_t offset,
    std::uint64_t end, const std::function<void(const Segment&)>& take);

} // namespace storage::clients::local
