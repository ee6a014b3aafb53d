#pragma once

#include "MemoryBudget.hpp"
#include "ReadStreams.hpp"

#include <storage/clients/common/Content.hpp>
#include <storage/clients/common/VersionPins.hpp>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace storage::clients
{

/// A range that is prefetched, from the decision to fetch it until it has been read.
struct FetchedBlock
{
    enum class State
    {
        Queued,
        Fetching,
        Ready,
        Gone ///< failed or dropped: a call that waits for it must request its range itself
    };

    FetchedBlock(const ByteRange& wanted, MemoryBudget::Lease buffer)
        : range(wanted)
        , bytes(std::move(buffer))
    {
    }

    bool isSettled() const { return state == State::Ready || state == State::Gone; }

    const ByteRange range;
    State state = State::Queued;
    unsigned readers = 0;      ///< calls that will read it
    MemoryBudget::Lease bytes; ///< written by the thread that set Fetching; constant once Ready
};

using FetchedBlockPtr = std::shared_ptr<FetchedBlock>;
using FetchedBlocks = std::vector<FetchedBlockPtr>;

/// One version of an object: its readers, and the blocks of it that are in memory. Blocks do not overlap.
///
/// Not safe for concurrent calls: the owner's lock guards everything, including the states of the blocks.
class FetchedObject
{
public:
    FetchedObject(std::string key, Version version)
        : m_key(std::move(key))
        , m_version(std::move(version))
    {
    }

    const std::string& key() const noexcept { return m_key; }
    const Version& version() const noexcept { return m_version; }
    std::uint64_t size() const noexcept { return m_version.size; }
    ReadStreams& streams() noexcept { return m_streams; }

    /// Add blocks for those bytes in [from, to) that no block has, each of at most `piece` bytes.
    ///
    /// @return the new blocks, all Queued, in order; they end early when there is no buffer left
    FetchedBlocks addMissing(std::uint64_t from, std::uint64_t to, std::uint64_t piece, MemoryBudget& budget);

    /// The first byte at or after `from` that no block has.
    std::uint64_t firstMissing(std::uint64_t from) const;

    /// The blocks that together have all bytes of the range, in order; empty if a byte is missing.
    FetchedBlocks blocksOf(const ByteRange& range) const;

    /// Drop the blocks that no window overlaps and no call reads.
    void trim();

    /// Drop all blocks, also those that a call waits for.
    void drop();

    /// Drop a block whose download failed, and close all windows.
    void fail(FetchedBlock& block);

private:
    using Blocks = std::map<std::uint64_t, FetchedBlockPtr>; // by offset

    Blocks::const_iterator blockAt(std::uint64_t offset) const;

    const std::string m_key;
    const Version m_version;
    ReadStreams m_streams;
    Blocks m_blocks;
};

} // namespace storage::clients
