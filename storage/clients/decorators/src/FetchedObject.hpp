#pragma once

#include "BufferPool.hpp"
#include "ReadStreams.hpp"

#include <storage/clients/common/Content.hpp>
#include <storage/cloudprovider/CloudClient.hpp>

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace storage::clients
{

/// A range that is fetched ahead, from the decision until it was read.
struct FetchedBlock
{
    enum class State
    {
        Queued,
        Fetching,
        Ready,
        Gone ///< failed or dropped: whoever waits for it must ask the store
    };

    FetchedBlock(const ByteRange& wanted, BufferPool::Lease buffer)
        : range(wanted)
        , bytes(std::move(buffer))
    {
    }

    bool isSettled() const { return state == State::Ready || state == State::Gone; }

    const ByteRange range;
    State state = State::Queued;
    unsigned readers = 0;    ///< calls that will read it
    BufferPool::Lease bytes; ///< written by the one who set Fetching; constant once Ready
};

using FetchedBlockPtr = std::shared_ptr<FetchedBlock>;

/// What is known of one object, and what of it is held in memory. Blocks do not overlap.
///
/// Not safe for concurrent calls: everything, the blocks' states included, is guarded by the owner's lock.
class FetchedObject
{
public:
    explicit FetchedObject(std::string key)
        : m_key(std::move(key))
    {
    }

    const std::string& key() const noexcept { return m_key; }

    /// Bytes; 0: unknown, and nothing must be fetched.
    std::uint64_t size() const noexcept { return m_size; }

    /// Changes with everything that is forgotten.
    std::uint64_t generation() const noexcept { return m_generation; }

    ReadStreams& streams() noexcept { return m_streams; }

    /// Take note of what the store says that the object is. What was fetched of another one is dropped.
    ///
    /// @param generation  when the store was asked. What was forgotten or learnt since makes the answer doubtful; then
    ///                    nothing is known, unless it is the same as what was learnt.
    void learn(const std::vector<cloudprovider::PartInfo>& parts, std::uint64_t generation);

    /// Drop all blocks, and know nothing until the next learn().
    void forget();

    /// Forget, and do not learn until as many writes have ended: what is fetched during one may be of two versions.
    void beginWrite();
    void endWrite();

    /// Add blocks for those bytes in [from, to) that no block has, each of `piece` bytes at most.
    ///
    /// @return the new blocks, all Queued; they end early when there is no buffer left
    std::vector<FetchedBlockPtr> addMissing(
        std::uint64_t from, std::uint64_t to, std::uint64_t piece, BufferPool& buffers);

    /// The first byte from `from` on that no block has.
    std::uint64_t firstMissing(std::uint64_t from) const;

    /// The blocks that have all bytes of the range, in order; empty when some are missing.
    std::vector<FetchedBlockPtr> blocksOf(const ByteRange& range) const;

    /// Drop the blocks that no window reaches into and no call reads.
    void trim();

    /// Drop one block that has failed, and close all windows.
    void fail(FetchedBlock& block);

private:
    using Blocks = std::map<std::uint64_t, FetchedBlockPtr>; // by offset

    Blocks::const_iterator blockAt(std::uint64_t offset) const;

    const std::string m_key;
    std::uint64_t m_size = 0;
    std::size_t m_tags = 0; // hash of all parts with their tags, of which there may be thousands
    std::uint64_t m_generation = 0;
    unsigned m_writers = 0; // calls under way that change the object
    ReadStreams m_streams;
    Blocks m_blocks;
};

} // namespace storage::clients
