#include "bench/pipeline/PipelineAgent.h"

#include <sys/epoll.h>

#include <cstdlib>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>

#include "RouteCache/agent/Agent.h"
#include "bench/harness/BenchDirectory.h"
#include "bench/harness/ChildProcess.h"
#include "lib/resolver/UnderlayResolver.h"
#include "lib/statedb/EmbeddedStateDb.h"
#include "lib/statedb/PlatformTypes.h"
#include "lib/statedb/Scenario.h"
#include "linux/files/TraceFile.h"
#include "linux/loop/EventLoop.h"
#include "linux/tables/SharedTableService.h"
#include "platform/values/Paths.h"

namespace Bench {

namespace {

using nlohmann::json;

// Wired as the launcher does it, without what operators need. The members stand in the order of their making.
class AgentProcess {
 public:
  AgentProcess(const std::string& directory, const Workload& workload, const std::vector<std::size_t>& targets);
  void run();

 private:
  template <class T>
  std::shared_ptr<T> entity(const char* path, const char* typeName);
  void loadScenario(const Workload& workload);
  void serveTables();
  void startAgent();
  void deliverTableChanges();
  void handleBatchEnd();
  bool settled() const;
  void tell(const char* event) const;

  const double start_ = monotonicSeconds();
  std::vector<std::size_t> targets_;
  std::size_t reached_ = 0;  // targets
  bool walking_ = false;     // after a restart
  LinuxPlatform::EventLoop loop_;
  LinuxPlatform::FileTraceFacility trace_;
  Lattis::EntityTypes entityTypes_;
  Platform::TableTypes tableTypes_;
  Platform::TraceVocabulary vocabulary_;
  LinuxPlatform::EmbeddedStateDb stateDb_;
  LinuxPlatform::SharedTableService tables_;
  std::unique_ptr<Platform::Task> deliveryTask_;
  std::unique_ptr<LinuxPlatform::UnderlayResolver> resolver_;
  std::unique_ptr<RouteCacheAgent::Agent> agent_;
};

AgentProcess::AgentProcess(const std::string& directory, const Workload& workload,
                           const std::vector<std::size_t>& targets)
    : targets_(targets),
      trace_(directory),
      stateDb_(entityTypes_, loop_),
      tables_(directory, tableTypes_, [this] { deliveryTask_->scheduleWithin(0); }),
      agent_(std::make_unique<RouteCacheAgent::Agent>("PipelineBench")) {
  LinuxPlatform::addPlatformTypes(entityTypes_, tableTypes_);
  agent_->notificationsActiveIs(true);
  agent_->registerTypes(entityTypes_, tableTypes_, vocabulary_);
  loadScenario(workload);
  serveTables();
  startAgent();
}

template <class T>
std::shared_ptr<T> AgentProcess::entity(const char* path, const char* typeName) {
  return std::dynamic_pointer_cast<T>(stateDb_.entityOrNew(path, typeName));
}

void AgentProcess::loadScenario(const Workload& workload) {
  auto types = LinuxPlatform::platformPathTypes();
  types["routecache/capability"] = "RouteCache::Capability";
  stateDb_.entitiesAre(LinuxPlatform::parseScenario(workload.scenario(), "workload", entityTypes_, types));
  resolver_ = std::make_unique<LinuxPlatform::UnderlayResolver>(
      entity<Routing::NexthopConfig>(Paths::nexthopConfig, "Routing::NexthopConfig"),
      entity<Routing::NexthopStatus>(Paths::nexthopStatus, "Routing::NexthopStatus"),
      entity<Routing::UnderlayRouteConfig>(Paths::underlayRoutes, "Routing::UnderlayRouteConfig"), loop_);
}

void AgentProcess::serveTables() {
  tables_.corruptionHandlerIs(
      [](const std::string& path, const std::string& what) { throw Pondra::TableError(path + ": " + what); });
  deliveryTask_ =
      loop_.taskIs("tableDeliveryTask", Platform::TaskPriority::delivery, [this] { deliverTableChanges(); });
  loop_.fdIs(tables_.wakeupFd(), EPOLLIN, [this](std::uint32_t) { tables_.handleWakeup(); });
  loop_.afterBatchIs([this] { handleBatchEnd(); });
}

void AgentProcess::deliverTableChanges() {
  if (!tables_.deliverChanges([this] { return deliveryTask_->shouldYield(); })) deliveryTask_->scheduleWithin(0);
}

void AgentProcess::startAgent() {
  Platform::AgentServices services;
  services.stateDb = &stateDb_;
  services.tables = &tables_;
  services.scheduler = &loop_;
  services.trace = &trace_;
  services.environment = [](const char* name) { return static_cast<const char*>(std::getenv(name)); };
  agent_->servicesIs(services);
  agent_->doInit();
}

void AgentProcess::handleBatchEnd() {
  tables_.flush();
  if (walking_ && !agent_->swRouteSm()->adjIds().retainUnreferenced()) {
    walking_ = false;
    tell("walked");
  }
  if (walking_ || reached_ == targets_.size() || !settled()) return;
  ++reached_;
  tell("settled");
  RouteCache::SwRouteSm& sm = *agent_->swRouteSm();
  walking_ = sm.adjIds().retainUnreferenced();
  if (!walking_) return;
  sm.routeSyncIntervalIs(0);
  sm.scheduleRouteSyncTask(0);
  sm.scheduleRoute6SyncTask(0);
}

// The queue holds every route that is not published as it should be, unresolved next hops included.
bool AgentProcess::settled() const {
  const auto& sm = agent_->swRouteSm();
  if (!sm || !sm->enableRouteProcessing() || sm->restart() || sm->routeToProcessCount() != 0) return false;
  if (agent_->ipv4RouteStatus()->size() != targets_[reached_]) return false;
  std::uint64_t pending = 0;
  for (const auto& task : loop_.statistics()) pending += task.workPending;
  return pending == 0;
}

void AgentProcess::tell(const char* event) const {
  const double now = monotonicSeconds();
  json report = {{"event", event},
                 {"published", agent_->ipv4RouteStatus()->size()},
                 {"at", now},
                 {"seconds", now - start_},
                 {"memory", residentMemory()},
                 {"tasks", json::array()}};
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
