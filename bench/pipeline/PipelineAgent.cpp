#include "bench/pipeline/PipelineAgent.h"

#include <cstdint>
#include <fstream>
#include <iostream>
#include <nlohmann/json.hpp>
#include <string_view>

#include "bench/harness/BenchDirectory.h"
#include "bench/harness/ChildProcess.h"
#include "bench/harness/MeasuredLoop.h"
#include "host/AgentHost.h"
#include "host/TableDelivery.h"
#include "linux/loop/EventLoop.h"
#include "platform/values/Paths.h"

namespace Bench {

namespace {

using nlohmann::json;

Tools::AgentHostSettings settingsFor(const std::string& directory, const Workload& workload) {
  Tools::AgentHostSettings settings;
  settings.scenario = directory + "/scenario.json";
  settings.runDir = directory;
  settings.agentLibrary = ROUTECACHE_AGENT;
  settings.agentName = "PipelineBench";
  std::ofstream(settings.scenario) << workload.scenario();
  return settings;
}

// Hosted as the launcher does it, without what operators need. The members stand in the order of their making.
class AgentProcess {
 public:
  AgentProcess(const std::string& directory, const Workload& workload, const std::vector<std::size_t>& targets);
  ~AgentProcess() { host_.stop(); }
  AgentProcess(const AgentProcess&) = delete;
  AgentProcess& operator=(const AgentProcess&) = delete;
  void run();

 private:
  void handleBatchEnd();
  bool settled();
  // Of its table; 0 before it is mounted.
  std::size_t published();
  // An attribute of the software route state machine; empty before there is one.
  std::string attribute(std::string_view name);
  void tell(const char* event);

  const double start_ = monotonicSeconds();
  std::vector<std::size_t> targets_;
  std::size_t reached_ = 0;  // targets
  std::size_t found_ = 0;    // routes that were published at the start
  bool walking_ = false;     // after a restart
  LinuxPlatform::EventLoop loop_;
  Tools::AgentHost host_;
  Tools::TableDelivery delivery_;
};

AgentProcess::AgentProcess(const std::string& directory, const Workload& workload,
                           const std::vector<std::size_t>& targets)
    : targets_(targets),
      host_(settingsFor(directory, workload), loop_),
      delivery_(loop_, host_.openTables([this] { delivery_.wanted(); })) {
  loop_.afterBatchIs([this] { handleBatchEnd(); });
  host_.start([this] { found_ = published(); });
}

void AgentProcess::handleBatchEnd() {
  host_.tables().flush();
  if (walking_ && workDone(loop_, "routeSyncTask") >= found_) {
    walking_ = false;
    tell("walked");
  }
  if (walking_ || reached_ == targets_.size() || !settled()) return;
  tell("settled");
  walking_ = reached_++ == 0 && found_ != 0;
  if (walking_) host_.stateDb().fieldIs(Paths::swRouteSm, "routeSyncInterval", "0");
}

// The queue holds every route that is not published as it should be, unresolved next hops included.
bool AgentProcess::settled() {
  if (published() != targets_[reached_] || attribute("enableRouteProcessing") != "true") return false;
  if (attribute("restart") != "false" || attribute("routeToProcess") != "0") return false;
  std::uint64_t pending = 0;
  for (const auto& task : loop_.statistics()) pending += task.workPending;
  return pending == 0;
}

std::size_t AgentProcess::published() {
  const auto table = host_.tables().entity(Paths::hwRoutes);
  return table ? table->size() : 0;
}

std::string AgentProcess::attribute(std::string_view name) {
  const auto sm = host_.stateDb().entity(Paths::swRouteSm);
  return sm ? sm->entityType().attribute(name)->get(*sm) : "";
}

void AgentProcess::tell(const char* event) {
  const double now = monotonicSeconds();
  json report = {{"event", event},          {"published", published()},   {"at", now},
                 {"seconds", now - start_}, {"memory", residentMemory()}, {"tasks", json::array()}};
  for (const auto& task : loop_.statistics()) {
    if (task.runs == 0) continue;
    report["tasks"].push_back({{"name", task.name},
                               {"runs", task.runs},
                               {"longestSeconds", task.longestRun},
                               {"totalSeconds", task.totalRun},
                               {"workDone", task.workDone}});
  }
  std::cout << report.dump() << std::endl;
}

void AgentProcess::run() {
  loop_.stopOnSignals();
  loop_.run();
}

}  // namespace

void runPipelineAgent(const std::string& directory, const Workload& workload, const std::vector<std::size_t>& targets) {
  AgentProcess(directory, workload, targets).run();
}

}  // namespace Bench
