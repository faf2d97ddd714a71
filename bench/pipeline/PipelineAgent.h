// The agent of PipelineBench: the real one, from its library, in a process that runs nothing else.
#pragma once

#include <string>

#include "bench/pipeline/PipelineWorkload.h"

namespace Bench {

// Runs an agent on the tables in the directory until its standard input ends, and obeys lines of that, one after the
// other, which it answers when they are done:
//
//   settle ROUTES [WAITING]   so many routes are published, and stand wherever else they belong; so many are queued
//                             because they lack something; and nothing else is left to do
//   reconcile                 every table that it writes is reconciled
//   set PATH FIELD VALUE      at once, as `routecache set` does
//   del PATH FIELD
//
// An answer is one line of JSON: {"at": 12.5, "seconds": 2.5, "startSeconds": 0.1, "cpuSeconds": 2.4, "memory": {...},
// "held": {"routeProcessingTask": [0.0041, 0.004], ...}}. "at" is the machine's monotonic clock, "seconds" the time
// since the process was started, of it "startSeconds" until the agent stood and began to work; "cpuSeconds" the
// processor's time since then or, from the second "settle" or "reconcile" on, since the one before; "held" how long
// each task, or the start, held the thread at most in that time, in seconds and processor seconds.
//
// The walks with which a restart ends begin at once: the switch brings nothing that they would have to wait for.
void runPipelineAgent(const std::string& directory, const Workload& workload);

}  // namespace Bench
