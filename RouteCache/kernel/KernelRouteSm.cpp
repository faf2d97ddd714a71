#include "RouteCache/kernel/KernelRouteSm.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "platform/values/Assert.h"

namespace RouteCache {

using Platform::TaskPriority;

// --- Families --------------------------------------------------------------------------------------------------------

struct KernelRouteSm::V4 {
  using Key = Ipv4RouteVrfKey;
  using Trie = Routing::Trie;
  using Reactor = KernelRouteSm::TrieReactor;
  static constexpr std::string_view walkText = "scheduleSwIpv4RouteStatusWalk for hwVrfId: ";
  static auto& side(KernelRouteSm& sm) { return sm.v4_; }
  static const auto& side(const KernelRouteSm& sm) { return sm.v4_; }
  static const Ipv4RouteStatus& routes(const KernelRouteSm& sm) { return *sm.in_.swIpv4RouteStatus; }
  static const Routing::Rib::RouteConfig& config(const KernelRouteSm& sm) { return *sm.in_.routeConfig; }
  static std::shared_ptr<Trie> trie(const KernelRouteSm& sm, std::uint32_t hwVrfId) {
    return sm.in_.vrfCachedRoute->vrfTrie(hwVrfId);
  }
  static auto tries(const KernelRouteSm& sm) { return sm.in_.vrfCachedRoute->vrfTries(); }
  static void handleCachedRoute(KernelRouteSm& sm, const Key& key) { sm.handleIpv4CachedRoute(key); }
};

struct KernelRouteSm::V6 {
  using Key = Ipv6RouteVrfKey;
  using Trie = Routing6::Trie;
  using Reactor = KernelRouteSm::Trie6Reactor;
  static constexpr std::string_view walkText = "scheduleSwIpv6RouteStatusWalk for hwVrfId: ";
  static auto& side(KernelRouteSm& sm) { return sm.v6_; }
  static const auto& side(const KernelRouteSm& sm) { return sm.v6_; }
  static const Ipv6RouteStatus& routes(const KernelRouteSm& sm) { return *sm.in_.swIpv6RouteStatus; }
  static const Routing::Rib::RouteConfig& config(const KernelRouteSm& sm) { return *sm.in_.route6Config; }
  static std::shared_ptr<Trie> trie(const KernelRouteSm& sm, std::uint32_t hwVrfId) {
    return sm.in_.vrfCachedRoute->vrfTrie6(hwVrfId);
  }
  static auto tries(const KernelRouteSm& sm) { return sm.in_.vrfCachedRoute->vrfTries6(); }
  static void handleCachedRoute(KernelRouteSm& sm, const Key& key) { sm.handleIpv6CachedRoute(key); }
};

// --- Reactors --------------------------------------------------------------------------------------------------------

template <class Table>
class KernelRouteSm::TableReactor final : public Table::Reactor {
 public:
  using Handler = void (KernelRouteSm::*)(const typename Table::Key&);
  TableReactor(KernelRouteSm& sm, std::shared_ptr<const Table> table, Handler handler)
      : Table::Reactor(std::move(table)), sm_(sm), handler_(handler) {}
  void handleEntry(const typename Table::Key& key) override { (sm_.*handler_)(key); }

 private:
  KernelRouteSm& sm_;
  Handler handler_;
};

class KernelRouteSm::VrfIdReactor final : public VrfIdMap::Reactor {
 public:
  VrfIdReactor(KernelRouteSm& sm, std::shared_ptr<const VrfIdMap> map) : Reactor(std::move(map)), sm_(sm) {}
  void handleVrfId(std::uint32_t piVrfId) override { sm_.handleVrfId(piVrfId); }

 private:
  KernelRouteSm& sm_;
};

// Keeps one reactor for each trie.
class KernelRouteSm::VrfCachedRouteReactor final : public VrfCachedRoute::Reactor {
 public:
  VrfCachedRouteReactor(KernelRouteSm& sm, std::shared_ptr<const VrfCachedRoute> tries)
      : Reactor(std::move(tries)), sm_(sm) {}
  void handleVrfTrie(std::uint32_t hwVrfId) override { follow<V4>(hwVrfId); }
  void handleVrfTrie6(std::uint32_t hwVrfId) override { follow<V6>(hwVrfId); }

 private:
  template <class F>
  void follow(std::uint32_t hwVrfId) {
    sm_.trace_(9, __PRETTY_FUNCTION__);
    const bool hadTrie = F::side(sm_).tries.contains(hwVrfId);
    sm_.trieReactorDel<F>(hwVrfId);
    sm_.trieReactorIs<F>(hwVrfId);
    // A trie that nobody else holds has told this itself, at its end.
    if (hadTrie) sm_.trieChanged<F>(hwVrfId);
  }
  KernelRouteSm& sm_;
};

// Hears of the cached prefixes of one VRF.
template <class F>
class KernelRouteSm::CachedPrefixReactor : public F::Trie::Reactor {
 public:
  CachedPrefixReactor(KernelRouteSm& sm, const std::shared_ptr<const typename F::Trie>& trie, std::uint32_t hwVrfId)
      : F::Trie::Reactor(trie), sm_(sm), hwVrfId_(hwVrfId) {}
  void handleTrieDelete() override { sm_.trieChanged<F>(hwVrfId_); }

 protected:
  void prefixChanged(std::uint32_t id) {
    sm_.trace_(9, __PRETTY_FUNCTION__);
    const auto prefix = this->trie()->prefix(id);
    if (prefix) sm_.cachedPrefixChanged<F>(typename F::Key(*prefix, hwVrfId_));
  }

 private:
  KernelRouteSm& sm_;
  std::uint32_t hwVrfId_;
};

class KernelRouteSm::TrieReactor final : public CachedPrefixReactor<V4> {
 public:
  using CachedPrefixReactor::CachedPrefixReactor;
  void handleRouteCachePrefix(std::uint32_t id) override { prefixChanged(id); }
};

class KernelRouteSm::Trie6Reactor final : public CachedPrefixReactor<V6> {
 public:
  using CachedPrefixReactor::CachedPrefixReactor;
  void handleRouteCachePrefix(std::uint32_t id) override { handleRouteCachePrefix6(id); }
  void handleRouteCachePrefix6(std::uint32_t id) { prefixChanged(id); }
};

template <class F>
void KernelRouteSm::trieReactorIs(std::uint32_t hwVrfId) {
  const auto trie = F::trie(*this, hwVrfId);
  if (!trie) return;
  F::side(*this).tries[hwVrfId] = std::make_unique<typename F::Reactor>(*this, trie, hwVrfId);
  if (!trie->empty()) trieSweepIs<F>(hwVrfId);
}

template <class F>
void KernelRouteSm::trieReactorDel(std::uint32_t hwVrfId) {
  F::side(*this).tries.erase(hwVrfId);
  F::side(*this).trieSweep.erase(hwVrfId);
}

void KernelRouteSm::trieIs(std::uint32_t hwVrfId) {
  trieReactorIs<V4>(hwVrfId);
}
void KernelRouteSm::trieDel(std::uint32_t hwVrfId) {
  trieReactorDel<V4>(hwVrfId);
}
void KernelRouteSm::trie6Is(std::uint32_t hwVrfId) {
  trieReactorIs<V6>(hwVrfId);
}
void KernelRouteSm::trie6Del(std::uint32_t hwVrfId) {
  trieReactorDel<V6>(hwVrfId);
}

// --- Life ------------------------------------------------------------------------------------------------------------

KernelRouteSm::KernelRouteSm(const KernelRouteSmInputs& inputs, Platform::TaskScheduler& scheduler,
                             Platform::TraceFacility& trace)
    : Entity("KernelRouteSm"),
      in_(inputs),
      capacity_(inputs.routeCacheCapability->hwRouteTableSize()),
      trace_(trace, "RouteCacheKernelRouteSm"),
      v4_(*inputs.swIpv4RouteStatus, DeferredTask(scheduler, trace_, "ipv4RouteProcessingTask",
                                                  TaskPriority::processing, [this] { handleIpv4RouteProcessing(); })),
      v6_(*inputs.swIpv6RouteStatus, DeferredTask(scheduler, trace_, "ipv6RouteProcessingTask",
                                                  TaskPriority::processing, [this] { handleIpv6RouteProcessing(); })),
      kernelRouteProcessingTask_(scheduler, trace_, "kernelRouteProcessingTask", TaskPriority::processing,
                                 [this] { handleKernelRouteProcessing(); }),
      kernelRouteSyncTask_(scheduler, trace_, "kernelRouteSyncTask", TaskPriority::processing,
                           [this] { handleKernelRouteSync(); }),
      waitingReviewTask_(scheduler, trace_, "kernelWaitingReviewTask", TaskPriority::processing,
                         [this] { handleWaitingReview(); }) {}

KernelRouteSm::~KernelRouteSm() = default;

std::shared_ptr<KernelRouteSm> KernelRouteSmIs(const KernelRouteSmInputs& inputs, Platform::TaskScheduler& scheduler,
                                               Platform::TraceFacility& trace) {
  return std::make_shared<KernelRouteSm>(inputs, scheduler, trace);
}

void KernelRouteSm::handleInitialized() {
  trace_(9, __PRETTY_FUNCTION__);
  initialized_ = true;
  const auto follow = [this]<class Table>(std::unique_ptr<TableReactor<Table>>& reactor,
                                          std::shared_ptr<const Table> table,
                                          typename TableReactor<Table>::Handler handler) {
    reactor = std::make_unique<TableReactor<Table>>(*this, std::move(table), handler);
  };
  follow(swRouteReactor_, in_.swIpv4RouteStatus, &KernelRouteSm::handleIpv4SwRoute);
  follow(swRoute6Reactor_, in_.swIpv6RouteStatus, &KernelRouteSm::handleIpv6SwRoute);
  follow(routeReactor_, in_.routeConfig, &KernelRouteSm::handleRouteConfig);
  follow(route6Reactor_, in_.route6Config, &KernelRouteSm::handleRouteConfig);
  vrfIdReactor_ = std::make_unique<VrfIdReactor>(*this, in_.vrfIdMap);
  vrfCachedRouteReactor_ = std::make_unique<VrfCachedRouteReactor>(*this, in_.vrfCachedRoute);
  for (const auto& vrf : in_.vrfCachedRoute->vrfTries()) trieIs(vrf.first);
  for (const auto& vrf : in_.vrfCachedRoute->vrfTries6()) trie6Is(vrf.first);
  handleIpv4SwRoute();
  handleIpv6SwRoute();
  scheduleKernelRouteSyncTask(routeProcessingIntervalDefer_);
}

const Lattis::EntityType& KernelRouteSm::entityType() const {
  using This = KernelRouteSm;
  using Lattis::attributeField;
  using Lattis::readOnlyField;
  static const Lattis::EntityType type{
      "RouteCache::KernelRouteSm",
      {attributeField<This, &This::routeProcessingInterval, &This::routeProcessingIntervalIs>(
           "routeProcessingInterval"),
       attributeField<This, &This::routeProcessingIntervalDefer, &This::routeProcessingIntervalDeferIs>(
           "routeProcessingIntervalDefer"),
       readOnlyField<This, &This::initialized>("initialized"), readOnlyField<This, &This::capacity>("capacity"),
       readOnlyField<This, &This::ipv4RouteToProcessCount>("ipv4RouteToProcess"),
       readOnlyField<This, &This::ipv6RouteToProcessCount>("ipv6RouteToProcess"),
       readOnlyField<This, &This::written>("written"), readOnlyField<This, &This::deleted>("deleted")},
      {}};
  return type;
}

std::string KernelRouteSm::fault() const {
  return intervalFault({{"routeProcessingInterval", routeProcessingInterval_},
                        {"routeProcessingIntervalDefer", routeProcessingIntervalDefer_, Interval::shortestRetry}});
}

// --- Reactions -------------------------------------------------------------------------------------------------------

template <class F>
void KernelRouteSm::queueKey(const typename F::Key& key) {
  trace_(7, "prefix: ", key.prefix(), " vrfId: ", key.vrfId());
  F::side(*this).toProcess.keyIs(key);
  F::side(*this).task.schedule(routeProcessingInterval_);
}

template <class F>
void KernelRouteSm::vrfWalkIs(std::uint32_t hwVrfId) {
  trace_(6, F::walkText, hwVrfId);
  F::side(*this).walk.vrfIs(hwVrfId);
  F::side(*this).task.schedule(routeProcessingInterval_);
}

template <class F>
void KernelRouteSm::trieSweepIs(std::uint32_t hwVrfId) {
  F::side(*this).trieSweep[hwVrfId] = {};
  vrfWalkIs<F>(hwVrfId);
}

void KernelRouteSm::handleIpv4SwRoute(const Ipv4RouteVrfKey& key) {
  trace_(9, __PRETTY_FUNCTION__);
  queueKey<V4>(key);
}

void KernelRouteSm::handleIpv6SwRoute(const Ipv6RouteVrfKey& key) {
  trace_(9, __PRETTY_FUNCTION__);
  queueKey<V6>(key);
}

void KernelRouteSm::handleIpv4SwRoute() {
  trace_(9, __PRETTY_FUNCTION__);
  v4_.walk.allIs();
  scheduleIpv4RouteProcessingTask(routeProcessingInterval_);
}

void KernelRouteSm::handleIpv6SwRoute() {
  trace_(9, __PRETTY_FUNCTION__);
  v6_.walk.allIs();
  scheduleIpv6RouteProcessingTask(routeProcessingInterval_);
}

void KernelRouteSm::handleIpv4CachedRoute(const Ipv4RouteVrfKey& key) {
  trace_(9, __PRETTY_FUNCTION__);
  queueKey<V4>(key);
}

void KernelRouteSm::handleIpv6CachedRoute(const Ipv6RouteVrfKey& key) {
  trace_(9, __PRETTY_FUNCTION__);
  queueKey<V6>(key);
}

void KernelRouteSm::scheduleSwIpv4RouteStatusWalk(std::uint32_t hwVrfId) {
  vrfWalkIs<V4>(hwVrfId);
}

void KernelRouteSm::scheduleSwIpv6RouteStatusWalk(std::uint32_t hwVrfId) {
  vrfWalkIs<V6>(hwVrfId);
}

void KernelRouteSm::handleRouteConfig(const RouteKey& key) {
  trace_(9, __PRETTY_FUNCTION__);
  if (!in_.kernelRouteStatus->has(key) || !in_.vrfIdMap->globalVrfIdToHwVrfIdHas(key.vrfId())) return;
  const std::uint32_t hwVrfId = in_.vrfIdMap->globalVrfIdToHwVrfId(key.vrfId());
  if (key.prefix().isV4()) {
    queueKey<V4>({key.prefix().v4(), hwVrfId});
  } else {
    queueKey<V6>({key.prefix().v6(), hwVrfId});
  }
}

void KernelRouteSm::handleVrfId(std::uint32_t piVrfId) {
  trace_(9, __PRETTY_FUNCTION__);
  if (!in_.vrfIdMap->globalVrfIdToHwVrfIdHas(piVrfId)) {
    trace_(6, "deleted piVrfId: ", piVrfId);
    addKernelRouteVrfIdColl(piVrfId);
    reviewWaiting();
    return;
  }
  trace_(6, "added piVrfId: ", piVrfId);
  const std::uint32_t hwVrfId = in_.vrfIdMap->globalVrfIdToHwVrfId(piVrfId);
  scheduleSwIpv4RouteStatusWalk(hwVrfId);
  scheduleSwIpv6RouteStatusWalk(hwVrfId);
  // What stands under this id already may be of another VRF.
  const auto standing = in_.kernelRouteStatus->lowerBound(RouteKey(piVrfId, IpGenPrefix()));
  if (standing != in_.kernelRouteStatus->end() && standing->key().vrfId() == piVrfId) addKernelRouteVrfIdColl(piVrfId);
  // A trie that outlived the old id has told its prefixes while they could not be written.
  if (v4_.tries.contains(hwVrfId)) trieSweepIs<V4>(hwVrfId);
  if (v6_.tries.contains(hwVrfId)) trieSweepIs<V6>(hwVrfId);
}

template <class F>
void KernelRouteSm::cachedPrefixChanged(const typename F::Key& key) {
  if (!in_.vrfIdMap->hwVrfIdToGlobalVrfIdHas(key.vrfId())) return;
  F::side(*this).walk.coveredIs(key);
  F::handleCachedRoute(*this, key);
}

void KernelRouteSm::reviewWaiting() {
  if (!v4_.toProcess.hasWaiting(cachedRoom) && !v6_.toProcess.hasWaiting(cachedRoom)) return;
  reviewOwed_ = true;
  scheduleWaitingReviewTask(routeProcessingIntervalDefer_);
}

void KernelRouteSm::handleWaitingReview() {
  trace_(9, __PRETTY_FUNCTION__);
  reviewOwed_ = false;
  beginReview<V4>();
  beginReview<V6>();
}

template <class F>
void KernelRouteSm::beginReview() {
  auto& side = F::side(*this);
  side.toProcess.waitingKindIs(cachedRoom, review);
  if (side.toProcess.hasWaiting(review)) side.task.schedule(routeProcessingInterval_);
}

// Nothing of a VRF that is not mapped has to be decided: its arrival brings all of it.
template <class F>
void KernelRouteSm::trieChanged(std::uint32_t hwVrfId) {
  if (!in_.vrfIdMap->hwVrfIdToGlobalVrfIdHas(hwVrfId)) return;
  reviewWaiting();
  vrfWalkIs<F>(hwVrfId);
  addKernelRouteVrfIdColl(in_.vrfIdMap->hwVrfIdToGlobalVrfId(hwVrfId));
}

// --- Decisions -------------------------------------------------------------------------------------------------------

template <class Key>
std::optional<Routing::Rib::RouteKey> KernelRouteSm::kernelKey(const Key& key) const {
  if (!in_.vrfIdMap->hwVrfIdToGlobalVrfIdHas(key.vrfId())) return std::nullopt;
  return RouteKey(in_.vrfIdMap->hwVrfIdToGlobalVrfId(key.vrfId()), key.prefix());
}

template <class F>
KernelRouteSm::Decision KernelRouteSm::decide(const typename F::Key& key) const {
  Decision decision;
  decision.published = F::routes(*this).has(key);
  const auto trie = F::trie(*this, key.vrfId());
  if (decision.published) {
    decision.wanted = !trie || !trie->longestMatch(key.prefix());
  } else {
    decision.wanted = trie && trie->has(key.prefix());
  }
  return decision;
}

bool KernelRouteSm::hasRoom(Room room) const {
  return in_.kernelRouteStatus->hasRoom() && (room == cachedRoom || in_.kernelRouteStatus->size() < capacity_);
}

template <class F>
bool KernelRouteSm::isRouteAdded(const typename F::Key& key, const Decision& decision) {
  auto& side = F::side(*this);
  if (!side.toProcess.has(key)) {
    trace_(6, "Not in RouteToProcess");
    return false;
  }
  const Room room = decision.published ? mirrorRoom : cachedRoom;
  if (decision.wanted && !hasRoom(room)) {
    const auto kernel = kernelKey(key);
    if (!kernel || !in_.kernelRouteStatus->has(*kernel)) {
      side.toProcess.waitingKeyIs(key, room);
      side.task.schedule(routeProcessingIntervalDefer_);
      return false;
    }
  }
  side.toProcess.keyDel(key);
  return decision.wanted;
}

bool KernelRouteSm::isIpv4RouteAdded(const Ipv4RouteVrfKey& key) {
  return isRouteAdded<V4>(key, decide<V4>(key));
}

bool KernelRouteSm::isIpv6RouteAdded(const Ipv6RouteVrfKey& key) {
  return isRouteAdded<V6>(key, decide<V6>(key));
}

template <class F>
void KernelRouteSm::processRoute(const typename F::Key& key) {
  const auto kernel = kernelKey(key);
  if (!kernel) {
    F::side(*this).toProcess.keyDel(key);
    return;
  }
  const Decision decision = decide<F>(key);
  if (isRouteAdded<F>(key, decision)) {
    trace_(7, "adding", " ", *kernel);
    writeKernelRoute<F>(*kernel, decision.published);
  } else if (!decision.wanted) {
    trace_(7, "deleting", " ", *kernel);
    deleteKernelRoute(*kernel);
  }
}

void KernelRouteSm::ipv4ProcessRoute(const Ipv4RouteVrfKey& key) {
  processRoute<V4>(key);
}

void KernelRouteSm::ipv6ProcessRoute(const Ipv6RouteVrfKey& key) {
  processRoute<V6>(key);
}

template <class F>
void KernelRouteSm::writeKernelRoute(const RouteKey& key, bool published) {
  const auto standing = in_.kernelRouteStatus->route(key);
  const auto configured = published ? F::config(*this).route(key) : std::nullopt;
  // A published route that is configured no more is about to be withdrawn: no reason to touch it before.
  if (published && !configured && standing) return;
  const Routing::Rib::Route wanted = configured.value_or(Routing::Rib::Route(key));
  if (standing == wanted) return;
  in_.kernelRouteStatus->routeIs(wanted);
  ++written_;
}

void KernelRouteSm::deleteKernelRoute(const RouteKey& key) {
  const std::size_t before = in_.kernelRouteStatus->size();
  in_.kernelRouteStatus->routeDel(key);
  if (in_.kernelRouteStatus->size() == before) return;
  ++deleted_;
  wakeWaiting<V4>();
  wakeWaiting<V6>();
}

// Room has come that somebody may wait for.
template <class F>
void KernelRouteSm::wakeWaiting() {
  auto& side = F::side(*this);
  const bool waits = (side.toProcess.hasWaiting(mirrorRoom) && hasRoom(mirrorRoom)) ||
                     (side.toProcess.hasWaiting(cachedRoom) && hasRoom(cachedRoom));
  if (waits) side.task.schedule(routeProcessingInterval_);
}

// --- The families' tasks ---------------------------------------------------------------------------------------------

void KernelRouteSm::handleIpv4RouteProcessing() {
  trace_(9, __PRETTY_FUNCTION__);
  handleRouteProcessing<V4>();
}

void KernelRouteSm::handleIpv6RouteProcessing() {
  trace_(9, __PRETTY_FUNCTION__);
  handleRouteProcessing<V6>();
}

template <class F>
void KernelRouteSm::handleRouteProcessing() {
  auto& side = F::side(*this);
  std::uint64_t handled = 0;
  const bool more = workOff(side.task, handled, [this] { return processNext<F>(); });
  side.task.report(handled, side.toProcess.size());
  if (more && !side.toProcess.hasFresh()) {
    side.task.schedule(std::max(routeProcessingInterval_, walkPause));
  } else if (more) {
    side.task.schedule(routeProcessingInterval_);
  } else if (!side.toProcess.empty()) {
    side.task.schedule(routeProcessingIntervalDefer_);
  }
}

// Fresh keys, then one prefix of a trie or one entry of a walk, then those that wait while there is room for them, then
// those under review.
template <class F>
bool KernelRouteSm::processNext() {
  auto& side = F::side(*this);
  if (const auto fresh = side.toProcess.freshKey()) {
    processRoute<F>(*fresh);
  } else if (!side.trieSweep.empty()) {
    queueTriePrefix<F>();
  } else if (side.walk.pending()) {
    if (const auto key = side.walk.step()) {
      side.toProcess.keyIs(*key);
      processRoute<F>(*key);
    }
  } else if (side.toProcess.hasWaiting(mirrorRoom) && hasRoom(mirrorRoom)) {
    processRoute<F>(*side.toProcess.waitingKey(mirrorRoom));
  } else if (side.toProcess.hasWaiting(cachedRoom) && hasRoom(cachedRoom)) {
    processRoute<F>(*side.toProcess.waitingKey(cachedRoom));
  } else if (side.toProcess.hasWaiting(review)) {
    processRoute<F>(*side.toProcess.waitingKey(review));
  } else {
    return false;
  }
  return true;
}

// The next prefix of the first trie that is to be swept; the sweep ends with the trie.
template <class F>
void KernelRouteSm::queueTriePrefix() {
  auto& side = F::side(*this);
  const auto sweep = side.trieSweep.begin();
  const auto trie = F::trie(*this, sweep->first);
  auto route = trie->lowerBound(sweep->second);
  if (route != trie->end()) {
    side.toProcess.keyIs({route->prefix, sweep->first});
    ++route;
  }
  if (route == trie->end()) {
    side.trieSweep.erase(sweep);
  } else {
    sweep->second = route->prefix;
  }
}

// --- The kernel walk -------------------------------------------------------------------------------------------------

void KernelRouteSm::addKernelRouteVrfIdColl(std::uint32_t piVrfId) {
  if (kernelRouteBookmark_.isEmpty()) {
    trace_(6, "adding into current coll vrfId ", piVrfId);
    currentKernelRouteVrfIdColl_.insert(piVrfId);
    scheduleKernelRouteProcessingTask(routeProcessingInterval_);
  } else {
    trace_(6, "adding into next coll vrfId ", piVrfId);
    nextKernelRouteVrfIdColl_.insert(piVrfId);
  }
}

void KernelRouteSm::handleKernelRouteSync() {
  trace_(9, __PRETTY_FUNCTION__);
  synced_ = true;
  const Routing::Rib::RouteConfig& table = *in_.kernelRouteStatus;
  for (auto route = table.begin(); route != table.end();) {
    const std::uint32_t piVrfId = route->key().vrfId();
    addKernelRouteVrfIdColl(piVrfId);
    if (piVrfId == std::numeric_limits<std::uint32_t>::max()) break;
    route = table.lowerBound(RouteKey(piVrfId + 1, IpGenPrefix()));
  }
}

void KernelRouteSm::handleKernelRouteProcessing() {
  trace_(9, __PRETTY_FUNCTION__);
  if (currentKernelRouteVrfIdColl_.empty()) return;
  const auto& vrfs = currentKernelRouteVrfIdColl_;
  const Routing::Rib::RouteConfig& table = *in_.kernelRouteStatus;
  const RouteKey from = kernelRouteBookmark_.isEmpty() ? RouteKey(*vrfs.begin(), IpGenPrefix()) : kernelRouteBookmark_;
  kernelRouteBookmark_ = RouteKey();
  std::uint64_t handled = 0;
  for (auto route = table.lowerBound(from); route != table.end();) {
    const RouteKey key = route->key();
    if (!vrfs.contains(key.vrfId())) {
      const auto next = vrfs.upper_bound(key.vrfId());
      if (next == vrfs.end()) break;
      route = table.lowerBound(RouteKey(*next, IpGenPrefix()));
      continue;
    }
    ++route;  // before the entry may go
    processKernelRoute(key);
    ++handled;
    if (route != table.end() && kernelRouteProcessingTask_.shouldYield()) {
      kernelRouteBookmark_ = route->key();
      break;
    }
  }
  if (kernelRouteBookmark_.isEmpty()) currentKernelRouteVrfIdColl_ = std::exchange(nextKernelRouteVrfIdColl_, {});
  kernelRouteProcessingTask_.report(handled, currentKernelRouteVrfIdColl_.size() + nextKernelRouteVrfIdColl_.size());
  if (!currentKernelRouteVrfIdColl_.empty()) {
    scheduleKernelRouteProcessingTask(std::max(routeProcessingInterval_, walkPause));
  }
}

void KernelRouteSm::processKernelRoute(const RouteKey& key) {
  if (!in_.vrfIdMap->globalVrfIdToHwVrfIdHas(key.vrfId())) {
    trace_(7, "deleting", " ", key);
    deleteKernelRoute(key);
    return;
  }
  const std::uint32_t hwVrfId = in_.vrfIdMap->globalVrfIdToHwVrfId(key.vrfId());
  if (key.prefix().isV4()) {
    ipv4RouteToProcessIs({key.prefix().v4(), hwVrfId});
    ipv4ProcessRoute({key.prefix().v4(), hwVrfId});
  } else {
    ipv6RouteToProcessIs({key.prefix().v6(), hwVrfId});
    ipv6ProcessRoute({key.prefix().v6(), hwVrfId});
  }
}

// --- Invariants ------------------------------------------------------------------------------------------------------

template <class F>
bool KernelRouteSm::isAwaited(const typename F::Key& key) const {
  return F::side(*this).toProcess.has(key) || F::side(*this).walk.willMeet(key);
}

template <class F>
void KernelRouteSm::checkPublished() const {
  for (const auto& route : F::routes(*this)) {
    const auto kernel = kernelKey(route.key());
    if (!kernel || isAwaited<F>(route.key())) continue;
    const auto standing = in_.kernelRouteStatus->route(*kernel);
    PLATFORM_ASSERT_TEXT(decide<F>(route.key()).wanted == standing.has_value(),
                         "a published route has a kernel route exactly if no cached prefix covers it");
    const auto configured = F::config(*this).route(*kernel);
    PLATFORM_ASSERT_TEXT(!standing || !configured || *standing == *configured,
                         "a kernel route is like the configured route that it mirrors");
  }
}

template <class F>
void KernelRouteSm::checkCachedPrefixes() const {
  for (const auto& [hwVrfId, trie] : F::tries(*this)) {
    const auto sweep = F::side(*this).trieSweep.find(hwVrfId);
    for (const auto& route : *trie) {
      const typename F::Key key(route.prefix, hwVrfId);
      const auto kernel = kernelKey(key);
      const bool swept = sweep != F::side(*this).trieSweep.end() && !(route.prefix < sweep->second);
      if (!kernel || swept || isAwaited<F>(key) || F::routes(*this).has(key)) continue;
      PLATFORM_ASSERT_TEXT(in_.kernelRouteStatus->route(*kernel) == Routing::Rib::Route(*kernel),
                           "a cached prefix that is not published has a kernel route of its key alone");
    }
  }
}

// The one that waits longest stands for the others. Published routes that wait may be left by their VRF: they are about
// to be withdrawn.
template <class F>
void KernelRouteSm::checkWaiting() const {
  const auto key = F::side(*this).toProcess.waitingKey(cachedRoom);
  if (!key || reviewOwed_ || F::side(*this).walk.willMeet(*key)) return;
  PLATFORM_ASSERT_TEXT(kernelKey(*key) && decide<F>(*key).wanted,
                       "a cached prefix that waits for room is of a mapped VRF and wanted");
}

bool KernelRouteSm::isAheadOfKernelWalk(const RouteKey& key) const {
  if (!synced_ || nextKernelRouteVrfIdColl_.contains(key.vrfId())) return true;
  return currentKernelRouteVrfIdColl_.contains(key.vrfId()) &&
         (kernelRouteBookmark_.isEmpty() || !(key < kernelRouteBookmark_));
}

void KernelRouteSm::checkKernelRoutes() const {
  for (const auto& route : *in_.kernelRouteStatus) {
    const RouteKey& key = route.key();
    if (isAheadOfKernelWalk(key)) continue;
    PLATFORM_ASSERT_TEXT(in_.vrfIdMap->globalVrfIdToHwVrfIdHas(key.vrfId()),
                         "a kernel route's VRF is mapped, or ahead of a kernel walk");
    const std::uint32_t hwVrfId = in_.vrfIdMap->globalVrfIdToHwVrfId(key.vrfId());
    const auto isRight = [this]<class F>(const typename F::Key& tableKey) {
      return isAwaited<F>(tableKey) || decide<F>(tableKey).wanted;
    };
    PLATFORM_ASSERT_TEXT(key.prefix().isV4() ? isRight.operator()<V4>({key.prefix().v4(), hwVrfId})
                                             : isRight.operator()<V6>({key.prefix().v6(), hwVrfId}),
                         "a kernel route is wanted, or queued");
  }
}

void KernelRouteSm::checkInvariants() const {
  if (!initialized_) return;
  checkPublished<V4>();
  checkPublished<V6>();
  checkCachedPrefixes<V4>();
  checkCachedPrefixes<V6>();
  checkWaiting<V4>();
  checkWaiting<V6>();
  checkKernelRoutes();
}

}  // namespace RouteCache
