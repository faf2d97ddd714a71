// The kernel mirror at full size: KernelRouteSm on its real tables and event loop in a process of its own, and this
// process as everybody else: who configures routes, who publishes them, and who reads what the kernel is to hold.
// bench/README.md says what the figures mean.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <random>
#include <string>
#include <vector>

#include "RouteCache/RouteCache.h"
#include "bench/harness/BenchProgram.h"
#include "bench/harness/ChildProcess.h"
#include "bench/harness/Tables.h"
#include "bench/harness/WorkFigures.h"
#include "bench/mirror/MirrorAgent.h"
#include "platform/values/Paths.h"
#include "simulator/routing/RibWriter.h"
#ifdef ROUTECACHE_LMDB
#include "bench/mirror/MirrorRival.h"
#endif

namespace Bench {

namespace {

using nlohmann::json;
using Routing::Rib::Route;
using Routing::Rib::RouteConfig;
using Routing::Rib::RouteKey;

struct Options : BenchOptions {
  MirrorWorkload workload;
};

// --- The other processes ---------------------------------------------------------------------------------------------

class Outside {
 public:
  // Configures all routes.
  Outside(const std::string& directory, const MirrorWorkload& workload, const std::vector<Route>& routes)
      : routes_(routes),
        tables_(directory),
        configured_(tables_.writer<RouteConfig>(Paths::ribRoutes, workload.routes)),
        published_(tables_.writer<RouteCache::Ipv4RouteStatus>(Paths::hwRoutes, workload.capacity())) {
    for (const Route& route : routes_) configured_->routeIs(route);
  }

  // In this order.
  void publish(const std::vector<Route>& routes) {
    for (const Route& route : routes) published_->routeIs(MirrorWorkload::published(route));
    tables_.service().flush();
  }
  // The kernel has what it is to have, field by field; nothing that the first VRF's cached default route covers.
  bool isMirrored(bool defaultRouteCached) {
    std::vector<Route> expected;
    for (std::uint32_t i = 0; i < MirrorWorkload::vrfs; ++i) {
      expected.emplace_back(RouteKey(MirrorWorkload::firstVrf + i, MirrorWorkload::cachedPrefix()));
    }
    if (defaultRouteCached) {
      expected.emplace_back(RouteKey(MirrorWorkload::firstVrf, MirrorWorkload::cachedDefaultRoute()));
    }
    std::ranges::copy_if(routes_, std::back_inserter(expected), [&](const Route& route) {
      return !defaultRouteCached || route.key().vrfId() != MirrorWorkload::firstVrf;
    });
    std::ranges::sort(expected, {}, &Route::key);
    const auto kernel = tables_.reader<RouteConfig>(Paths::kernelRoutes);
    auto next = expected.begin();
    for (const Route& route : *kernel) {
      if (next == expected.end() || !(route == *next++)) return false;
    }
    return next == expected.end();
  }

 private:
  const std::vector<Route>& routes_;
  Tables tables_;
  std::shared_ptr<RouteConfig> configured_;
  std::shared_ptr<RouteCache::Ipv4RouteStatus> published_;
};

// --- The measurements ------------------------------------------------------------------------------------------------

class Measurement {
 public:
  explicit Measurement(const Options& options)
      : options_(options), workload_(options.workload), routes_(workload_.configured()), shuffled_(routes_) {
    std::mt19937_64 random(1);
    std::ranges::shuffle(shuffled_, random);
  }

  const Figures& figures() const { return figures_; }
  void run() {
    mirrorChanges();
    standing();
#ifdef ROUTECACHE_LMDB
    figures_.add("mirror, changes", "rivalCpuSeconds", mirrorOverLmdb(options_.directory, shuffled_));
    figures_.add("mirror, standing", "rivalCpuSeconds", mirrorWalkOverLmdb(options_.directory, routes_));
#endif
  }

 private:
  ChildProcess agent(const BenchDirectory& directory) const {
    return ChildProcess({"agent", "--dir", directory.path(), "--routes", std::to_string(workload_.routes)});
  }
  void mirrorChanges();
  void standing();
  void mirrored(const std::string& phase, ChildProcess& process, Outside& outside);
  void adopted(const std::string& phase, ChildProcess& process, const char* work);
  void cacheDefaultRoute(ChildProcess& process, Outside& outside);
  void flap(ChildProcess& process);

  const Options& options_;
  const MirrorWorkload& workload_;
  std::vector<Route> routes_;
  std::vector<Route> shuffled_;
  Figures figures_;
};

// The state machine is up when the routes come.
void Measurement::mirrorChanges() {
  const BenchDirectory directory(options_.directory);
  Outside outside(directory.path(), workload_, routes_);
  ChildProcess process = agent(directory);
  process.ask("settle");
  outside.publish(shuffled_);
  mirrored("mirror, changes", process, outside);
  process.wait();
}

void Measurement::mirrored(const std::string& phase, ChildProcess& process, Outside& outside) {
  const json report = process.ask("settle");
  require(outside.isMirrored(false), "the kernel has all routes");
  addWork(figures_, phase, report, workload_.routes);
  addMemory(figures_, phase, report, workload_.routes);
}

// The routes stand when the state machine starts; then everything that cached prefixes do to them.
void Measurement::standing() {
  const BenchDirectory directory(options_.directory);
  Outside outside(directory.path(), workload_, routes_);
  outside.publish(routes_);
  {
    ChildProcess first = agent(directory);
    mirrored("mirror, standing", first, outside);
    first.wait();
  }
  ChildProcess process = agent(directory);
  adopted("restart", process, "settle");
  adopted("its kernel walk", process, "sync");
  cacheDefaultRoute(process, outside);
  flap(process);
  require(outside.isMirrored(false), "the kernel has all routes again");
  process.wait();
}

void Measurement::adopted(const std::string& phase, ChildProcess& process, const char* work) {
  const json report = process.ask(work);
  require(report["written"] == 0 && report["deleted"] == 0, "a restart changes nothing");
  addWork(figures_, phase, report, workload_.routes);
}

void Measurement::cacheDefaultRoute(ChildProcess& process, Outside& outside) {
  const std::uint32_t covered = workload_.routesOfFirstVrf();
  const json appeared = process.ask("default on");
  require(appeared["deleted"] == covered && appeared["written"] == 1, "only the default route is left to the VRF");
  require(outside.isMirrored(true), "the default route stands for its VRF's routes");
  addWork(figures_, "default appears", appeared, covered);
  const json vanished = process.ask("default off");
  require(vanished["deleted"] == 1 && vanished["written"] == covered, "the VRF has its routes again");
  require(outside.isMirrored(false), "the kernel has all routes again");
  addWork(figures_, "default vanishes", vanished, covered);
}

void Measurement::flap(ChildProcess& process) {
  constexpr std::uint32_t entriesOfFlap = 10;  // at the most: no walk over the table
  const std::uint32_t flaps = workload_.flaps();
  const json report = process.ask("flap");
  require(report["written"] == flaps && report["deleted"] == flaps, "each flap reaches the kernel");
  require(report["decided"] < flaps * entriesOfFlap, "a flap looks at its own surroundings alone");
  addWork(figures_, "flap of a cached /32", report, flaps);
  figures_.add("flap of a cached /32", "decidedPerFlap", report["decided"].get<double>() / flaps);
}

// --- The tables that are printed -------------------------------------------------------------------------------------

constexpr Bar bars[] = {
    {"mirror, standing", "nanosecondsPerEntry", nullptr, 500},
    {"restart", "nanosecondsPerEntry", nullptr, 300},
    {"mirror, standing", "cpuSeconds", "rivalCpuSeconds", Bar::told, "s"},
    {"mirror, changes", "cpuSeconds", "rivalCpuSeconds", Bar::told, "s"},
};

void print(const Options& options, const Figures& figures) {
  const MirrorWorkload& workload = options.workload;
  std::printf("%u IPv4 routes of %u VRFs; medians of %u runs\n\n", workload.routes, MirrorWorkload::vrfs, options.runs);
  printWork(figures, {"mirror, changes", "mirror, standing", "restart", "its kernel walk", "default appears",
                      "default vanishes", "flap of a cached /32"});
  printMemory(figures, "grown", {"mirror, changes", "mirror, standing"});
  std::printf("\nthe default route covers %u routes; %u flaps, %.1f entries looked at in each\n",
              workload.routesOfFirstVrf(), workload.flaps(), figures.median("flap of a cached /32", "decidedPerFlap"));
}

}  // namespace

}  // namespace Bench

int main(int argc, char** argv) {
  using namespace Bench;
  Options options;
  BenchProgram program(
      "MirrorBench",
      "Measures the kernel mirror: routes that come and stand, a restart, cached prefixes that come and go.", options);
  program.routesAre(options.workload.routes, "IPv4 routes", 1000, 3'000'000);
  program.modeIs("agent", "The state machine's process", [&] { runMirrorAgent(options.directory, options.workload); });
  return program.run<Measurement>(argc, argv, options, print, bars);
}
