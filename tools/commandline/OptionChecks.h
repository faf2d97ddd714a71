// What the texts of options are checked for before any command runs: a number that is none, or one out of its range, is
// refused with a line that names the option and the range. The command line's own checks let through what they cannot
// compare (nan), and take an empty text for 0.
#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <limits>

namespace Tools {

// A whole number, `least` to `most`.
CLI::Validator wholeNumber(std::uint64_t least, std::uint64_t most = std::numeric_limits<std::uint64_t>::max());
// A number, `least` to `most`, both finite.
CLI::Validator realNumber(double least, double most);

// The ranges of times and rates: far beyond what anybody wants, and near enough to count with.
inline constexpr double leastSeconds = 0.001;
inline constexpr double mostSeconds = 1e9;
inline constexpr double mostPerSecond = 1e9;

// Has every named option of the command and its subcommands refuse the empty text: it names and numbers nothing. Hidden
// subcommands are left alone.
void refuseEmptyValues(CLI::App& command);

}  // namespace Tools
