#include "bench/show/ShowSwitch.h"

#include <algorithm>
#include <chrono>
#include <fstream>
#include <stdexcept>
#include <thread>

#include "platform/values/Paths.h"
#include "platform/values/Text.h"

namespace Bench {

namespace {

// More than anything here may take.
constexpr double patience = 600;

// The agent has begun the walks that it puts off after a start.
constexpr double firstWalks = 6;

void sleep(double seconds) {
  std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
}

}  // namespace

Tools::Json showRequest(const std::string& command, bool asJson) {
  return {{"op", "command"},
          {"type", RouteCache::CommandTexts::type},
          {"command", command},
          {"format", asJson ? "json" : "text"}};
}

std::string listingCommand() {
  return std::string(RouteCache::CommandTexts::routes).append(RouteCache::CommandTexts::vrfMark) +
         Workload::vrfName(listedVrf);
}

ShowSwitch::ShowSwitch(const std::string& parentDirectory, const Workload& workload, std::uint32_t furtherRoutes)
    : directory_(parentDirectory), tables_(directory_.path()), rib_(tables_.service(), [] {}) {
  rib_.apply(workload.ribOf(listedVrf, workload.routes, 1), workload.routes + furtherRoutes);
  tables_.service().flush();
  const Stopwatch running;
  start(workload, furtherRoutes);
  published_ = tables_.reader<RouteCache::Ipv4RouteStatus>(Paths::hwRoutes);
  awaitPublished(workload.routes);
  while (running.seconds() < firstWalks) sleep(0.1);
  settle();
}

void ShowSwitch::start(const Workload& workload, std::uint32_t furtherRoutes) {
  Workload whole = workload;
  whole.routes += furtherRoutes;
  const std::string scenario = directory_.path() + "/scenario.json";
  std::ofstream(scenario) << whole.scenario();
  launcher_ = std::make_unique<ChildProcess>(
      std::vector<std::string>{"run", "--scenario", scenario, "--run-dir", directory_.path()}, ROUTECACHE_PROGRAM);
  launcher_->line();  // where its state is from
  launcher_->line();  // ready
}

void ShowSwitch::show(const std::string& command, bool asJson,
                      const std::function<void(std::string_view)>& content) const {
  Tools::askAgentForBytes(directory_.path(), showRequest(command, asJson), content);
}

double ShowSwitch::load(const Tools::RibChange& further) {
  const std::size_t expected = published_->size() + further.routes.size();
  const Stopwatch stopwatch;
  rib_.apply(further);
  tables_.service().flush();
  awaitPublished(expected);
  return stopwatch.seconds();
}

void ShowSwitch::withdraw() {
  const std::size_t before = rib_.counts().routesRemoved;
  const std::size_t published = published_->size();
  rib_.remove([](const Routing::Rib::RouteKey& key) { return key.vrfId() == loadedVrf; });
  tables_.service().flush();
  awaitPublished(published - (rib_.counts().routesRemoved - before));
  settle();
}

void ShowSwitch::awaitPublished(std::size_t routes) const {
  const Stopwatch waiting;
  while (published_->size() != routes) {
    if (waiting.seconds() > patience) throw std::runtime_error("the agent does not publish all routes");
    sleep(0.001);
  }
}

// Until no task has run for a while.
void ShowSwitch::settle() const {
  constexpr double quiet = 1.5;
  std::uint64_t runsBefore = 0;
  Stopwatch waiting;
  Stopwatch unchanged;
  while (unchanged.seconds() < quiet) {
    std::uint64_t runs = 0;
    Tools::askAgent(directory_.path(), {{"op", "tasks"}}, [&runs](const Tools::Json& task) {
      if (task.value("name", "") == "tablePollTask") return;  // every second, whatever happens
      runs += Platform::fromText<std::uint64_t>(task.value("runs", ""));
    });
    if (runs != runsBefore) unchanged = Stopwatch();
    runsBefore = runs;
    if (waiting.seconds() > patience) throw std::runtime_error("the agent does not come to rest");
    sleep(0.5);
  }
}

double ShowSwitch::longestTurn() const {
  double longest = 0;
  Tools::askAgent(
      directory_.path(), {{"op", "get"}, {"path", "platform/control"}, {"field", "longestTurn"}},
      [&longest](const Tools::Json& field) { longest = Platform::fromText<double>(field.value("value", "")); });
  return longest;
}

double ShowSwitch::longestTask() const {
  double longest = 0;
  Tools::askAgent(directory_.path(), {{"op", "tasks"}}, [&longest](const Tools::Json& task) {
    if (task.value("name", "") == "stateDbMountTask") return;  // the start itself
    longest = std::max(longest, Platform::fromText<double>(task.value("longestRun", "")));
  });
  return longest;
}

}  // namespace Bench
