#include "bench/pipeline/PipelineAgent.h"

#include <sys/epoll.h>
#include <unistd.h>

#include <cstdint>
#include <fstream>
#include <iostream>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string_view>

#include "RouteCache/RouteCache.h"
#include "bench/harness/BenchDirectory.h"
#include "bench/harness/ChildProcess.h"
#include "bench/harness/MeasuredLoop.h"
#include "host/AgentHost.h"
#include "linux/loop/EventLoop.h"
#include "platform/values/Paths.h"

namespace Bench {

namespace {

using nlohmann::json;
using Platform::Task;

Tools::AgentHostSettings settingsFor(const std::string& directory, const Workload& workload) {
  Tools::AgentHostSettings settings;
  settings.scenario = directory + "/scenario.json";
  settings.runDir = directory;
  settings.agentLibrary = ROUTECACHE_AGENT;
  settings.agentName = "PipelineBench";
  std::ofstream(settings.scenario) << workload.scenario();
  return settings;
}

// --- The agent's scheduler -------------------------------------------------------------------------------------------

// What is to be done after some time is done at once.
class ImmediateTask final : public Task {
 public:
  explicit ImmediateTask(std::unique_ptr<Task> task) : task_(std::move(task)) {}
  void scheduleWithin(double /*delay*/) override { task_->scheduleWithin(0); }
  bool shouldYield() override { return task_->shouldYield(); }
  void workCountIs(std::uint64_t handled) override { task_->workCountIs(handled); }
  void workPendingIs(std::uint64_t pending) override { task_->workPendingIs(pending); }

 private:
  std::unique_ptr<Task> task_;
};

class AgentScheduler final : public Platform::TaskScheduler {
 public:
  explicit AgentScheduler(RunTimer& tasks) : tasks_(tasks) {}
  std::unique_ptr<Task> taskIs(std::string_view name, Platform::TaskPriority priority,
                               std::function<void()> body) override {
    auto task = tasks_.taskIs(name, priority, std::move(body));
    const bool waits = name == "routeSyncTask" || name == "route6SyncTask" || name == "kernelRouteSyncTask";
    return waits ? std::make_unique<ImmediateTask>(std::move(task)) : std::move(task);
  }
  double now() const override { return tasks_.now(); }
  std::vector<Platform::TaskStatistics> statistics() const override { return tasks_.statistics(); }

 private:
  RunTimer& tasks_;
};

// --- The agent's process ---------------------------------------------------------------------------------------------

// Hosted as the launcher does it, without what operators need. The members stand in the order of their making.
class AgentProcess {
 public:
  AgentProcess(const std::string& directory, const Workload& workload);
  ~AgentProcess() { host_.stop(); }
  AgentProcess(const AgentProcess&) = delete;
  AgentProcess& operator=(const AgentProcess&) = delete;
  void run() { loop_.run(); }

 private:
  struct Goal {
    bool isReconciled = false;  // the tables; otherwise so many routes are settled
    std::size_t routes = 0;
    std::size_t waiting = 0;
  };

  void handleReady();
  void handleCommand();
  void obey(std::istream& command);
  void handleBatchEnd();
  bool isReached(const Goal& goal);
  bool isPublished(std::size_t routes);
  bool isAtRest(std::size_t waiting);
  bool isReconciled();
  std::size_t sizeOf(const char* path);
  // An attribute of one of the state machines; empty before it is there.
  std::string attribute(const char* path, std::string_view name);
  void answer(bool isGoal);

  const double start_ = monotonicSeconds();
  const Workload& workload_;
  std::optional<Goal> goal_;
  double startSeconds_ = 0;
  double cpuBefore_ = 0;  // when counting began
  LinuxPlatform::EventLoop loop_;
  RunTimer timer_{loop_};
  AgentScheduler scheduler_{timer_};
  Tools::AgentHost host_;
  TimedDelivery delivery_;
};

AgentProcess::AgentProcess(const std::string& directory, const Workload& workload)
    : workload_(workload),
      host_(settingsFor(directory, workload), scheduler_),
      delivery_(timer_, host_.openTables([this] { delivery_.wanted(); })) {
  loop_.afterBatchIs([this] { handleBatchEnd(); });
  loop_.fdIs(STDIN_FILENO, EPOLLIN, [this](std::uint32_t) { handleCommand(); });
  timer_.run("start", [this] { host_.start([this] { handleReady(); }); });
}

void AgentProcess::handleReady() {
  if (workload_.caching) host_.stateDb().fieldIs(Paths::hwRouteSm, "enableRouteCache", "true");
  startSeconds_ = monotonicSeconds() - start_;
  cpuBefore_ = processorSeconds(0);
}

void AgentProcess::handleCommand() {
  std::string line;
  if (!std::getline(std::cin, line)) return loop_.stop();
  std::istringstream command(line);
  obey(command);
}

void AgentProcess::obey(std::istream& command) {
  std::string word, path, field;
  command >> word;
  if (word == "settle") {
    Goal goal;
    command >> goal.routes >> goal.waiting;
    goal_ = goal;
    return;
  }
  if (word == "reconcile") {
    goal_ = {.isReconciled = true};
    return;
  }
  command >> path >> field;
  if (word == "del") {
    host_.stateDb().fieldDel(path, field);
  } else if (std::string value; word == "set" && command >> value) {
    host_.stateDb().fieldIs(path, field, value);
  } else {
    throw std::runtime_error("what is '" + word + "'?");
  }
  answer(false);
}

void AgentProcess::handleBatchEnd() {
  host_.tables().flush();
  if (!goal_ || !isReached(*goal_)) return;
  goal_.reset();
  answer(true);
}

bool AgentProcess::isReached(const Goal& goal) {
  if (goal.isReconciled) return isReconciled();
  return isPublished(goal.routes) && isAtRest(goal.waiting);
}

bool AgentProcess::isPublished(std::size_t routes) {
  for (const char* path : {Paths::hwRoutes, Paths::kernelRoutes}) {
    if (sizeOf(path) != routes) return false;
  }
  return !workload_.caching || sizeOf(Paths::sfeRoutes) == routes;
}

// Walks make pauses; what else is done later is looked after in rounds, of which there is no end: by the tasks that
// look at routes that wait, and by the scan of hit bits.
bool AgentProcess::isAtRest(std::size_t waiting) {
  static const std::set<std::string_view> rounds{"routeProcessingTask", "leftoverProcessingTask", "hwHitbitScanTask"};
  constexpr double longestPause = 0.002;
  if (loop_.nextDue() <= loop_.now() + longestPause || !delivery_.isDone()) return false;
  if (attribute(Paths::swRouteSm, "enableRouteProcessing") != "true") return false;
  if (attribute(Paths::swRouteSm, "routeToProcess") != std::to_string(waiting)) return false;
  std::uint64_t pending = 0;
  for (const auto& task : loop_.statistics()) {
    if (!rounds.contains(task.name)) pending += task.workPending;
  }
  return pending == 0;
}

bool AgentProcess::isReconciled() {
  for (const char* path : {Paths::hwRoutes, Paths::hw6Routes, Paths::kernelRoutes, Paths::adjacencies,
                           Paths::adjacencies6, Paths::unprogrammed, Paths::sfeRoutes}) {
    const auto table = host_.tables().entity(path);
    if (!table || !table->reconciled()) return false;
  }
  return true;
}

std::size_t AgentProcess::sizeOf(const char* path) {
  const auto table = host_.tables().entity(path);
  return table ? table->size() : 0;
}

std::string AgentProcess::attribute(const char* path, std::string_view name) {
  const auto sm = host_.stateDb().entity(path);
  return sm ? sm->entityType().attribute(name)->get(*sm) : "";
}

void AgentProcess::answer(bool isGoal) {
  const double now = monotonicSeconds();
  json report = {{"at", now}};
  if (isGoal) {
    report.update({{"seconds", now - start_},
                   {"startSeconds", startSeconds_},
                   {"cpuSeconds", processorSeconds(0) - cpuBefore_},
                   {"memory", residentMemory()},
                   {"held", json::object()}});
    for (const auto& [name, run] : timer_.takeLongestRuns()) {
      if (run.seconds > 0) report["held"][name] = {run.seconds, run.cpuSeconds};
    }
    cpuBefore_ = processorSeconds(0);
  }
  std::cout << report.dump() << std::endl;
}

}  // namespace

void runPipelineAgent(const std::string& directory, const Workload& workload) {
  AgentProcess(directory, workload).run();
}

}  // namespace Bench
