// The show commands at full size: the real launcher with all routes published, this process as who asks and reads, and
// what reading costs the agent in memory, in time and in routes. bench/README.md says what the figures mean.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "bench/harness/BenchProgram.h"
#include "bench/harness/ChildProcess.h"
#include "bench/harness/WorkFigures.h"
#include "bench/show/ShowReader.h"
#include "bench/show/ShowRival.h"
#include "bench/show/ShowSwitch.h"

namespace Bench {

namespace {

struct Options : BenchOptions {
  Workload workload;
  std::uint32_t furtherRoutes() const { return workload.routes / 5; }
  double pause = 0;  // of the reader's process
};

// --- The agent's process, from outside -------------------------------------------------------------------------------

// Looks every few milliseconds how much private memory a process has.
class MemoryWatch {
 public:
  explicit MemoryWatch(pid_t process)
      : process_(process), thread_([this](const std::stop_token& stop) { watch(stop); }) {}
  // Bytes at most, beyond what it had at first. Ends the watch.
  double growth() {
    thread_.request_stop();
    thread_.join();
    return most_ - first_;
  }

 private:
  double now() const { return residentMemory(process_)["RssAnon"]; }
  void watch(const std::stop_token& stop) {
    do {
      most_ = std::max(most_, now());
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    } while (!stop.stop_requested());
    most_ = std::max(most_, now());
  }

  pid_t process_;
  double first_ = now();
  double most_ = first_;
  std::jthread thread_;
};

// --- The measurements ------------------------------------------------------------------------------------------------

class Measurement {
 public:
  explicit Measurement(const Options& options) : options_(options) {}

  const Figures& figures() const { return figures_; }
  // Each has an agent of its own: one tells its longest hold since its start, and keeps the memory that it has got.
  void run() {
    summaries();
    listing("routes, text", false);
    listing("routes, JSON", true);
    loads();
    isCompared_ = true;
  }

 private:
  ShowSwitch aSwitch() const { return {options_.directory, options_.workload, options_.furtherRoutes()}; }
  // The rival, ready to list.
  static std::unique_ptr<ChildProcess> plainProcess(const ShowSwitch& tested) {
    auto plain = std::make_unique<ChildProcess>(std::vector<std::string>{"plain", "--dir", tested.runDirectory()});
    plain->report();
    return plain;
  }
  double asked(const std::string& phase, const ShowSwitch& tested, const std::string& command, bool asJson);
  void summaries();
  void listing(const std::string& phase, bool asJson);
  double listPlainly(const std::string& phase, const ShowSwitch& tested, bool asJson);
  void compare(const ShowSwitch& tested, bool asJson);
  void loads();
  void load(const std::string& phase, ShowSwitch& tested, const Tools::RibChange& further,
            std::optional<double> readerPause);

  const Options& options_;
  bool isCompared_ = false;  // the agent's output with the rival's, byte by byte
  Figures figures_;
};

// Asks once; returns the bytes of the reply.
double Measurement::asked(const std::string& phase, const ShowSwitch& tested, const std::string& command, bool asJson) {
  std::uint64_t bytes = 0;
  MemoryWatch memory(tested.agent());
  const double cpuBefore = processorSeconds(tested.agent());
  const Stopwatch stopwatch;
  tested.show(command, asJson, [&bytes](std::string_view content) { bytes += content.size(); });
  figures_.add(phase, "seconds", stopwatch.seconds());
  figures_.add(phase, "cpuSeconds", processorSeconds(tested.agent()) - cpuBefore);
  figures_.add(phase, "grownBytes", memory.growth());
  figures_.add(phase, "bytes", static_cast<double>(bytes));
  figures_.add(phase, "heldSeconds", tested.longestTurn());
  return static_cast<double>(bytes);
}

// The lighter one first: the agent tells its longest hold since its start.
void Measurement::summaries() {
  ShowSwitch tested = aSwitch();
  asked("summary", tested, "showRouteCacheSummary#V", false);
  asked("summary by VRF", tested, "showRouteCacheSummary#Vall", false);
  tested.stop();
}

void Measurement::listing(const std::string& phase, bool asJson) {
  ShowSwitch tested = aSwitch();
  const double bytes = asked(phase, tested, listingCommand(), asJson);
  require(listPlainly(phase, tested, asJson) == bytes, "the rival prints as much");
  if (!isCompared_) compare(tested, asJson);
  tested.stop();
}

double Measurement::listPlainly(const std::string& phase, const ShowSwitch& tested, bool asJson) {
  const auto plain = plainProcess(tested);
  std::uint64_t bytes = 0;
  const double cpuBefore = processorSeconds(plain->pid());
  const Stopwatch stopwatch;
  plain->tell(asJson ? "json" : "text");
  plain->readAll([&bytes](std::string_view content) { bytes += content.size(); });
  figures_.add(phase, "rivalSeconds", stopwatch.seconds());
  figures_.add(phase, "rivalCpuSeconds", processorSeconds(plain->pid()) - cpuBefore);
  plain->wait();
  return static_cast<double>(bytes);
}

void Measurement::compare(const ShowSwitch& tested, bool asJson) {
  std::string shown;
  std::string printed;
  tested.show(listingCommand(), asJson, [&shown](std::string_view content) { shown += content; });
  const auto plain = plainProcess(tested);
  plain->tell(asJson ? "json" : "text");
  plain->readAll([&printed](std::string_view content) { printed += content; });
  plain->wait();
  require(shown == printed, "both list the same");
}

void Measurement::loads() {
  ShowSwitch tested = aSwitch();
  const auto further = options_.workload.ribOf(loadedVrf, options_.furtherRoutes(), 2);
  // Not counted: the first one finds room that no route has had before it.
  tested.load(further);
  tested.withdraw();
  figures_.add("load alone", "taskHeldBefore", tested.longestTask());
  load("load alone", tested, further, std::nullopt);
  load("slow reader", tested, further, 0.02);
  load("fast reader", tested, further, 0.0);
  for (const char* phase : {"load alone", "slow reader", "fast reader"}) {
    figures_.add(phase, "ratio",
                 figures_.latest(phase, "routesPerSecond") / figures_.latest("load alone", "routesPerSecond"));
  }
  tested.stop();
}

void Measurement::load(const std::string& phase, ShowSwitch& tested, const Tools::RibChange& further,
                       std::optional<double> readerPause) {
  std::optional<ChildProcess> reader;
  if (readerPause) {
    reader.emplace(
        std::vector<std::string>{"reader", "--dir", tested.runDirectory(), "--pause", std::to_string(*readerPause)});
    reader->report();  // it has begun
  }
  const Stopwatch reading;
  const double seconds = tested.load(further);
  double bytes = 0;
  if (reader) {
    bytes = reader->ask("enough")["bytes"];
    reader->wait();
  }
  figures_.add(phase, "seconds", seconds);
  figures_.add(phase, "routesPerSecond", static_cast<double>(further.routes.size()) / seconds);
  figures_.add(phase, "bytesReadPerSecond", bytes / reading.seconds());
  figures_.add(phase, "heldSeconds", tested.longestTurn());
  figures_.add(phase, "taskHeldSeconds", tested.longestTask());
  tested.withdraw();
}

// --- The tables that are printed -------------------------------------------------------------------------------------

void print(const Options& options, const Figures& figures) {
  std::printf("%u IPv4 routes of one VRF, %u next hops each; medians of %u runs\n\n", options.workload.routes,
              options.workload.paths, options.runs);
  std::printf("%-16s %9s %9s %9s %11s %9s %9s %12s\n", "show", "seconds", "CPU s", "MB", "grown, KiB", "held, ms",
              "rival s", "rival CPU s");
  for (const char* phase : {"routes, text", "routes, JSON", "summary", "summary by VRF"}) {
    const auto median = [&](const char* figure) { return figures.median(phase, figure); };
    std::printf("%-16s %9.4f %9.4f %9.1f %11.0f %9.2f", phase, median("seconds"), median("cpuSeconds"),
                median("bytes") / 1e6, median("grownBytes") / 1024, 1e3 * median("heldSeconds"));
    if (figures.has(phase, "rivalSeconds")) {
      const double rivalCpu = median("rivalCpuSeconds");
      std::printf(" %9.3f %12.3f (x %.2f)", median("rivalSeconds"), rivalCpu, median("cpuSeconds") / rivalCpu);
    }
    std::printf("\n");
  }
  std::printf("\n%-16s %12s %9s %11s %9s %9s\n", "routes loaded", "routes/s", "ratio", "read MB/s", "held, ms",
              "task, ms");
  for (const char* phase : {"load alone", "slow reader", "fast reader"}) {
    const auto median = [&](const char* figure) { return figures.median(phase, figure); };
    std::printf("%-16s %12.0f %9.2f %11.1f %9.2f %9.2f\n", phase, median("routesPerSecond"), median("ratio"),
                median("bytesReadPerSecond") / 1e6, 1e3 * median("heldSeconds"), 1e3 * median("taskHeldSeconds"));
  }
  std::printf("\n%u routes loaded; before them the longest run of a task was %.2f ms\n", options.furtherRoutes(),
              1e3 * figures.median("load alone", "taskHeldBefore"));
}

}  // namespace

}  // namespace Bench

int main(int argc, char** argv) {
  using namespace Bench;
  Options options;
  options.workload.vrfs = 4;
  BenchProgram program("ShowBench",
                       "Measures the show commands: listings and summaries of many routes, and loads beside listings.",
                       options);
  program.routesAre(options.workload.routes, "IPv4 routes that are listed", 1000, 2'000'000);
  program.modeIs("plain", "The rival's process", [&] { runPlainListing(options.directory); });
  program
      .modeIs("reader", "A reader of listings, of the agent whose they are,",
              [&] { runListingReader(options.directory, options.pause); })
      .add_option("--pause", options.pause, "Seconds that it sleeps after every 64 KiB")
      ->capture_default_str();
  return program.run<Measurement>(argc, argv, options, print);
}
