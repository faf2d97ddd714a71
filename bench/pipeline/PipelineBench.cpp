// The whole road at full size: RIB tables -> agent -> published tables, with the real agent in a process of its own,
// and the RIB's writer and the reader of what is published in others. bench/README.md says what the figures mean.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <string>

#include "bench/harness/BenchProgram.h"
#include "bench/pipeline/Journey.h"
#include "bench/pipeline/PipelineAgent.h"
#include "bench/pipeline/PipelineWorkload.h"
#include "bench/pipeline/RouteProbe.h"
#ifdef ROUTECACHE_LMDB
#include "bench/pipeline/PipelineRival.h"
#endif

namespace Bench {

namespace {

struct Options : BenchOptions {
  Workload workload;
  std::string caching = "both";
  PingedOptions pinged;
};

// --- The measurements ------------------------------------------------------------------------------------------------

class Measurement {
 public:
  explicit Measurement(const Options& options) : options_(options), rib_(options.workload.rib()) {}

  const Figures& figures() const { return figures_; }
  void run() {
    for (const bool caching : {false, true}) {
      if (options_.caching == (caching ? "off" : "on")) continue;
      Workload workload = options_.workload;
      workload.caching = caching;
      Journey(options_.directory, workload, rib_, figures_).run();
      measureSmallLoad(options_.directory, workload, figures_);
      measurePeak(options_.directory, workload, rib_, figures_);
    }
    measureManyVrfs(options_.directory, figures_);
    rival();
    holds();
  }

 private:
  void rival() {
#ifdef ROUTECACHE_LMDB
    const auto found = runPipelineRival(options_.directory, rib_);
    if (found.routes != rib_.routes.size() || found.adjacencies != options_.workload.adjacencies()) {
      throw std::runtime_error("the rival has not done the job");
    }
    for (const char* phase : {"load", "load, caching"}) {
      if (!figures_.has(phase)) continue;
      figures_.add(phase, "LMDB", static_cast<double>(found.routes) / found.loadSeconds);
    }
#endif
  }
  // Of all phases of this run.
  void holds() {
    double longest = 0;
    for (const std::string& phase : figures_.phases()) {
      if (figures_.has(phase, "heldCpuSeconds")) longest = std::max(longest, figures_.latest(phase, "heldCpuSeconds"));
    }
    figures_.add("longest hold", "heldCpuSeconds", longest);
  }

  const Options& options_;
  Tools::RibChange rib_;
  Figures figures_;
};

// --- The tables that are printed -------------------------------------------------------------------------------------

constexpr double timeSlice = 4;  // milliseconds

void printPhase(const Figures& figures, const std::string& phase) {
  const auto median = [&](const char* figure) { return figures.median(phase, figure); };
  std::printf("%-30s %9.2f %9.2f %9.0f %9.1f %13.1f %9.0f %9.0f\n", phase.c_str(), median("seconds"),
              median("cpuSeconds"), median("nsPerRoute"), 1e3 * median("heldSeconds"), 1e3 * median("heldCpuSeconds"),
              median("privatePerRoute"), median("sharedPerRoute"));
}

void printLatency(const Figures& figures, const std::string& phase) {
  const auto median = [&](const char* figure) { return 1e6 * figures.median(phase, figure); };
  std::printf("%-34s %9.0f %9.0f %9.0f %9.0f\n", phase.c_str(), median("median"), median("p99"), median("longest"),
              figures.median(phase, "samples"));
}

// Every task that held the thread for longer than two time slices, and where.
void printHolds(const Figures& figures) {
  for (const std::string& phase : figures.phases()) {
    for (const std::string& figure : figures.figuresOf(phase)) {
      if (!figure.starts_with("held:") || 1e3 * figures.median(phase, figure) <= 2 * timeSlice) continue;
      std::printf("held for %.1f ms of the processor: %s, %s\n", 1e3 * figures.median(phase, figure),
                  figure.c_str() + 5, phase.c_str());
    }
  }
}

void print(const Options& options, const Figures& figures) {
  const Workload& workload = options.workload;
  std::printf("%u IPv4 routes%s%s, %u VRFs, %u VTEPs, %u next-hop sets of %u; medians of %u runs\n\n", workload.routes,
              workload.prefixFile.empty() ? "" : " of ", workload.prefixFile.c_str(), workload.vrfs, workload.vteps,
              workload.nexthopSets, workload.paths, options.runs);
  std::printf("%-30s %9s %9s %9s %9s %13s %9s %9s\n", "", "seconds", "CPU s", "ns/route", "held, ms", "held, CPU ms",
              "private", "shared");
  for (const bool caching : {false, true}) {
    for (const char* phase : {"load", "load while running", "moved", "VRF goes", "VRF returns", "tunnel goes",
                              "tunnel returns", "restart", "withdrawn while down", "withdrawn"}) {
      const std::string name = phaseName(phase, caching);
      if (figures.has(name)) printPhase(figures, name);
    }
  }
  std::printf("\n%-34s %9s %9s %9s %9s\n", "us until seen", "median", "99th", "longest", "samples");
  for (const bool caching : {false, true}) {
    for (const char* phase : {"one route", "one route, others wait", "one route, others loaded"}) {
      const std::string name = phaseName(phase, caching);
      if (figures.has(name)) printLatency(figures, name);
    }
  }
  std::printf("\n");
  printHolds(figures);
}

constexpr double none = 0.5;  // of what is counted
constexpr Bar bars[] = {
    {"load", "routesPerCpuSecond", nullptr, 500, "k/s", 1e-3, Bar::atLeast},
    {"load", "routesPerCpuSecond", "LMDB", 0.6, "k/s", 1e-3, Bar::atLeast},
    {"load while running", "nsPerRoute", "a hundredth", 1.5},
    {"moved", "nsPerRoute", "first load", 1.2},
    {"VRF goes", "nsPerRoute", "first load", 1.2},
    {"VRF returns", "nsPerRoute", "first load", 1.2},
    {"tunnel goes", "nsPerRoute", "first load", 1.2},
    {"tunnel returns", "nsPerRoute", "first load", 1.2},
    {"one route", "median", "two pings", 2, "us", 1e6},
    {"one route", "p99", "its median", 5, "us", 1e6},
    {"one route, others wait", "p99", nullptr, 2 * timeSlice, "ms", 1e3},
    {"one route, others loaded", "p99", nullptr, 2 * timeSlice, "ms", 1e3},
    {"restart", "nsPerRoute", "first load", 0.33},
    {"restart", "changedEntries", nullptr, none, "entries"},
    {"withdrawn while down", "seconds", nullptr, 2, "s"},
    {"after a peak", "bytes", "without one", 1.1, "MB", 1e-6},
    {"load, caching", "routesPerCpuSecond", nullptr, 350, "k/s", 1e-3, Bar::atLeast},
    {"load, caching", "routesPerCpuSecond", "LMDB", 0.6, "k/s", 1e-3, Bar::atLeast},
    {"load while running, caching", "nsPerRoute", "a hundredth", 1.5},
    {"moved, caching", "nsPerRoute", "first load", 1.2},
    {"VRF goes, caching", "nsPerRoute", "first load", 1.2},
    {"VRF returns, caching", "nsPerRoute", "first load", 1.2},
    {"tunnel goes, caching", "nsPerRoute", "first load", 1.2},
    {"tunnel returns, caching", "nsPerRoute", "first load", 1.2},
    {"one route, caching", "median", "two pings", 2, "us", 1e6},
    {"one route, caching", "p99", "its median", 5, "us", 1e6},
    {"one route, others wait, caching", "p99", nullptr, 2 * timeSlice, "ms", 1e3},
    {"one route, others loaded, caching", "p99", nullptr, 2 * timeSlice, "ms", 1e3},
    {"restart, caching", "nsPerRoute", "first load", 0.33},
    {"restart, caching", "changedEntries", nullptr, none, "entries"},
    {"withdrawn while down, caching", "seconds", nullptr, 2, "s"},
    {"after a peak, caching", "bytes", "without one", 1.1, "MB", 1e-6},
    {"load while running, caching", "bytesPerRoute", nullptr, 330, "bytes"},
    {"longest hold", "heldCpuSeconds", nullptr, 2 * timeSlice, "ms", 1e3},
    {"10000 VRFs", "startSeconds", "a tenth of them", 12, "s"},
    {"10000 VRFs", "oneMoreSeconds", nullptr, 5, "ms", 1e3},
};

}  // namespace

}  // namespace Bench

int main(int argc, char** argv) {
  using namespace Bench;
  Options options;
  Workload& workload = options.workload;
  BenchProgram program("PipelineBench", "Measures the road from RIB tables to published tables.", options);
  const auto count = [&program](const char* name, std::uint32_t& value, const char* what) {
    program.app().add_option(name, value, what)->check(CLI::PositiveNumber)->capture_default_str();
  };
  program.routesAre(workload.routes, "IPv4 routes", 1000, 3'000'000);
  count("--vrfs", workload.vrfs, "VRFs: the first has a tenth of the routes, the others take the rest in turn");
  count("--vteps", workload.vteps, "VTEPs, which the next-hop sets take in turn");
  count("--nexthop-sets", workload.nexthopSets, "Next-hop sets, which the routes take in turn");
  count("--paths", workload.paths, "Next hops of each set");
  program.app().add_option("--prefixes", workload.prefixFile, "Their prefixes, plain or gzip; else they are generated");
  program.app()
      .add_option_function<std::string>(
          "--caching",
          [&options](const std::string& which) {
            options.caching = which;
            options.workload.caching = which == "on";
          },
          "Hardware route caching: off, on, or one after the other")
      ->check(CLI::IsMember({"off", "on", "both"}));
  program.modeIs("agent", "The agent's process", [&] { runPipelineAgent(options.directory, workload); });
  program.modeIs("watch", "A reader of what is published", [&] { runRouteWatcher(options.directory, workload); });
  program.pingedIs(options.pinged);
  return program.run<Measurement>(argc, argv, options, print, bars);
}
