#pragma once

#include "ContentFiles.hpp"

#include <cstdint>
#include <filesystem>
#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>

namespace storage::clients::local
{

/// Bytes on their way into the store, of which the index knows nothing yet.
class StagedContent
{
public:
    /// @param size    bytes that will be appended, exactly
    /// @param inFile  whether they go to a file; else they are held here for the index
    StagedContent(ContentFiles& files, std::uint64_t size, bool inFile);

    /// Take all `size` bytes of a stream.
    ///
    /// @param key  for the message when the stream ends early
    void receive(const std::string& key, std::istream& content);

    void append(std::string_view bytes);
    void append(
        const FileHandle& from, const std::filesystem::path& fromPath, std::uint64_t offset, std::uint64_t size);

    /// Bring what was appended to the disk, where there is a file.
    void finish();

    std::uint64_t size() const noexcept { return m_size; }
    const std::string& bytes() const noexcept { return m_bytes; } ///< the content, if it is not in a file
    std::optional<IncomingFile>& file() noexcept { return m_file; }

private:
    const std::uint64_t m_size;
    std::string m_bytes;
    std::optional<IncomingFile> m_file;
};

} // namespace storage::clients::local
