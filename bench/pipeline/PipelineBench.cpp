// The whole road at full size: RIB tables -> agent -> published tables, with the real agent in a process of its own,
// the RIB's writer in another, and the reader of what is published in this one. bench/README.md says what the figures
// mean.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <iostream>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "RouteCache/RouteCache.h"
#include "bench/harness/BenchProgram.h"
#include "bench/harness/ChildProcess.h"
#include "bench/harness/Tables.h"
#include "bench/pipeline/PipelineAgent.h"
#include "bench/pipeline/PipelineWorkload.h"
#include "platform/values/Paths.h"
#include "simulator/routing/RibWriter.h"
#ifdef ROUTECACHE_LMDB
#include "bench/pipeline/PipelineRival.h"
#endif

namespace Bench {

namespace {

using nlohmann::json;

struct Options : BenchOptions {
  Workload workload;
  std::vector<std::size_t> targets;  // of the agent's process
  bool withdraw = false;             // the routing process
};

// --- The routing process ---------------------------------------------------------------------------------------------

// Loads the tables or empties them, and tells when it began and ended.
void runRib(const std::string& directory, const Workload& workload, bool withdraw) {
  Tables tables(directory);
  const auto change = withdraw ? Tools::RibChange() : workload.rib();
  Tools::RibWriter rib(tables.service(), [] {});
  const double start = monotonicSeconds();
  if (withdraw) {
    rib.remove([](const Routing::Rib::RouteKey&) { return true; });
  } else {
    rib.apply(change);
  }
  tables.service().flush();
  std::cout << json{{"start", start}, {"end", monotonicSeconds()}}.dump() << std::endl;
}

// --- The reader of what is published ---------------------------------------------------------------------------------

template <class Table>
class ChangeCounter final : public Table::Reactor {
 public:
  explicit ChangeCounter(std::shared_ptr<const Table> table) : Table::Reactor(std::move(table)) {}
  void handleEntry(const typename Table::Key&) override { ++changes; }
  std::uint64_t changes = 0;
};

class Reader {
 public:
  explicit Reader(const std::string& directory)
      : tables_(directory),
        routes_(tables_.follower<RouteCache::Ipv4RouteStatus>(Paths::hwRoutes)),
        adjacencies_(tables_.follower<RouteCache::Ipv4AdjacencyStatus>(Paths::adjacencies)),
        routeChanges_(routes_),
        adjChanges_(adjacencies_) {}

  // Changes of published entries since the reader was made.
  std::uint64_t changes() {
    tables_.service().pendingChanges();
    while (!tables_.service().deliverChanges([] { return false; })) {
    }
    return routeChanges_.changes + adjChanges_.changes;
  }

  // Throws unless so many routes are published and each names a resolved adjacency.
  void check(std::size_t routes, std::size_t adjacencies) const {
    std::size_t found = 0;
    for (const auto& route : *routes_) {
      ++found;
      const auto via = adjacencies_->adj(route.adjId());
      if (!via) throw std::runtime_error("a published route has no adjacency");
      for (const auto& slot : via->viaKey()) {
        if (slot.underlayFecId().isEmpty()) throw std::runtime_error("an adjacency is not resolved");
      }
    }
    if (found != routes || adjacencies_->size() != adjacencies) {
      throw std::runtime_error(std::to_string(found) + " routes and " + std::to_string(adjacencies_->size()) +
                               " adjacencies are published");
    }
  }

 private:
  Tables tables_;
  std::shared_ptr<RouteCache::Ipv4RouteStatus> routes_;
  std::shared_ptr<RouteCache::Ipv4AdjacencyStatus> adjacencies_;
  ChangeCounter<RouteCache::Ipv4RouteStatus> routeChanges_;
  ChangeCounter<RouteCache::Ipv4AdjacencyStatus> adjChanges_;
};

// --- The measurements ------------------------------------------------------------------------------------------------

// What an agent reported at the end of a phase.
void addAgent(Figures& figures, const std::string& phase, double seconds, std::size_t routes, const json& report) {
  const auto perRoute = static_cast<double>(routes);
  figures.add(phase, "seconds", seconds);
  figures.add(phase, "routesPerSecond", perRoute / seconds);
  for (const auto& [name, bytes] : report["memory"].items()) {
    figures.add(phase, name + "PerRoute", bytes.get<double>() / perRoute);
  }
  double longest = 0;
  for (const auto& task : report["tasks"]) {
    const double held = task["longestSeconds"];
    const std::string name = task["name"];
    figures.add(phase, "held:" + name, held);
    if (name != "stateDbMountTask") longest = std::max(longest, held);
    if (name == "stateDbMountTask") figures.add(phase, "startHeldSeconds", held);
  }
  figures.add(phase, "heldSeconds", longest);
}

class Measurement {
 public:
  explicit Measurement(const Options& options) : options_(options) {}

  const Figures& figures() const { return figures_; }
  void run() {
    overStandingTables();
    whileRunning();
    rival();
  }

 private:
  std::vector<std::string> arguments(const std::string& mode, const BenchDirectory& directory,
                                     std::vector<std::string> further) const {
    std::vector<std::string> all{mode, "--dir", directory.path()};
    std::ranges::move(options_.workload.options(), std::back_inserter(all));
    std::ranges::move(further, std::back_inserter(all));
    return all;
  }
  std::size_t adjacencies() const { return std::min(options_.workload.nexthopSets, options_.workload.routes); }

  // Load of tables that stand already; then an agent that finds everything published; then all routes go.
  void overStandingTables() {
    const BenchDirectory directory(options_.directory);
    const std::size_t routes = options_.workload.routes;
    const std::string all = std::to_string(routes);
    ChildProcess(arguments("rib", directory, {})).wait();

    ChildProcess first(arguments("agent", directory, {"--target", all}));
    const json loaded = first.report();
    addAgent(figures_, "load", loaded["seconds"], routes, loaded);
    Reader reader(directory.path());
    reader.check(routes, adjacencies());
    first.stop();

    const auto before = reader.changes();
    ChildProcess second(arguments("agent", directory, {"--target", all, "--target", "0"}));
    const json restarted = second.report();
    addAgent(figures_, "restart", restarted["seconds"], routes, restarted);
    second.report();  // walked
    figures_.add("restart", "changedEntries", static_cast<double>(reader.changes() - before));

    ChildProcess rib(arguments("rib", directory, {"--withdraw"}));
    const json written = rib.report();
    rib.wait();
    const json withdrawn = second.report();
    addAgent(figures_, "withdraw", withdrawn["at"].get<double>() - written["start"].get<double>(), routes, withdrawn);
    figures_.add("withdraw", "writerSeconds", written["end"].get<double>() - written["start"].get<double>());
    reader.check(0, 0);
    second.stop();
  }

  // The agent is up when the routing process begins to write.
  void whileRunning() {
    const BenchDirectory directory(options_.directory);
    const std::size_t routes = options_.workload.routes;
    ChildProcess agent(arguments("agent", directory, {"--target", "0", "--target", std::to_string(routes)}));
    agent.report();
    ChildProcess rib(arguments("rib", directory, {}));
    const json written = rib.report();
    rib.wait();
    const json loaded = agent.report();
    const double seconds = loaded["at"].get<double>() - written["start"].get<double>();
    addAgent(figures_, "load while running", seconds, routes, loaded);
    figures_.add("load while running", "writerSeconds", written["end"].get<double>() - written["start"].get<double>());
    Reader(directory.path()).check(routes, adjacencies());
    agent.stop();
  }

  void rival() {
#ifdef ROUTECACHE_LMDB
    const auto found = runPipelineRival(options_.directory, options_.workload);
    if (found.routes != options_.workload.routes || found.adjacencies != adjacencies()) {
      throw std::runtime_error("the rival has not done the job");
    }
    figures_.add("rival", "seconds", found.loadSeconds);
    figures_.add("rival", "routesPerSecond", static_cast<double>(found.routes) / found.loadSeconds);
#endif
  }

  const Options& options_;
  Figures figures_;
};

// --- The tables that are printed -------------------------------------------------------------------------------------

void print(const Options& options, const Figures& figures) {
  const Workload& workload = options.workload;
  std::printf("%u IPv4 routes, %u VRFs, %u VTEPs, %u next-hop sets of %u; medians of %u runs\n\n", workload.routes,
              workload.vrfs, workload.vteps, workload.nexthopSets, workload.paths, options.runs);
  std::printf("%-20s %9s %12s %12s %14s %14s\n", "", "seconds", "routes/s", "held, ms", "private B/rt", "shared B/rt");
  for (const char* phase : {"load", "load while running", "restart", "withdraw"}) {
    std::printf("%-20s %9.2f %12.0f %12.1f %14.0f %14.0f\n", phase, figures.median(phase, "seconds"),
                figures.median(phase, "routesPerSecond"), 1000 * figures.median(phase, "heldSeconds"),
                figures.median(phase, "RssAnonPerRoute"), figures.median(phase, "RssShmemPerRoute"));
  }
  std::printf("\nstart of an agent (mounting its tables) holds the thread: %.1f ms first, %.1f ms after a restart\n",
              1000 * figures.median("load", "startHeldSeconds"), 1000 * figures.median("restart", "startHeldSeconds"));
  std::printf("published entries changed by the restart: %.0f\n", figures.median("restart", "changedEntries"));
  if (!figures.has("rival")) return;
  std::printf("the same job done plainly over LMDB: %.2f seconds; the agent loads at %.2f times its rate\n",
              figures.median("rival", "seconds"),
              figures.median("load", "routesPerSecond") / figures.median("rival", "routesPerSecond"));
}

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
  count("--routes", workload.routes, "IPv4 routes");
  count("--vrfs", workload.vrfs, "VRFs, which take the routes in turn");
  count("--vteps", workload.vteps, "VTEPs, which the next-hop sets take in turn");
  count("--nexthop-sets", workload.nexthopSets, "Next-hop sets, which the routes take in turn");
  count("--paths", workload.paths, "Next hops of each set");
  program
      .modeIs("agent", "The agent's process", [&] { runPipelineAgent(options.directory, workload, options.targets); })
      .add_option("--target", options.targets, "Report when so many routes are published")
      ->take_all();
  program.modeIs("rib", "The routing process", [&] { runRib(options.directory, workload, options.withdraw); })
      .add_flag("--withdraw", options.withdraw, "Remove all routes instead");
  return program.run<Measurement>(argc, argv, options, print);
}
