#include "bench/pipeline/RouteProbe.h"

#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <iostream>
#include <random>
#include <span>
#include <thread>

#include "bench/harness/MeasuredLoop.h"
#include "bench/harness/WorkFigures.h"
#include "platform/values/Paths.h"

namespace Bench {

namespace {

using RouteCache::Ipv4RouteStatus;

constexpr std::uint32_t probedVrf = 1;
const Prefix probedPrefix(IpAddr(0xcb007107), 32);  // 203.0.113.7, which is nobody's

const char* publishedPath(const Workload& workload) {
  return workload.caching ? Paths::sfeRoutes : Paths::hwRoutes;
}

void sleep(double seconds) {
  std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
}

}  // namespace

// --- The probe -------------------------------------------------------------------------------------------------------

RouteProbe::RouteProbe(const std::string& directory, const Workload& workload, RoutingProcess& routing)
    : routing_(routing), tables_(directory), published_(tables_.reader<Ipv4RouteStatus>(publishedPath(workload))) {
  change();
  const Stopwatch waiting;
  while (!seen()) {
    require(waiting.seconds() < ChildProcess::patience, "the probed route is published");
    sleep(1e-3);
  }
}

RouteProbe::~RouteProbe() {
  routing_.remove({probedVrf, probedPrefix});
  routing_.flush();
}

RouteCache::Ipv4RouteVrfKey RouteProbe::publishedKey() {
  return {probedPrefix, Workload::hwVrfId(probedVrf)};
}

void RouteProbe::change() {
  const auto via = routing_.rib().vias[changes_++ % 2].key();
  changedAt_ = monotonicSeconds();
  routing_.write(RoutingProcess::Route({probedVrf, probedPrefix}, via));
  routing_.flush();
}

std::optional<double> RouteProbe::seen() {
  if (changedAt_ == 0) return std::nullopt;
  const auto route = published_->route(publishedKey());
  if (!route || route->adjId() == before_) return std::nullopt;
  before_ = route->adjId();
  return monotonicSeconds() - std::exchange(changedAt_, 0);
}

// --- The watcher -----------------------------------------------------------------------------------------------------

namespace {

class Watcher final : public Ipv4RouteStatus::Reactor {
 public:
  Watcher(std::shared_ptr<const Ipv4RouteStatus> routes, Stamp& stamp)
      : Reactor(routes), routes_(std::move(routes)), stamp_(stamp) {}
  void handleEntry(const RouteCache::Ipv4RouteVrfKey& key) override {
    if (key != RouteProbe::publishedKey()) return;
    const auto route = routes_->route(key);
    if (!route || route->adjId() == before_) return;
    before_ = route->adjId();
    stamp_.hear();
  }

 private:
  std::shared_ptr<const Ipv4RouteStatus> routes_;
  Stamp& stamp_;
  RouteCache::AdjId before_;
};

}  // namespace

void runRouteWatcher(const std::string& directory, const Workload& workload) {
  MeasuredLoop loop(directory);
  Stamp stamp(directory);
  const Watcher watcher(loop.tables().follower<Ipv4RouteStatus>(publishedPath(workload)), stamp);
  loop.loop().fdIs(STDIN_FILENO, EPOLLIN, [&loop](std::uint32_t) { loop.loop().stop(); });
  std::cout << "{}" << std::endl;
  loop.loop().run();
}

// --- Probing ---------------------------------------------------------------------------------------------------------

ProbeTimes probeIdle(const std::string& directory, const Workload& workload, RoutingProcess& routing, pid_t agent,
                     unsigned samples) {
  RouteProbe probe(directory, workload, routing);
  std::vector<std::string> arguments{"watch", "--dir", directory};
  std::ranges::copy(workload.options(), std::back_inserter(arguments));
  ChildProcess watcher(arguments);
  watcher.report();
  const Processors processors;
  Pings pings(directory, 2, processors);
  processors.runOnLast(agent);
  processors.runOnFirst(watcher.pid());
  processors.runOnFirst();
  Stamp stamp(directory);
  ProbeTimes times;
  for (unsigned i = 0; i < samples; ++i) {
    times.pings.push_back(stamp.secondsUntilHeard([&] { pings.ping(); }));
    times.seen.push_back(stamp.secondsUntilHeard([&] { probe.change(); }));
  }
  processors.runAnywhere(agent);
  watcher.wait();
  std::ranges::sort(times.pings);
  std::ranges::sort(times.seen);
  return times;
}

ProbeTimes probeLoading(const std::string& directory, const Workload& workload, RoutingProcess& routing,
                        ChildProcess& agent) {
  constexpr std::size_t share = 256;  // routes between two looks: a fraction of a millisecond
  constexpr double look = 50e-6;
  RouteProbe probe(directory, workload, routing);
  std::mt19937_64 random{1};
  std::uniform_real_distribution<double> pause(1e-3, 5e-3);
  ProbeTimes times;
  bool isOutstanding = false;
  double nextAt = 0;
  const auto turn = [&] {
    if (const auto seconds = probe.seen()) {
      times.seen.push_back(*seconds);
      isOutstanding = false;
      nextAt = monotonicSeconds() + pause(random);
    }
    if (isOutstanding || monotonicSeconds() < nextAt) return;
    probe.change();
    isOutstanding = true;
  };
  agent.tell("settle " + std::to_string(routing.rib().routes.size() + 1));
  const std::span all(routing.rib().routes);
  for (std::size_t at = 0; at < all.size(); at += share) {
    for (const auto& route : all.subspan(at, std::min(share, all.size() - at))) routing.write(route);
    turn();
  }
  routing.flush();
  const Stopwatch waiting;
  while (!agent.hasLine()) {
    require(waiting.seconds() < ChildProcess::patience, "the agent settles");
    turn();
    sleep(look);
  }
  std::ranges::sort(times.seen);
  return times;
}

}  // namespace Bench
