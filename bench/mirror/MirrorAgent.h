// The measured process of MirrorBench: KernelRouteSm and nothing else of the agent, on its real tables, event loop and
// trace.
//
// It works only when it is told to: it obeys lines of its standard input until that ends, and answers each with one
// line of JSON: the time it took, the longest that a task or a delivery of changes held the thread, its memory and by
// how much that has grown since it was ready, and how many kernel routes it wrote and deleted and how many keys it
// decided.
//
//   settle          work until nothing is left to do
//   sync            the kernel walk that is due some time after a start; then settle
//   default on|off  a cached default route comes to the first VRF, or goes; then settle
//   flap            a cached /32 of the first VRF comes and goes, time and again; each change is worked off by itself
#pragma once

#include <string>

#include "bench/mirror/MirrorWorkload.h"

namespace Bench {

// Published and configured routes are other processes' tables, which exist.
void runMirrorAgent(const std::string& directory, const MirrorWorkload& workload);

}  // namespace Bench
