// TableRivalsBench's other processes, which read what its own one writes.
#pragma once

#include <cstdint>
#include <string>

namespace Bench {

// Looks up in, and walks, what lies in the directory; holds Abseil's maps itself. Obeys lines: "loaded PHASE" (how the
// maps are to be filled: shuffled or ordered), "read PHASE" (the works of bench/rivals/RivalWorks.h), and "spin STORE":
// looks up at full speed until the next line.
void runRivalReader(const std::string& directory, std::uint32_t routes);

// Follows the routes' table and looks up what it is told of. Obeys "serve": until the next line, and then until nothing
// is left to tell; and "report", when it is there. Notes the time of a change in the directory's `Stamp`.
void runRivalFollower(const std::string& directory);

}  // namespace Bench
