#pragma once

#include <cstdint>

/// How important a log record is. Each is one bit, so that a logger enables any set of them with one mask.
namespace foundation::log::severity
{

inline constexpr std::uint32_t detail = 2;    ///< entries into functions, and tracing
inline constexpr std::uint32_t progress = 4;  ///< milestones of long work
inline constexpr std::uint32_t error = 16;    ///< caught exceptions
inline constexpr std::uint32_t warning = 512; ///< faults that were worked around

/// What a logger lets through unless told otherwise.
inline constexpr std::uint32_t defaultMask = error | warning;

} // namespace foundation::log::severity
