// Hardware route caching at full size: HwRouteSm on its real tables and event loop in a process of its own, and this
// process as everybody else: who writes SFE routes and hit bits, and who reads what the hardware is to hold.
// bench/README.md says what the figures mean.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <numeric>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "bench/hardware/HardwareAgent.h"
#include "bench/hardware/HardwareRival.h"
#include "bench/harness/BenchProgram.h"
#include "bench/harness/ChildProcess.h"
#include "bench/harness/Tables.h"
#include "bench/harness/WorkFigures.h"
#include "platform/values/Paths.h"

namespace Bench {

namespace {

using nlohmann::json;
using RouteCache::Ipv4HitBitStatus;
using RouteCache::Ipv4RouteStatus;

struct Options : BenchOptions {
  HardwareWorkload workload;
  PingedOptions pinged;
};

// --- The other processes ---------------------------------------------------------------------------------------------

class Outside {
 public:
  Outside(const std::string& directory, const HardwareWorkload& workload)
      : workload_(workload),
        tables_(directory),
        sfeRoutes_(tables_.writer<Ipv4RouteStatus>(Paths::sfeRoutes, workload.sfeRoutes())),
        hwHitBits_(tables_.writer<Ipv4HitBitStatus>(Paths::hwHitBits, workload.routes)),
        sfeHitBits_(tables_.writer<Ipv4HitBitStatus>(Paths::sfeHitBits, workload.sfeRoutes())) {}

  // Publishes the routes from one number to another, as they come in key order or as hosts appear.
  void publish(std::uint32_t from, std::uint32_t to, bool shuffled) {
    std::vector<std::uint32_t> order(to - from);
    std::iota(order.begin(), order.end(), from);
    if (shuffled) std::ranges::shuffle(order, random_);
    for (const std::uint32_t i : order) sfeRoutes_->routeIs(HardwareWorkload::route(i));
    tables_.service().flush();
  }
  // The hardware reports another hit-bit value, 1 to 255, for every n-th route.
  void reportHits(std::uint32_t everyNth) {
    for (std::uint32_t i = 0; i < workload_.routes; i += everyNth) {
      const auto key = HardwareWorkload::key(i);
      const auto old = hwHitBits_->routeHitBit(key);
      const auto step = static_cast<std::uint32_t>(1 + random_() % 254);
      hwHitBits_->routeHitBitIs({key, 1 + (old ? old->hitbit() - 1 + step : step) % 255});
    }
    tables_.service().flush();
  }
  // Hits these routes in software, one after the other: seconds until each is seen in the hardware table, ascending.
  std::vector<double> hitInSoftware(std::uint32_t from, std::uint32_t to);
  // Entries of the hardware table.
  std::size_t hwRoutes() { return hwTable()->size(); }

 private:
  std::shared_ptr<Ipv4RouteStatus> hwTable() { return tables_.reader<Ipv4RouteStatus>(Paths::hwRoutes); }

  const HardwareWorkload& workload_;
  std::mt19937_64 random_{1};
  Tables tables_;
  std::shared_ptr<Ipv4RouteStatus> sfeRoutes_;
  std::shared_ptr<Ipv4HitBitStatus> hwHitBits_;
  std::shared_ptr<Ipv4HitBitStatus> sfeHitBits_;
};

std::vector<double> Outside::hitInSoftware(std::uint32_t from, std::uint32_t to) {
  const auto hardware = hwTable();
  std::uniform_real_distribution<double> pause(0.5e-3, 2.5e-3);
  std::vector<double> latencies;
  for (std::uint32_t i = from; i < to; ++i) {
    std::this_thread::sleep_for(std::chrono::duration<double>(pause(random_)));
    const auto key = HardwareWorkload::key(i);
    if (hardware->has(key)) throw std::runtime_error("a route was admitted before its hit");
    const double start = monotonicSeconds();
    sfeHitBits_->routeHitBitIs({key, 255});
    tables_.service().flush();
    double seconds = 0;
    for (; !hardware->has(key); seconds = monotonicSeconds() - start) {
      // Soon tired of looking: the agent may have been woken on this processor.
      seconds < 2e-4 ? std::this_thread::yield() : std::this_thread::sleep_for(std::chrono::microseconds(20));
      if (seconds > 10) throw std::runtime_error("a route that was hit was not admitted");
    }
    latencies.push_back(monotonicSeconds() - start);
  }
  std::ranges::sort(latencies);
  return latencies;
}

// --- The measurements ------------------------------------------------------------------------------------------------

class Measurement {
 public:
  explicit Measurement(const Options& options) : options_(options), workload_(options.workload) {}

  const Figures& figures() const { return figures_; }
  void run() {
    admitChanges();
    standing();
#ifdef ROUTECACHE_LMDB
    add("admission, standing", "rivalCpuSeconds", admitOverLmdb(options_.directory, workload_));
#endif
  }

 private:
  ChildProcess child(const char* mode, const BenchDirectory& directory) const {
    return ChildProcess({mode, "--dir", directory.path(), "--routes", std::to_string(workload_.routes)});
  }
  void add(const std::string& phase, const std::string& figure, double value) {
    figures_.add(phase, figure, value);
  }

  void admitChanges();
  void standing();
  void scan(const std::string& phase, ChildProcess& agent, ChildProcess& plain);
  void latency(const std::string& phase, ChildProcess& agent, Outside& outside, const char* serve, std::uint32_t from);
  void age(ChildProcess& agent, Outside& outside);
  void uncache(ChildProcess& agent);

  const Options& options_;
  const HardwareWorkload& workload_;
  Figures figures_;
};

// The state machine is up when the routes come.
void Measurement::admitChanges() {
  const BenchDirectory directory(options_.directory);
  Outside outside(directory.path(), workload_);
  ChildProcess agent = child("agent", directory);
  agent.ask("settle");
  outside.publish(0, workload_.routes, true);
  addWork(figures_, "admission, changes", agent.ask("settle"), workload_.routes);
  require(outside.hwRoutes() == workload_.routes, "all routes are admitted");
  agent.wait();
}

// The routes stand when the state machine starts; then everything that happens to them in hardware.
void Measurement::standing() {
  const BenchDirectory directory(options_.directory);
  Outside outside(directory.path(), workload_);
  outside.publish(0, workload_.routes, false);
  ChildProcess agent = child("agent", directory);
  addWork(figures_, "admission, standing", agent.ask("settle"), workload_.routes);
  require(outside.hwRoutes() == workload_.routes, "all routes are admitted");
  {
    ChildProcess plain = child("plain", directory);
    plain.ask("settle");
    outside.reportHits(1);
    scan("scan, all move", agent, plain);
    scan("scan, none moves", agent, plain);
    outside.reportHits(10);
    scan("scan, a tenth moves", agent, plain);
    plain.wait();
  }
  // From here on only a software hit admits a route: utilisation is 80 percent. Nothing is idle for 5100 seconds.
  agent.ask("levels 80 5100");
  outside.publish(workload_.routes, workload_.sfeRoutes(), false);
  agent.ask("settle");
  latency("hit, idle", agent, outside, "serve", workload_.routes);
  add("hit, idle", "two pings", secondsOfPings(options_.directory, 2, workload_.samples()));
  latency("hit, scanning", agent, outside, "serve scan", workload_.routes + workload_.samples());
  age(agent, outside);
  uncache(agent);
  agent.wait();
}

void Measurement::scan(const std::string& phase, ChildProcess& agent, ChildProcess& plain) {
  const json scanned = agent.ask("scan");
  const json plainly = plain.ask("scan");
  require(scanned["checksum"] == plainly["checksum"], "both have the routes in the same slices");
  addWork(figures_, phase, scanned, workload_.routes);
  add(phase, "rivalCpuSeconds", plainly["cpuSeconds"]);
  if (phase != "scan, a tenth moves") return;
  addMemory(figures_, "memory", scanned, workload_.routes);
  addMemory(figures_, "rival's memory", plainly, workload_.routes);
}

void Measurement::latency(const std::string& phase, ChildProcess& agent, Outside& outside, const char* serve,
                          std::uint32_t from) {
  agent.tell(serve);
  const auto seconds = outside.hitInSoftware(from, from + workload_.samples());
  const json served = agent.ask("enough");
  agent.ask("settle");
  add(phase, "median", seconds[seconds.size() / 2]);
  add(phase, "p99", seconds[seconds.size() * 99 / 100]);
  add(phase, "longest", seconds.back());
  add(phase, "heldSeconds", served["heldSeconds"]);
}

// Utilisation is 8 percent above the low level: a tenth of the routes must go.
void Measurement::age(ChildProcess& agent, Outside& outside) {
  const std::size_t before = outside.hwRoutes();
  agent.ask("levels 72 0");
  json report = agent.ask("scan");
  const std::uint32_t expected = workload_.capacity() * 8 / 100;
  require(report["aged"] == expected && outside.hwRoutes() + expected == before, "a tenth was aged");
  report.update(report["ageing"]);  // the time of ageing alone
  addWork(figures_, "ageing", report, expected);
  add("ageing", "removed", expected);
}

void Measurement::uncache(ChildProcess& agent) {
  const json report = agent.ask("uncache");
  require(report["decided"] >= workload_.sfeRoutes() && report["decided"] < 2 * workload_.sfeRoutes(), "one walk");
  addWork(figures_, "walk owed", report, workload_.sfeRoutes());
  add("walk owed", "decided", report["decided"]);
  add("walk owed", "removingSeconds", report["removingSeconds"]);
}

// --- The tables that are printed -------------------------------------------------------------------------------------

constexpr Bar bars[] = {
    {"scan, none moves", "nanosecondsPerEntry", nullptr, 150},
    {"hit, idle", "median", "two pings", 2, "us", 1e6},
    {"hit, scanning", "p99", nullptr, 4, "ms", 1e3},
    {"scan, none moves", "cpuSeconds", "rivalCpuSeconds", Bar::told, "s"},
    {"admission, standing", "cpuSeconds", "rivalCpuSeconds", Bar::told, "s"},
};

void print(const Options& options, const Figures& figures) {
  const HardwareWorkload& workload = options.workload;
  const auto median = [&figures](const char* phase, const char* figure) { return figures.median(phase, figure); };
  std::printf("%u cacheable host routes of one VRF, hardware table of %u; medians of %u runs\n\n", workload.routes,
              workload.capacity(), options.runs);
  printWork(figures, {"admission, changes", "admission, standing", "scan, all move", "scan, none moves",
                      "scan, a tenth moves", "ageing", "walk owed"});
  std::printf("\n%-20s %9s %9s %10s\n", "software hit, us", "median", "99th", "longest");
  for (const char* phase : {"hit, idle", "hit, scanning"}) {
    std::printf("%-20s %9.0f %9.0f %10.0f\n", phase, 1e6 * median(phase, "median"), 1e6 * median(phase, "p99"),
                1e6 * median(phase, "longest"));
  }
  printMemory(figures, "slices", {"memory", "rival's memory"});
  std::printf("\nageing removed %.0f routes; %u removed prefixes (%.0f ns each) made one walk, which looked at %.0f\n",
              median("ageing", "removed"), workload.otherPrefixes(),
              1e9 * median("walk owed", "removingSeconds") / workload.otherPrefixes(), median("walk owed", "decided"));
}

}  // namespace

}  // namespace Bench

int main(int argc, char** argv) {
  using namespace Bench;
  Options options;
  BenchProgram program("HardwareBench",
                       "Measures hardware route caching: admission, scan, ageing, software hits, owed walks.", options);
  program.routesAre(options.workload.routes, "IPv4 host routes", 1000, HardwareWorkload::largest);
  program.modeIs("agent", "The state machine's process",
                 [&] { runHardwareAgent(options.directory, options.workload); });
  program.modeIs("plain", "The rival's process", [&] { runPlainSlices(options.directory); });
  program.pingedIs(options.pinged);
  return program.run<Measurement>(argc, argv, options, print, bars);
}
