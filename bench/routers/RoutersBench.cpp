// What routers of other kinds need for as many routes, in a network namespace of this benchmark's own: the kernel
// alone, told by netlink, the mirror of published routes in it, and BIRD, into its own table and on to the kernel.
// bench/README.md says what the figures mean.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "bench/harness/BenchProgram.h"
#include "bench/harness/WorkFigures.h"
#include "bench/pipeline/PipelineWorkload.h"
#include "bench/routers/BirdDaemon.h"
#include "bench/routers/KernelWriter.h"
#include "bench/routers/MirroredRoutes.h"
#include "bench/routers/OwnNetwork.h"

namespace Bench {

namespace {

struct Options : BenchOptions {
  Workload workload;
};

// The kernel compares the next hops of a new route with those of all others over the same interface, which takes it
// hours for as many different sets as the agent is given.
constexpr std::uint32_t setsForKernel = 64;

// All in one table: where prefixes come from a file, each is there once.
std::vector<RoutedPrefix> routesOf(Workload workload, std::uint32_t nexthopSets) {
  workload.nexthopSets = nexthopSets;
  const Tools::RibChange rib = workload.rib();
  std::vector<RoutedPrefix> routes;
  routes.reserve(rib.routes.size());
  for (const auto& route : rib.routes) {
    std::vector<IpAddr> nexthops;
    for (const auto& nexthop : rib.vias[route.viaKey() - 1].nexthops()) nexthops.push_back(nexthop.remoteVtep.v4());
    routes.push_back({route.key().prefix().v4(), std::move(nexthops)});
  }
  std::ranges::stable_sort(routes, {}, &RoutedPrefix::prefix);
  const auto isSame = [](const RoutedPrefix& a, const RoutedPrefix& b) { return a.prefix == b.prefix; };
  routes.erase(std::unique(routes.begin(), routes.end(), isSame), routes.end());
  return routes;
}

class Measurement {
 public:
  explicit Measurement(const Options& options)
      : options_(options),
        routes_(routesOf(options.workload, options.workload.nexthopSets)),
        kernelRoutes_(routesOf(options.workload, setsForKernel)) {
    const std::string fault = enterOwnNetwork();
    hasNetwork_ = fault.empty();
    if (!hasNetwork_) std::fprintf(stderr, "RoutersBench: nothing is measured: %s\n", fault.c_str());
    hasBird_ = BirdDaemon::isInstalled();
    if (!hasBird_) std::fprintf(stderr, "RoutersBench: no BIRD: scripts/setup rivals installs it\n");
  }

  const Figures& figures() const { return figures_; }
  void run() {
    if (!hasNetwork_) return;
    for (const std::size_t batch : {std::size_t{64}, std::size_t{512}}) kernel(batch);
    mirror();
    if (hasBird_) bird();
  }

 private:
  void add(const std::string& phase, double cpuSeconds) {
    figures_.add(phase, "cpuSeconds", cpuSeconds);
    figures_.add(phase, "routesPerCpuSecond", static_cast<double>(routes_.size()) / cpuSeconds);
  }
  // The kernel works on this process's time.
  void kernel(std::size_t batch) {
    const std::size_t before = kernelRoutes();
    KernelWriter writer(ownInterface(), batch);
    const Stopwatch stopwatch;
    writer.write(kernelRoutes_);
    add("netlink, batches of " + std::to_string(batch), stopwatch.cpuSeconds());
    require(kernelRoutes() - before == routes_.size(), "the kernel has all routes");
    resetOwnInterface();
  }
  void mirror() {
    add("messages alone", rawRoutes(kernelRoutes_, setsForKernel, 512));
    const BenchDirectory directory(options_.directory);
    MirroredRoutes mirrored(directory.path(), kernelRoutes_, setsForKernel);
    const std::string phase = "routecache kernel";
    add(phase, mirrored.start());
    require(mirrored.messagesSent() >= routes_.size(), "the kernel has all routes");
    figures_.add(phase, "messages alone", figures_.latest("messages alone", "routesPerCpuSecond"));
    figures_.add("routecache kernel, restarted", "seconds", mirrored.start());
    require(mirrored.messagesSent() == 0, "a restart changes nothing");
    figures_.add("routecache kernel, an adjacency", "seconds", mirrored.changeAdjacency());
    figures_.add("routecache kernel, an adjacency", "messages", static_cast<double>(mirrored.messagesSent()));
    mirrored.flush();
  }
  void bird() {
    for (const bool exporting : {false, true}) {
      const BenchDirectory directory(options_.directory);
      const std::string phase = exporting ? "BIRD, to the kernel" : "BIRD, its own table";
      const std::size_t before = kernelRoutes();
      BirdDaemon daemon(directory.path(), exporting ? kernelRoutes_ : routes_, exporting);
      double cpuSeconds = daemon.loaded(routes_.size());
      if (exporting) cpuSeconds = daemon.exported(before + routes_.size());
      add(phase, cpuSeconds);
      figures_.add(phase, "bytesPerRoute", daemon.residentBytes() / static_cast<double>(routes_.size()));
      if (exporting) resetOwnInterface();
    }
  }

  const Options& options_;
  std::vector<RoutedPrefix> routes_;
  std::vector<RoutedPrefix> kernelRoutes_;  // the same over fewer next hops
  bool hasNetwork_ = false;
  bool hasBird_ = false;
  Figures figures_;
};

void print(const Options& options, const Figures& /*figures*/) {
  std::printf("%u IPv4 routes of %u next hops; medians of %u runs\n", options.workload.routes, options.workload.paths,
              options.runs);
}

constexpr Bar bars[] = {
    {"netlink, batches of 64", "routesPerCpuSecond", nullptr, Bar::told, "k/s", 1e-3},
    {"netlink, batches of 512", "routesPerCpuSecond", nullptr, Bar::told, "k/s", 1e-3},
    {"messages alone", "routesPerCpuSecond", nullptr, Bar::told, "k/s", 1e-3},
    {"routecache kernel", "routesPerCpuSecond", "messages alone", 0.6, "k/s", 1e-3, Bar::atLeast},
    {"routecache kernel, restarted", "seconds", nullptr, Bar::told, "s"},
    {"routecache kernel, an adjacency", "seconds", nullptr, Bar::told, "ms", 1e3},
    {"routecache kernel, an adjacency", "messages", nullptr, Bar::told, "messages"},
    {"BIRD, its own table", "routesPerCpuSecond", nullptr, Bar::told, "k/s", 1e-3},
    {"BIRD, its own table", "bytesPerRoute", nullptr, Bar::told, "bytes"},
    {"BIRD, to the kernel", "routesPerCpuSecond", nullptr, Bar::told, "k/s", 1e-3},
    {"BIRD, to the kernel", "bytesPerRoute", nullptr, Bar::told, "bytes"},
};

}  // namespace

}  // namespace Bench

int main(int argc, char** argv) {
  using namespace Bench;
  Options options;
  BenchProgram program("RoutersBench", "Measures what a kernel and BIRD need for the routes of PipelineBench.",
                       options);
  program.routesAre(options.workload.routes, "IPv4 routes", 1000, 3'000'000);
  program.app().add_option("--prefixes", options.workload.prefixFile,
                           "Their prefixes, plain or gzip; else they are generated");
  return program.run<Measurement>(argc, argv, options, print, bars);
}
