#pragma once

#include <CLI/CLI.hpp>

#include <cstdint>

/// What the parser accepts as values of options. The messages name the limits; the help does not show them.
namespace cloudfs
{

/// Accept integers in [min, max].
CLI::Validator numberBetween(std::uint64_t min, std::uint64_t max);

/// Accept a number and a unit, s, m, h or d, of at most 36,500 days, and replace the text by the number of seconds.
CLI::Validator ageInSeconds();

} // namespace cloudfs
