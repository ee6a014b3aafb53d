#pragma once

#include "BlockHashes.hpp"
#include "ContentFiles.hpp"
#include "Segments.hpp"

#include <cstdint>
#include <filesystem>
#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>

namespace storage::clients::local
{

/// The bytes of an object or a part that is being received, before they are added to the index.
class StagedContent
{
public:
    /// @param size    the number of bytes that will be appended
    /// @param inFile  write them to a file; else keep them in memory, to be stored inline in the index
    StagedContent(ContentFiles& files, std::uint64_t size, bool inFile);

    /// Read all `size` bytes from a stream, and sync the file, if there is one.
    ///
    /// @param key  for the error message when the stream ends early
    void receive(const std::string& key, std::istream& content);

    /// Append the bytes of a segment, after checking them.
    void append(const Segment& segment);

    /// Sync the file, if there is one. To be called after the last append().
    void sync();

    std::uint64_t size() const noexcept { return m_size; }
    const std::string& bytes() const noexcept { return m_bytes; } ///< all bytes, if they are not in a file
    std::optional<IncomingFile>& file() noexcept { return m_file; }

    /// Return the hashes of the blocks of the file. To be called once, after the last append().
    std::string hashes() { return m_hasher.finish(); }

private:
    const std::uint64_t m_size;
    std::string m_bytes;
    std::optional<IncomingFile> m_file;
    BlockHasher m_hasher; // of the file
};

} // namespace storage::clients::local
