// The same work done plainly over LMDB, for MirrorBench to compare with.
#pragma once

#include <string>
#include <vector>

#include "bench/mirror/MirrorWorkload.h"

namespace Bench {

// Processor seconds for mirroring all of these configured and published routes in the order in which they stand here:
// for each its published entry is looked up, the VRF's id mapped, its cached prefix sought in the same trie, the
// configured route looked up and written among the kernel's. Queues, room, yielding and being followed are left out.
// Throws std::runtime_error when not all were mirrored.
double mirrorOverLmdb(const std::string& directory, const std::vector<Routing::Rib::Route>& routes);
// The same in one walk over the published routes.
double mirrorWalkOverLmdb(const std::string& directory, const std::vector<Routing::Rib::Route>& routes);

}  // namespace Bench
