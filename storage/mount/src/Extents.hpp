#pragma once

#include <boost/icl/interval_set.hpp>

#include <cstdint>
#include <functional>

namespace storage::mount
{

/// A set of bytes of a file, as ranges [begin, end) that neither overlap nor touch.
using Extent = boost::icl::right_open_interval<std::uint64_t>;
using Extents = boost::icl::interval_set<std::uint64_t, std::less, Extent>;

inline Extent extent(std::uint64_t offset, std::uint64_t size)
{
    return {offset, offset + size};
}

} // namespace storage::mount
