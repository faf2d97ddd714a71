// The measured processes of HardwareBench: one with HwRouteSm and nothing else of the agent, on its real tables, event
// loop and trace, and one that keeps the same time slices plainly.
//
// Each works only when it is told to: it obeys lines of its standard input until that ends, and answers each with one
// line of JSON: the time it took, the longest that a task or a delivery of changes held the thread, its memory and by
// how much that has grown since it was ready, and a checksum over the time slices that must be the same for both.
//
//   settle         work until nothing is left to do
//   scan           scan all hardware routes and, at or above the low level, age them
//   levels L T     the low level becomes L percent, every idle time T seconds
//   serve [scan]   work until the next line comes, which is used up; with `scan` one scan follows the other
//   uncache        the trie gets the workload's other prefixes and loses them again; then settle
//
// The plain one knows settle (it files what the hardware table holds) and scan.
#pragma once

#include <string>

#include "bench/hardware/HardwareWorkload.h"

namespace Bench {

// SFE routes and hit bits are other processes' tables, which exist.
void runHardwareAgent(const std::string& directory, const HardwareWorkload& workload);
void runPlainSlices(const std::string& directory);

}  // namespace Bench
