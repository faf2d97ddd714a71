#include "bench/hardware/HardwareAgent.h"

#include <sys/epoll.h>
#include <unistd.h>

#include <functional>
#include <iostream>
#include <nlohmann/json.hpp>
#include <utility>

#include "RouteCache/hw/HwRouteSm.h"
#include "bench/hardware/HardwareRival.h"
#include "bench/harness/MeasuredLoop.h"
#include "bench/harness/Tables.h"
#include "platform/tables/Trie.h"
#include "platform/values/Paths.h"

namespace Bench {

namespace {

using nlohmann::json;
using RouteCache::HwRouteSm;
using RouteCache::Ipv4AdjacencyStatus;
using RouteCache::Ipv4HitBitStatus;
using RouteCache::Ipv4RouteStatus;
using RouteCache::Ipv6AdjacencyStatus;

// The members stand in the order of their making.
class HardwareAgent {
 public:
  HardwareAgent(const std::string& directory, const HardwareWorkload& workload);
  json obeyed(std::istream& command);

 private:
  RouteCache::HwRouteSmInputs inputs();
  json settle();
  json scan();
  json serve(bool scanning);
  json uncache();
  json work(const std::function<bool()>& isOver);
  void levelsAre(std::uint8_t low, std::uint16_t idleTime);
  std::uint64_t slicesChecksum() const;
  // Routes that the route-processing task has looked at.
  std::uint64_t decided() { return workDone(loop_.tasks(), "hwRouteProcessingTask"); }

  const HardwareWorkload& workload_;
  MeasuredLoop loop_;
  std::shared_ptr<RouteCache::CliConfig> levels_ = std::make_shared<RouteCache::CliConfig>("cliconfig");
  std::shared_ptr<Routing::Trie> trie_ = std::make_shared<Routing::Trie>();
  std::shared_ptr<HwRouteSm> sm_;
};

HardwareAgent::HardwareAgent(const std::string& directory, const HardwareWorkload& workload)
    : workload_(workload), loop_(directory) {
  levelsAre(100, 0);
  sm_ = std::make_shared<HwRouteSm>(inputs(), loop_.tasks(), loop_.trace());
  sm_->hwHitbitScanIntervalIs(MeasuredLoop::never);  // no scan but those that are asked for
  sm_->handleInitialized();
  loop_.started();
}

RouteCache::HwRouteSmInputs HardwareAgent::inputs() {
  const auto capability = std::make_shared<RouteCache::Capability>("capability");
  capability->hwRouteTableSizeIs(workload_.capacity());
  trie_->routeIs(HardwareWorkload::cachedPrefix(), true);
  const auto tries = RouteCache::vrfCachedRouteFactory("vrfCachedRoute");
  tries->vrfTrieIs(HardwareWorkload::hwVrfId, trie_);
  const auto adjacencies =
      loop_.tables().writer<Ipv4AdjacencyStatus>(Paths::adjacencies, HardwareWorkload::adjacencies);
  for (std::uint32_t id = 1; id <= HardwareWorkload::adjacencies; ++id) {
    adjacencies->adjIs(RouteCache::Ipv4Via(RouteCache::AdjId(id)));
  }
  return {loop_.tables().writer<Ipv4RouteStatus>(Paths::hwRoutes, workload_.capacity()),
          std::make_shared<RouteCache::Config>("config"),
          levels_,
          loop_.tables().follower<Ipv4RouteStatus>(Paths::sfeRoutes),
          loop_.tables().follower<Ipv4HitBitStatus>(Paths::hwHitBits),
          loop_.tables().follower<Ipv4HitBitStatus>(Paths::sfeHitBits),
          capability,
          tries,
          nullptr,
          adjacencies,
          loop_.tables().writer<Ipv6AdjacencyStatus>(Paths::adjacencies6, 1)};
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

json HardwareAgent::settle() {
  return work([this] { return loop_.isSettled(); });
}

json HardwareAgent::scan() {
  sm_->scheduleHwHitbitScanTask(0);
  return settle();
}

json HardwareAgent::serve(bool scanning) {
  bool isTold = false;
  loop_.loop().fdIs(STDIN_FILENO, EPOLLIN, [&isTold](std::uint32_t) { isTold = true; });
  if (scanning) {
    sm_->hwHitbitScanIntervalIs(1e-6);
    sm_->scheduleHwHitbitScanTask(0);
  }
  json served = work([&isTold] { return isTold; });
  loop_.loop().fdDel(STDIN_FILENO);
  sm_->hwHitbitScanIntervalIs(MeasuredLoop::never);
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
  const std::uint64_t agedBefore = sm_->aged();
  const std::uint64_t decidedBefore = decided();
  double ageing = 0, ageingCpu = 0;  // of the batches of runs that have aged
  std::uint64_t aged = agedBefore;
  Stopwatch batch;
  json done = loop_.work([&] {
    if (std::exchange(aged, sm_->aged()) != sm_->aged()) {
      ageing += batch.seconds();
      ageingCpu += batch.cpuSeconds();
    }
    batch = Stopwatch();
    return isOver();
  });
  done.update({{"checksum", slicesChecksum()},
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

}  // namespace

void runHardwareAgent(const std::string& directory, const HardwareWorkload& workload) {
  HardwareAgent agent(directory, workload);
  obey([&agent](std::istream& command) { return agent.obeyed(command); });
}

void runPlainSlices(const std::string& directory) {
  Tables tables(directory);
  const auto routes = tables.reader<Ipv4RouteStatus>(Paths::hwRoutes);
  const auto hitBits = tables.reader<Ipv4HitBitStatus>(Paths::hwHitBits);
  PlainSlices slices(*routes, *hitBits);
  const double bytesBefore = privateBytes();
  obey([&slices, bytesBefore](std::istream& command) {
    std::string word;
    command >> word;
    const Stopwatch whole;
    word == "scan" ? slices.scan() : slices.fileAll();
    json report = workReport(whole, bytesBefore);
    report["checksum"] = slices.checksum();
    return report;
  });
}

}  // namespace Bench
