// The agent of PipelineBench: the real one, from its library, in a process that runs nothing else.
#pragma once

#include <string>
#include <vector>

#include "bench/pipeline/PipelineWorkload.h"

namespace Bench {

// Runs an agent on the tables in the directory until SIGTERM. For each target in turn it waits until that many routes
// are published and nothing is left to do, and prints one line of JSON with the time, the memory and the tasks:
//
//   {"event": "settled", "published": 1000000, "at": 12.5, "seconds": 2.5, "memory": {...}, "tasks": [...]}
//
// "at" is the machine's monotonic clock, "seconds" the time since the process was started. After a restart the walk
// over what was published before goes on without pauses from there, and {"event": "walked"} is printed at its end.
void runPipelineAgent(const std::string& directory, const Workload& workload, const std::vector<std::size_t>& targets);

}  // namespace Bench
