// One route that is changed over and over: how long it takes until a process that reads what is published sees it.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "RouteCache/RouteCache.h"
#include "bench/harness/ChildProcess.h"
#include "bench/harness/Pings.h"
#include "bench/harness/Tables.h"
#include "bench/pipeline/PipelineWorkload.h"
#include "bench/pipeline/RoutingProcess.h"

namespace Bench {

// The route, of a prefix that no workload has, is configured with the probe and withdrawn with it; each change gives it
// another of two vias.
class RouteProbe {
 public:
  RouteProbe(const std::string& directory, const Workload& workload, RoutingProcess& routing);
  ~RouteProbe();
  RouteProbe(const RouteProbe&) = delete;
  RouteProbe& operator=(const RouteProbe&) = delete;

  static RouteCache::Ipv4RouteVrfKey publishedKey();

  void change();
  // Whether the last change is published: seconds since it was made, once.
  std::optional<double> seen();

 private:
  RoutingProcess& routing_;
  Tables tables_;
  std::shared_ptr<RouteCache::Ipv4RouteStatus> published_;
  unsigned changes_ = 0;
  double changedAt_ = 0;  // 0: that has been seen
  RouteCache::AdjId before_;
};

// The process that hears of the probe's route: it follows the published routes, and notes in the directory's `Stamp`
// when it has seen another next hop. Reports when it is there, and ends with its standard input.
void runRouteWatcher(const std::string& directory, const Workload& workload);

// How long, in seconds and ascending, until another process has seen a change.
struct ProbeTimes {
  std::vector<double> seen;
  std::vector<double> pings;  // two in a row, in the same moments; empty where they were not asked for
};

// While the agent is otherwise idle: the watcher is woken by its tables' notification.
ProbeTimes probeIdle(const std::string& directory, const Workload& workload, RoutingProcess& routing, pid_t agent,
                     unsigned samples);
// While this process loads all routes and then until the agent answers that it has settled: this process looks.
ProbeTimes probeLoading(const std::string& directory, const Workload& workload, RoutingProcess& routing,
                        ChildProcess& agent);

}  // namespace Bench
