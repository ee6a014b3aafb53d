#pragma once

#include <cstdint>

/// Severities of log records. Each is one bit, so that a mask can enable any set of them.
namespace foundation::log::severity
{

inline constexpr std::uint32_t detail = 2;    ///< function entry and tracing
inline constexpr std::uint32_t progress = 4;  ///< milestones of long work
inline constexpr std::uint32_t error = 16;    ///< caught exceptions
inline constexpr std::uint32_t warning = 512; ///< problems that were worked around

/// The severities that a new logger enables.
inline constexpr std::uint32_t defaultMask = error | warning;

} // namespace foundation::log::severity
