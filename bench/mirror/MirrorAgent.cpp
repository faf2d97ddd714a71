#include "bench/mirror/MirrorAgent.h"

#include <nlohmann/json.hpp>
#include <stdexcept>

#include "RouteCache/kernel/KernelRouteSm.h"
#include "bench/harness/MeasuredLoop.h"
#include "bench/harness/Tables.h"
#include "platform/tables/Trie.h"
#include "platform/values/Paths.h"
#include "simulator/routing/RibWriter.h"

namespace Bench {

namespace {

using nlohmann::json;
using Routing::Rib::RouteConfig;

// The members stand in the order of their making.
class MirrorAgent {
 public:
  MirrorAgent(const std::string& directory, const MirrorWorkload& workload);
  json obeyed(std::istream& command);

 private:
  RouteCache::KernelRouteSmInputs inputs();
  void vrfsAre(RouteCache::VrfIdMap& ids, RouteCache::VrfCachedRoute& tries);
  json counted(const std::function<json()>& work);
  json flap();

  const MirrorWorkload& workload_;
  MeasuredLoop loop_;
  std::shared_ptr<Routing::Trie> trie_;  // of the first VRF
  std::shared_ptr<RouteCache::KernelRouteSm> sm_;
};

MirrorAgent::MirrorAgent(const std::string& directory, const MirrorWorkload& workload)
    : workload_(workload), loop_(directory) {
  sm_ = std::make_shared<RouteCache::KernelRouteSm>(inputs(), loop_.tasks(), loop_.trace());
  sm_->routeProcessingIntervalDeferIs(MeasuredLoop::never);  // no kernel walk but the one that is asked for
  sm_->handleInitialized();
  loop_.started();
}

RouteCache::KernelRouteSmInputs MirrorAgent::inputs() {
  const auto capability = std::make_shared<RouteCache::Capability>("capability");
  capability->hwRouteTableSizeIs(workload_.capacity());
  const auto ids = RouteCache::vrfIdMapFactory("vrfIdMap");
  const auto tries = RouteCache::vrfCachedRouteFactory("vrfCachedRoute");
  vrfsAre(*ids, *tries);
  auto& tables = loop_.tables();
  return {tables.follower<RouteCache::Ipv4RouteStatus>(Paths::hwRoutes),
          tables.follower<RouteCache::Ipv6RouteStatus>(Paths::hw6Routes),
          tables.writer<RouteConfig>(Paths::kernelRoutes, workload_.capacity() + 2048),
          capability,
          ids,
          tries,
          tables.follower<RouteConfig>(Paths::ribRoutes),
          tables.follower<RouteConfig>(Paths::rib6Routes)};
}

void MirrorAgent::vrfsAre(RouteCache::VrfIdMap& ids, RouteCache::VrfCachedRoute& tries) {
  for (std::uint32_t i = 0; i < MirrorWorkload::vrfs; ++i) {
    const std::uint32_t piVrfId = MirrorWorkload::firstVrf + i;
    const std::uint32_t hwVrfId = Workload::hwVrfId(piVrfId);
    ids.hwVrfIdToGlobalVrfIdIs(hwVrfId, piVrfId);
    ids.globalVrfIdToHwVrfIdIs(piVrfId, hwVrfId);
    auto trie = std::make_shared<Routing::Trie>();
    trie->routeIs(MirrorWorkload::cachedPrefix(), true);
    tries.vrfTrieIs(hwVrfId, trie);
    if (i == 0) trie_ = trie;
  }
}

json MirrorAgent::obeyed(std::istream& command) {
  std::string word;
  command >> word;
  if (word == "flap") return counted([this] { return flap(); });
  if (word == "sync") {
    sm_->scheduleKernelRouteSyncTask(0);
  } else if (word == "default") {
    command >> word;
    word == "on" ? trie_->routeIs(MirrorWorkload::cachedDefaultRoute(), true)
                 : trie_->routeDel(MirrorWorkload::cachedDefaultRoute());
  } else if (word != "settle") {
    throw std::runtime_error("what is '" + word + "'?");
  }
  return counted([this] { return loop_.settle(); });
}

json MirrorAgent::counted(const std::function<json()>& work) {
  const auto decided = [this] { return workDone(loop_.tasks(), "ipv4RouteProcessingTask"); };
  const std::uint64_t written = sm_->written();
  const std::uint64_t deleted = sm_->deleted();
  const std::uint64_t decidedBefore = decided();
  json done = work();
  done.update({{"written", sm_->written() - written},
               {"deleted", sm_->deleted() - deleted},
               {"decided", decided() - decidedBefore}});
  return done;
}

json MirrorAgent::flap() {
  std::uint32_t left = 2 * workload_.flaps();
  return loop_.work([this, &left] {
    if (!loop_.isIdle()) return false;
    if (left == 0) return true;
    left-- % 2 == 0 ? trie_->routeIs(MirrorWorkload::flappingPrefix(), true)
                    : trie_->routeDel(MirrorWorkload::flappingPrefix());
    return false;
  });
}

}  // namespace

void runMirrorAgent(const std::string& directory, const MirrorWorkload& workload) {
  MirrorAgent agent(directory, workload);
  obey([&agent](std::istream& command) { return agent.obeyed(command); });
}

}  // namespace Bench
