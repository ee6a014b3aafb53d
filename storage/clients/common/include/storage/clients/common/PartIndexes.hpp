#pragma once

#include <cstddef>
#include <iosfwd>
#include <map>

namespace storage::clients
{

/// A set of part indexes, stored as ranges, so that consecutive indexes need only one entry.
///
/// Memory is bounded: when there are `maxRanges` separate ranges, an index that would need another range is left out,
/// and complete() is false from then on. A plain value; the caller synchronises concurrent changes.
class PartIndexes
{
public:
    static constexpr std::size_t maxRanges = 1024; // scattered changes in a file of 10,000 parts, the maximum of S3

    /// Add one index. Adding it again changes nothing.
    void insert(std::size_t index);

    bool contains(std::size_t index) const;
    bool empty() const noexcept { return m_ranges.empty(); }

    /// False when an index was left out to bound the memory.
    bool complete() const noexcept { return m_complete; }

    bool operator==(const PartIndexes&) const = default;

    /// Print as "0-5,7,9-12", followed by ",..." when not complete().
    friend std::ostream& operator<<(std::ostream& out, const PartIndexes& indexes);

private:
    std::map<std::size_t, std::size_t> m_ranges; // first index -> last index; neither touching nor overlapping
    bool m_complete = true;
};

} // namespace storage::clients
