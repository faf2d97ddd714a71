// The options by which a command that loads prefixes is told where they come from.
#pragma once

#include <cstdint>
#include <string>

#include "simulator/input/PrefixList.h"

namespace CLI {
class App;
}  // namespace CLI

namespace Tools {

// As the command line gives it.
struct PrefixSource {
  std::string file;            // a list ...
  std::uint64_t generate = 0;  // ... or so many that are made up,
  std::string within;          // as host routes inside this prefix
  std::uint64_t seed = 1;
};

// Adds FILE, --generate, --within and --seed.
void addPrefixSource(CLI::App& command, PrefixSource& source);
// Throws BadText for options that do not go together.
void checkPrefixSource(const PrefixSource& source);
// Reads or makes the prefixes. Throws BadText or RangeError when that is impossible.
PrefixList prefixesFrom(const PrefixSource& source);

}  // namespace Tools
