#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

struct XXH3_state_s;

namespace storage::clients::local
{

/// A content file has a hash for each block of this many bytes; the last block may be shorter. A read of a range has to
/// read whole blocks. A smaller block would enlarge the index: a part of 5 MiB has 80 hashes of 8 bytes.
constexpr std::uint64_t hashedBlock = 64 * 1024;

/// Calculates the hashes of a content from its bytes. To be used by one thread at a time.
class BlockHasher
{
public:
    BlockHasher();

    void add(const char* bytes, std::uint64_t size);

    /// Return the hashes of all bytes. To be called once, after the last add().
    std::string finish();

private:
    void endBlock();

    struct Free
    {
        void operator()(XXH3_state_s* state) const noexcept;
    };

    const std::unique_ptr<XXH3_state_s, Free> m_state; // of the block that is not complete
    std::uint64_t m_rest = hashedBlock;                // bytes until the block is complete
    std::string m_hashes;
};

/// Check consecutive blocks against the hashes of their content.
///
/// @param first  the number of the first block
/// @param size   a multiple of hashedBlock, unless the last block is the content's last one
/// @return the number of the first block that is damaged
std::optional<std::uint64_t> findDamagedBlock(
    std::string_view hashes, std::uint64_t first, const char* bytes, std::uint64_t size);

} // namespace storage::clients::local
