#include "FetchedObject.hpp"

#include <algorithm>
#include <iterator>
#include <utility>

namespace storage::clients
{

FetchedBlocks FetchedObject::addMissing(std::uint64_t from, std::uint64_t to, std::uint64_t piece, MemoryBudget& budget)
{
    FetchedBlocks added;
    for (std::uint64_t at = firstMissing(from); at < to; at = firstMissing(at))
    {
        const auto next = m_blocks.upper_bound(at);
        const std::uint64_t end = next == m_blocks.end() ? to : std::min(to, next->first);
        const ByteRange range{at, std::min(piece, end - at)};
        auto buffer = budget.tryAcquireForPrefetch(range.size);
        if (!buffer)
        {
            break;
        }
        auto block = std::make_shared<FetchedBlock>(range, std::move(*buffer));
        m_blocks.emplace(at, block);
        added.push_back(std::move(block));
    }
    return added;
}

std::uint64_t FetchedObject::firstMissing(std::uint64_t from) const
{
    for (auto block = blockAt(from); block != m_blocks.end(); block = blockAt(from))
    {
        from = block->second->range.offset + block->second->range.size;
    }
    return from;
}

FetchedBlocks FetchedObject::blocksOf(const ByteRange& range) const
{
    FetchedBlocks blocks;
    const std::uint64_t end = range.offset + range.size;
    if (firstMissing(range.offset) >= end)
    {
        for (auto block = blockAt(range.offset); block != m_blocks.end() && block->first < end; ++block)
        {
            blocks.push_back(block->second);
        }
    }
    return blocks;
}

void FetchedObject::trim()
{
    for (auto block = m_blocks.begin(); block != m_blocks.end();)
    {
        if (block->second->readers == 0 && !m_streams.overlapsWindow(block->second->range))
        {
            block->second->state = FetchedBlock::State::Gone;
            block = m_blocks.erase(block);
        }
        else
        {
            ++block;
        }
    }
}

void FetchedObject::drop()
{
    for (const auto& [offset, block] : m_blocks)
    {
        block->state = FetchedBlock::State::Gone;
    }
    m_blocks.clear();
}

void FetchedObject::fail(FetchedBlock& block)
{
    block.state = FetchedBlock::State::Gone;
    m_blocks.erase(block.range.offset);
    m_streams.closeAll();
    trim();
}

FetchedObject::Blocks::const_iterator FetchedObject::blockAt(std::uint64_t offset) const
{
    const auto next = m_blocks.upper_bound(offset);
    if (next == m_blocks.begin())
    {
        return m_blocks.end();
    }
    const auto block = std::prev(next);
    const bool isInside = offset - block->first < block->second->range.size;
    return isInside ? block : m_blocks.end();
}

} // namespace storage::clients
