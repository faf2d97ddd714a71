// The same job as the agent's load, done the plain way over LMDB by one process: no agent, no event loop.
#pragma once

#include <string>

#include "bench/pipeline/PipelineWorkload.h"

namespace Bench {

struct RivalFigures {
  double loadSeconds = 0;  // of the processor, from the RIB's databases to the published ones
  std::size_t routes = 0;
  std::size_t adjacencies = 0;
};

// Walks the RIB's routes; reads each route's via; finds the identifier of its next hops in an ordered map of their
// bytes, or gives them one and writes their adjacency; writes the route. Entries have the same bytes as the agent's
// tables. It resolves no next hop, counts no reference, follows no change and yields to nobody.
RivalFigures runPipelineRival(const std::string& directory, const Tools::RibChange& rib);

}  // namespace Bench
