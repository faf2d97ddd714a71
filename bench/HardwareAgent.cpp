#include "bench/HardwareAgent.h"

#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <iostream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "RouteCache/RouteCacheHwRouteSm.h"
#include "bench/BenchDirectory.h"
#include "bench/ChildProcess.h"
#include "bench/HardwareRival.h"
#include "linux/SharedTable.h"
#include "linux/TaskScheduler.h"
#include "linux/TraceFile.h"
#include "platform/Trie.h"
#include "tools/Common.h"

namespace Bench {

namespace {

using nlohmann::json;
using Pondra::MountKind;
using RouteCache::HwRouteSm;
using RouteCache::Ipv4HitBitStatus;
using RouteCache::Ipv4RouteStatus;

// Passes tasks on to the event loop and keeps the times of the longest runs.
class RunTimer final : public Platform::TaskScheduler {
 public:
  explicit RunTimer(LinuxPlatform::EventLoop& loop) : loop_(loop) {}
  std::unique_ptr<Platform::Task> taskIs(std::string_view name, Platform::TaskPriority priority,
                                         std::function<void()> body) override {
    return loop_.taskIs(name, priority, [this, body = std::move(body)] {
      const Stopwatch run;
      body();
      held = std::max(held, run.seconds());
      heldCpu = std::max(heldCpu, run.cpuSeconds());
    });
  }
  double now() const override { return loop_.now(); }
  std::vector<Platform::TaskStatistics> statistics() const override { return loop_.statistics(); }

  double held = 0;  // seconds
  double heldCpu = 0;

 private:
  LinuxPlatform::EventLoop& loop_;
};

double privateBytes() {
  return residentMemory()["RssAnon"];
}

// What both processes report of one command.
json report(const Stopwatch& stopwatch, double bytesBefore, std::uint64_t checksum) {
  return {{"seconds", stopwatch.seconds()},
          {"cpuSeconds", stopwatch.cpuSeconds()},
          {"memory", residentMemory()},
          {"grownBytes", privateBytes() - bytesBefore},
          {"checksum", checksum}};
}

void obey(const std::function<json(std::istream& command)>& obeyed) {
  for (std::string line; std::getline(std::cin, line);) {
    std::istringstream command(line);
    std::cout << obeyed(command).dump() << std::endl;
  }
}

// The members stand in the order of their making.
class HardwareAgent {
 public:
  HardwareAgent(const std::string& directory, const HardwareWorkload& workload);
  json obeyed(std::istream& command);

 private:
  RouteCache::HwRouteSmInputs inputs();
  void deliver();
  bool isSettled();
  json settle();
  json scan();
  json serve(bool scanning);
  json uncache();
  json work(const std::function<bool()>& isOver);
  void levelsAre(std::uint8_t low, std::uint16_t idleTime);
  std::uint64_t slicesChecksum() const;
  std::uint64_t decided() const;

  // No scan but those that are asked for.
  static constexpr double never = 1e9;

  const HardwareWorkload& workload_;
  LinuxPlatform::EventLoop loop_;
  RunTimer tasks_{loop_};
  LinuxPlatform::FileTraceFacility trace_;
  Platform::TableTypes types_ = Tools::allTableTypes();
  LinuxPlatform::SharedTableService tables_;
  std::unique_ptr<Platform::Task> deliveryTask_;
  std::shared_ptr<RouteCache::CliConfig> levels_ = std::make_shared<RouteCache::CliConfig>("cliconfig");
  std::shared_ptr<Routing::Trie> trie_ = std::make_shared<Routing::Trie>();
  std::shared_ptr<HwRouteSm> sm_;
  double bytesBefore_ = 0;  // with the state machine started and nothing done
};

HardwareAgent::HardwareAgent(const std::string& directory, const HardwareWorkload& workload)
    : workload_(workload), trace_(directory), tables_(directory, types_, [this] { deliveryTask_->scheduleWithin(0); }) {
  deliveryTask_ = tasks_.taskIs("tableDeliveryTask", Platform::TaskPriority::delivery, [this] { deliver(); });
  loop_.fdIs(tables_.wakeupFd(), EPOLLIN, [this](std::uint32_t) { tables_.handleWakeup(); });
  loop_.afterBatchIs([this] { tables_.flush(); });
  levelsAre(100, 0);
  sm_ = std::make_shared<HwRouteSm>(inputs(), tasks_, trace_);
  sm_->hwHitbitScanIntervalIs(never);
  sm_->handleInitialized();
  bytesBefore_ = privateBytes();
}

RouteCache::HwRouteSmInputs HardwareAgent::inputs() {
  const auto capability = std::make_shared<RouteCache::Capability>("capability");
  capability->hwRouteTableSizeIs(workload_.capacity());
  trie_->routeIs(HardwareWorkload::cachedPrefix(), true);
  const auto tries = RouteCache::vrfCachedRouteFactory("vrfCachedRoute");
  tries->vrfTrieIs(HardwareWorkload::hwVrfId, trie_);
  return {mounted<Ipv4RouteStatus>(tables_, hwRoutePath, MountKind::writer, workload_.capacity()),
          std::make_shared<RouteCache::Config>("config"),
          levels_,
          mounted<Ipv4RouteStatus>(tables_, sfeRoutePath, MountKind::reader),
          mounted<Ipv4HitBitStatus>(tables_, hwHitBitPath, MountKind::reader),
          mounted<Ipv4HitBitStatus>(tables_, sfeHitBitPath, MountKind::reader),
          capability,
          tries,
          nullptr};
}

void HardwareAgent::deliver() {
  if (!tables_.deliverChanges([this] { return deliveryTask_->shouldYield(); })) deliveryTask_->scheduleWithin(0);
}

void HardwareAgent::levelsAre(std::uint8_t low, std::uint16_t idleTime) {
  levels_->highThresholdHwUtilPercentageIs(100);
  levels_->mediumThresholdHwUtilPercentageIs(100);
  levels_->lowThresholdHwUtilPercentageIs(low);
  levels_->highThresholdIdleTimeIs(idleTime);
  levels_->mediumThresholdIdleTimeIs(idleTime);
  levels_->lowThresholdIdleTimeIs(idleTime);
}

json HardwareAgent::obeyed(std::istream& command) {
  std::string word;
  command >> word;
  if (word == "settle") return settle();
  if (word == "scan") return scan();
  if (word == "uncache") return uncache();
  if (word == "serve") return serve(command >> word && word == "scan");
  unsigned low = 0, idleTime = 0;
  if (word != "levels" || !(command >> low >> idleTime)) throw std::runtime_error("what is '" + word + "'?");
  levelsAre(static_cast<std::uint8_t>(low), static_cast<std::uint16_t>(idleTime));
  return json::object();
}

// Nothing to deliver, and no task but the next scan: what waits for its turn comes within seconds.
bool HardwareAgent::isSettled() {
  if (tables_.pendingChanges()) {
    deliveryTask_->scheduleWithin(0);
    return false;
  }
  return loop_.nextDue() > loop_.now() + never / 2;
}

json HardwareAgent::settle() {
  return work([this] { return isSettled(); });
}

json HardwareAgent::scan() {
  sm_->scheduleHwHitbitScanTask(0);
  return settle();
}

json HardwareAgent::serve(bool scanning) {
  bool isTold = false;
  loop_.fdIs(STDIN_FILENO, EPOLLIN, [&isTold](std::uint32_t) { isTold = true; });
  if (scanning) {
    sm_->hwHitbitScanIntervalIs(1e-6);
    sm_->scheduleHwHitbitScanTask(0);
  }
  json served = work([&isTold] { return isTold; });
  loop_.fdDel(STDIN_FILENO);
  sm_->hwHitbitScanIntervalIs(never);
  std::string line;
  std::getline(std::cin, line);
  return served;
}

json HardwareAgent::uncache() {
  for (std::uint32_t i = 0; i < workload_.otherPrefixes(); ++i) trie_->routeIs(workload_.otherPrefix(i), true);
  const Stopwatch removing;
  for (std::uint32_t i = 0; i < workload_.otherPrefixes(); ++i) trie_->routeDel(workload_.otherPrefix(i));
  const double removingSeconds = removing.seconds();
  json settled = settle();
  settled["removingSeconds"] = removingSeconds;
  return settled;
}

json HardwareAgent::work(const std::function<bool()>& isOver) {
  tasks_.held = tasks_.heldCpu = 0;
  const std::uint64_t agedBefore = sm_->aged();
  const std::uint64_t decidedBefore = decided();
  double ageing = 0, ageingCpu = 0;  // of the batches of runs that have aged
  const Stopwatch whole;
  while (!isOver()) {
    const std::uint64_t aged = sm_->aged();
    const Stopwatch batch;
    loop_.runOnce(1);
    if (sm_->aged() == aged) continue;
    ageing += batch.seconds();
    ageingCpu += batch.cpuSeconds();
  }
  json done = report(whole, bytesBefore_, slicesChecksum());
  done.update({{"heldSeconds", tasks_.held},
               {"heldCpuSeconds", tasks_.heldCpu},
               {"aged", sm_->aged() - agedBefore},
               {"ageing", {{"seconds", ageing}, {"cpuSeconds", ageingCpu}}},
               {"decided", decided() - decidedBefore}});
  return done;
}

std::uint64_t HardwareAgent::slicesChecksum() const {
  std::uint64_t sum = 0;
  for (std::uint16_t slice = 0; const auto coll = sm_->hwHitbitColl(slice); ++slice) sum += slice * coll->size();
  return sum;
}

// Routes that the route-processing task has looked at.
std::uint64_t HardwareAgent::decided() const {
  for (const auto& task : loop_.statistics()) {
    if (task.name == "hwRouteProcessingTask") return task.workDone;
  }
  return 0;
}

}  // namespace

void runHardwareAgent(const std::string& directory, const HardwareWorkload& workload) {
  HardwareAgent agent(directory, workload);
  obey([&agent](std::istream& command) { return agent.obeyed(command); });
}

void runPlainSlices(const std::string& directory) {
  const auto types = Tools::allTableTypes();
  LinuxPlatform::SharedTableService tables(directory, types);
  const auto routes = mounted<Ipv4RouteStatus>(tables, hwRoutePath, MountKind::keyedReader);
  const auto hitBits = mounted<Ipv4HitBitStatus>(tables, hwHitBitPath, MountKind::keyedReader);
  PlainSlices slices(*routes, *hitBits);
  const double bytesBefore = privateBytes();
  obey([&slices, bytesBefore](std::istream& command) {
    std::string word;
    command >> word;
    const Stopwatch whole;
    word == "scan" ? slices.scan() : slices.fileAll();
    return report(whole, bytesBefore, slices.checksum());
  });
}

}  // namespace Bench
