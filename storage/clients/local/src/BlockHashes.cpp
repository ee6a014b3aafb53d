#include "BlockHashes.hpp"

#include <xxhash.h>

#include <algorithm>
#include <new>
#include <utility>

namespace storage::clients::local
{

namespace
{

// The bytes of a hash in the index do not depend on the machine.
std::string_view toBytes(XXH64_hash_t hash, XXH64_canonical_t& bytes)
{
    XXH64_canonicalFromHash(&bytes, hash);
    return {reinterpret_cast<const char*>(bytes.digest), sizeof(bytes.digest)};
}

constexpr std::uint64_t hashSize = sizeof(XXH64_canonical_t);

} // namespace

BlockHasher::BlockHasher()
    : m_state(XXH3_createState())
{
    if (m_state == nullptr)
    {
        throw std::bad_alloc();
    }
    XXH3_64bits_reset(m_state.get());
}

void BlockHasher::Free::operator()(XXH3_state_s* state) const noexcept
{
    XXH3_freeState(state);
}

void BlockHasher::add(const char* bytes, std::uint64_t size)
{
    while (size > 0)
    {
        const std::uint64_t count = std::min(size, m_rest);
        XXH3_64bits_update(m_state.get(), bytes, count);
        bytes += count;
        size -= count;
        m_rest -= count;
        if (m_rest == 0)
        {
            endBlock();
        }
    }
}

std::string BlockHasher::finish()
{
    if (m_rest < hashedBlock)
    {
        endBlock();
    }
    return std::move(m_hashes);
}

void BlockHasher::endBlock()
{
    XXH64_canonical_t bytes;
    m_hashes += toBytes(XXH3_64bits_digest(m_state.get()), bytes);
    XXH3_64bits_reset(m_state.get());
    m_rest = hashedBlock;
}

std::optional<std::uint64_t> findDamagedBlock(
    std::string_view hashes, std::uint64_t first, const char* bytes, std::uint64_t size)
{
    for (std::uint64_t block = first; size > 0; ++block)
    {
        const std::uint64_t count = std::min(size, hashedBlock);
        XXH64_canonical_t hash;
        if (block * hashSize >= hashes.size() ||
            hashes.substr(block * hashSize, hashSize) != toBytes(XXH3_64bits(bytes, count), hash))
        {
            return block;
        }
        bytes += count;
        size -= count;
    }
    return std::nullopt;
}

} // namespace storage::clients::local
