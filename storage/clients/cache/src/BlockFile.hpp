#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>

namespace storage::clients
{

/// A sparse file of up to 64 blocks, behind a header with the checksum of each.
///
/// A block is written before its checksum, and the checksum depends on the file's name and the block's position. So
/// whatever a crash or an unlucky copy leaves, a block is either right or not there. Several instances may use one file
/// if they write the same blocks with the same bytes.
class BlockFile
{
public:
    static constexpr std::size_t blocks = 64; // as many as an integer has bits
    static constexpr std::uint64_t headerSize = 4096;

    enum class Mode
    {
        Read,
        Write ///< and create it if it is missing
    };

    /// @param path  whose last segment is the name: 64 characters
    /// @throws std::system_error also if there is no such file
    BlockFile(const std::filesystem::path& path, std::uint64_t blockSize, Mode mode);
    BlockFile(const BlockFile&) = delete;
    BlockFile& operator=(const BlockFile&) = delete;
    ~BlockFile();

    /// Bit n: the file had block n when it was opened. None if the header is not that of this name and block size.
    std::uint64_t present() const noexcept;

    /// Read the first `size` bytes of a block that has no more. @return false: they are not there, or not right
    bool read(std::size_t block, char* target, std::uint64_t size) const;

    /// @throws std::system_error
    void write(std::size_t block, const char* bytes, std::uint64_t size);

    /// Note in the file that it was used now. A failure does not matter.
    void touch() const noexcept;

private:
    struct Identity
    {
        std::uint64_t format = 0;
        std::uint64_t blockSize = 0;
        std::array<char, 64> name{};

        bool operator==(const Identity&) const = default;
    };
    struct Header
    {
        Identity identity;
        std::array<std::uint64_t, blocks> checksums{}; ///< 0: there is no such block
    };
    static_assert(sizeof(Header) <= headerSize);

    std::uint64_t checksum(std::size_t block, const char* bytes, std::uint64_t size) const;
    std::uint64_t offsetOf(std::size_t block) const;
    bool readAt(std::uint64_t offset, void* target, std::uint64_t size) const;
    void writeAt(std::uint64_t offset, const void* bytes, std::uint64_t size);

    Identity m_identity;
    Header m_header; // as it was read when the file was opened
    int m_file;
};

} // namespace storage::clients
