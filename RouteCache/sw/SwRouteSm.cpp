// Life, reactions and the decision about one route. Adjacencies are in sw/Adjacencies.cpp, syncs and
// clean-ups in sw/RouteSync.cpp.
#include "RouteCache/sw/SwRouteSm.h"

#include <algorithm>

#include "RouteCache/sw/Families.h"
#include "RouteCache/sw/Underlay.h"
#include "platform/values/Assert.h"

namespace RouteCache {

using Platform::TaskPriority;
using Routing::Rib::Route;
using Routing::Rib::RouteConfig;

// --- What is watched -------------------------------------------------------------------------------------------------

class SwRouteSm::RouteConfigReactor final : public RouteConfig::Reactor {
 public:
  RouteConfigReactor(SwRouteSm& sm, std::shared_ptr<const RouteConfig> config) : Reactor(std::move(config)), sm_(sm) {}
  void handleEntry(const RouteKey& key) override { sm_.handleRoute(key); }

 private:
  SwRouteSm& sm_;
};

class SwRouteSm::HwRouteReactor final : public Ipv4RouteStatus::Reactor {
 public:
  HwRouteReactor(SwRouteSm& sm, std::shared_ptr<const Ipv4RouteStatus> table) : Reactor(std::move(table)), sm_(sm) {}
  void handleEntry(const Ipv4RouteVrfKey& key) override { sm_.handleHwRoute(key); }

 private:
  SwRouteSm& sm_;
};

class SwRouteSm::VrfIdReactor final : public VrfIdMap::Reactor {
 public:
  VrfIdReactor(SwRouteSm& sm, std::shared_ptr<const VrfIdMap> map) : Reactor(std::move(map)), sm_(sm) {}
  void handleVrfId(std::uint32_t piVrfId) override { sm_.handleVrfId(piVrfId); }

 private:
  SwRouteSm& sm_;
};

class SwRouteSm::NexthopConfigReactor final : public Routing::NexthopConfig::Reactor {
 public:
  NexthopConfigReactor(SwRouteSm& sm, std::shared_ptr<const Routing::NexthopConfig> config)
      : Reactor(std::move(config)), sm_(sm) {}
  void handleVrf(const L3::VrfName& name) override {
    if (name.isDefault()) sm_.nexthopVrfConfigIs();
  }

 private:
  SwRouteSm& sm_;
};

class SwRouteSm::NexthopStatusReactor final : public Routing::NexthopStatus::Reactor {
 public:
  NexthopStatusReactor(SwRouteSm& sm, std::shared_ptr<const Routing::NexthopStatus> status)
      : Reactor(std::move(status)), sm_(sm) {}
  void handleVrf(const L3::VrfName& name) override {
    sm_.nexthopVrfStatusDel(name);
    if (watched().vrf(name)) sm_.nexthopVrfStatusIs(name);
  }

 private:
  SwRouteSm& sm_;
};

class SwRouteSm::VtiStatusDirReactor final : public Vxlan::VtiStatusDir::Reactor {
 public:
  VtiStatusDirReactor(SwRouteSm& sm, std::shared_ptr<const Vxlan::VtiStatusDir> dir)
      : Reactor(std::move(dir)), sm_(sm) {}
  void handleVtiStatus(IntfId intfId) override {
    sm_.vtiStatusDel(intfId);
    if (watched().vtiStatus(intfId)) sm_.vtiStatusIs(intfId);
  }

 private:
  SwRouteSm& sm_;
};

void SwRouteSm::nexthopVrfConfigIs() {
  const auto registered = in_.nexthopConfig->vrfIs(L3::VrfName());
  if (registered == nexthopVrfConfig_) return;
  nexthopVrfConfig_ = registered;
  for (const auto& vtep : vteps4_.refCounts()) nexthopVrfConfig_->nexthopIs(vtep.first);
  for (const auto& vtep : vteps6_.refCounts()) nexthopVrfConfig_->nexthopIs(vtep.first);
}

void SwRouteSm::nexthopVrfStatusIs(const L3::VrfName& name) {
  const auto status = in_.nexthopStatus->vrf(name);
  if (name.isDefault()) nexthopVrfStatus_ = status;
  auto& reactor = nexthopVrfStatusReactors_[name];
  reactor = std::make_unique<NexthopVrfStatusReactor>(*this, status);
  reactor->handleInitialized();
}

void SwRouteSm::nexthopVrfStatusDel(const L3::VrfName& name) {
  const auto found = nexthopVrfStatusReactors_.find(name);
  if (found == nexthopVrfStatusReactors_.end()) return;
  if (name.isDefault()) nexthopVrfStatus_ = nullptr;
  found->second->cleanup();
  nexthopVrfStatusReactors_.erase(found);
}

void SwRouteSm::nexthopVrfStatusDelAll() {
  while (!nexthopVrfStatusReactors_.empty()) nexthopVrfStatusDel(L3::VrfName(nexthopVrfStatusReactors_.begin()->first));
}

void SwRouteSm::vtiStatusIs(IntfId intfId) {
  auto& reactor = vtiStatusReactors_[intfId];
  reactor = std::make_unique<VtiStatusReactor>(*this, in_.vtiStatusDir->vtiStatus(intfId));
  reactor->handleInitialized();
}

void SwRouteSm::vtiStatusDel(IntfId intfId) {
  const auto found = vtiStatusReactors_.find(intfId);
  if (found == vtiStatusReactors_.end()) return;
  found->second->cleanup();
  vtiStatusReactors_.erase(found);
}

void SwRouteSm::vtiStatusDelAll() {
  while (!vtiStatusReactors_.empty()) vtiStatusDel(vtiStatusReactors_.begin()->first);
}

// --- Life ------------------------------------------------------------------------------------------------------------

SwRouteSm::SwRouteSm(const SwRouteSmInputs& inputs, Platform::TaskScheduler& scheduler, Platform::TraceFacility& trace,
                     bool restart)
    : Entity("SwRouteSm"),
      in_(inputs),
      trace_(trace, "RouteCacheSwRouteSm"),
      configWalk_(*inputs.routeConfig, *inputs.route6Config),
      adjIds_(trace_),
      unprogrammed_(inputs.unprogrammedRouteConfig, *inputs.routeConfig, *inputs.route6Config, trace_),
      restarted_(restart),
      restart_(restart),
      vtepResolutionCleanupTask_(scheduler, trace_, "vtepResolutionCleanupTask", TaskPriority::background,
                                 [this] { handleVtepResolutionCleanup(); }),
      adjCleanupTask_(scheduler, trace_, "adjCleanupTask", TaskPriority::background, [this] { handleAdjCleanup(); }),
      ipv4AdjSyncTask_(scheduler, trace_, "ipv4AdjSyncTask", TaskPriority::processing, [this] { handleIpv4AdjSync(); }),
      ipv6AdjSyncTask_(scheduler, trace_, "ipv6AdjSyncTask", TaskPriority::processing, [this] { handleIpv6AdjSync(); }),
      routeSyncTask_(scheduler, trace_, "routeSyncTask", TaskPriority::processing, [this] { handleRouteSync(); }),
      route6SyncTask_(scheduler, trace_, "route6SyncTask", TaskPriority::processing, [this] { handleRoute6Sync(); }),
      initTask_(scheduler, trace_, "initTask", TaskPriority::background, [this] { handleInitComplete(); }),
      routeProcessingTask_(scheduler, trace_, "routeProcessingTask", TaskPriority::processing,
                           [this] { handleRouteProcessing(); }),
      adjProcessingTask_(scheduler, trace_, "adjProcessingTask", TaskPriority::processing,
                         [this] { handleAdjProcessing(); }),
      leftoverProcessingTask_(scheduler, trace_, "leftoverProcessingTask", TaskPriority::processing,
                              [this] { handleLeftoverProcessing(); }),
      unprogrammedRecordTask_(scheduler, trace_, "unprogrammedRecordTask", TaskPriority::background,
                              [this] { handleUnprogrammedRecord(); }) {
  adjIds_.retainUnreferencedIs(restart);
}

SwRouteSm::~SwRouteSm() {
  // First, so that what the reactors' clean-ups would queue comes to nothing: an orderly stop changes no table and
  // withdraws no request.
  enableRouteProcessing_ = false;
  nexthopVrfStatusDelAll();
  vtiStatusDelAll();
}

void SwRouteSm::handleInitialized() {
  trace_(9, __PRETTY_FUNCTION__);
  nexthopVrfConfigIs();
  nexthopConfigReactor_ = std::make_unique<NexthopConfigReactor>(*this, in_.nexthopConfig);
  routeReactor_ = std::make_unique<RouteConfigReactor>(*this, in_.routeConfig);
  route6Reactor_ = std::make_unique<RouteConfigReactor>(*this, in_.route6Config);
  if (in_.ipv4HwRouteStatus) hwRouteReactor_ = std::make_unique<HwRouteReactor>(*this, in_.ipv4HwRouteStatus);
  vrfIdReactor_ = std::make_unique<VrfIdReactor>(*this, in_.vrfIdMap);
  for (const auto& [piVrfId, hwVrfId] : in_.vrfIdMap->globalVrfIdToHwVrfIds()) knownHwVrfId_[piVrfId] = hwVrfId;
  nexthopStatusReactor_ = std::make_unique<NexthopStatusReactor>(*this, in_.nexthopStatus);
  for (const auto& vrf : in_.nexthopStatus->vrf()) nexthopVrfStatusIs(vrf.first);
  vtiStatusDirReactor_ = std::make_unique<VtiStatusDirReactor>(*this, in_.vtiStatusDir);
  for (const auto& vti : in_.vtiStatusDir->vtiStatus()) vtiStatusIs(vti.first);
  initialized_ = true;
  scheduleRouteCacheIpv4AdjSyncTask(adjSyncInterval_);
  scheduleRouteCacheIpv6AdjSyncTask(adjSyncInterval_);
}

std::shared_ptr<SwRouteSm> SwRouteSmIs(const SwRouteSmInputs& inputs, Platform::TaskScheduler& scheduler,
                                       Platform::TraceFacility& trace, bool restart) {
  return std::make_shared<SwRouteSm>(inputs, scheduler, trace, restart);
}

const Lattis::EntityType& SwRouteSm::entityType() const {
  using This = SwRouteSm;
  using Lattis::attributeField;
  using Lattis::readOnlyField;
  static const Lattis::EntityType type{
      "RouteCache::SwRouteSm",
      {attributeField<This, &This::routeProcessingInterval, &This::routeProcessingIntervalIs>(
           "routeProcessingInterval"),
       attributeField<This, &This::routeProcessingIntervalDefer, &This::routeProcessingIntervalDeferIs>(
           "routeProcessingIntervalDefer"),
       attributeField<This, &This::adjProcessingInterval, &This::adjProcessingIntervalIs>("adjProcessingInterval"),
       attributeField<This, &This::adjCleanupInterval, &This::adjCleanupIntervalIs>("adjCleanupInterval"),
       attributeField<This, &This::adjSyncInterval, &This::adjSyncIntervalIs>("adjSyncInterval"),
       attributeField<This, &This::routeSyncInterval, &This::routeSyncIntervalIs>("routeSyncInterval"),
       attributeField<This, &This::initInterval, &This::initIntervalIs>("initInterval"),
       readOnlyField<This, &This::enableRouteProcessing>("enableRouteProcessing"),
       readOnlyField<This, &This::restart>("restart"),
       readOnlyField<This, &This::routeToProcessCount>("routeToProcess"),
       readOnlyField<This, &This::unprogrammedSkipped>("unprogrammedSkipped")},
      {}};
  return type;
}

std::string SwRouteSm::fault() const {
  return intervalFault({{"routeProcessingInterval", routeProcessingInterval_},
                        {"routeProcessingIntervalDefer", routeProcessingIntervalDefer_, Interval::shortestRetry},
                        {"adjProcessingInterval", adjProcessingInterval_},
                        {"adjCleanupInterval", adjCleanupInterval_, Interval::shortestRetry},
                        {"adjSyncInterval", adjSyncInterval_},
                        {"routeSyncInterval", routeSyncInterval_},
                        {"initInterval", initInterval_}});
}

// --- Reactions -------------------------------------------------------------------------------------------------------

void SwRouteSm::handleRoute(const RouteKey& key) {
  trace_(9, __PRETTY_FUNCTION__);
  if (!enableRouteProcessing_) return;
  routeToProcessIs(key, RouteQueue::vtepFlag);
  scheduleRouteProcessingTask(routeProcessingInterval_);
}

void SwRouteSm::handleRoute() {
  trace_(9, __PRETTY_FUNCTION__);
  if (enableRouteProcessing_) scheduleAllRoutesForProcessing(true, true);
}

void SwRouteSm::scheduleAllRoutesForProcessing(bool vtep, bool init) {
  if (!enableRouteProcessing_) return;
  configWalk_.allIs(static_cast<std::uint8_t>((init ? RouteQueue::initFlag : 0) | (vtep ? RouteQueue::vtepFlag : 0)));
  scheduleRouteProcessingTask(routeProcessingInterval_);
}

void SwRouteSm::handleHwRoute(const Ipv4RouteVrfKey& key) {
  trace_(9, __PRETTY_FUNCTION__);
  if (!in_.vrfIdMap->hwVrfIdToGlobalVrfIdHas(key.vrfId())) return;
  const RouteKey routeKey(in_.vrfIdMap->hwVrfIdToGlobalVrfId(key.vrfId()), key.prefix());
  const auto published = in_.ipv4RouteStatus->route(key);
  if (!published) return;
  const auto hardware = in_.ipv4HwRouteStatus->route(key);
  const bool programmed = hardware && hardware->inHw();
  if (programmed && hardware->adjId() == published->adjId() && !published->inHw() &&
      adjacencyStands(published->adjId())) {
    trace_(6, "setting inHw to true", routeKey);
    in_.ipv4RouteStatus->routeIs({key, published->adjId(), true});
    unprogrammedRouteDel(routeKey);
  } else if (!programmed && published->inHw()) {
    trace_(6, "setting inHw to false", routeKey);
    in_.ipv4RouteStatus->routeIs({key, published->adjId(), false});
    if (const auto route = in_.routeConfig->route(routeKey)) unprogrammed_.routeIs(*route);
  }
}

void SwRouteSm::handleVrfId(std::uint32_t piVrfId) {
  trace_(9, __PRETTY_FUNCTION__);
  bool left = false;  // routes may stand under a hardware id that is not this VRF's any more
  if (in_.vrfIdMap->globalVrfIdToHwVrfIdHas(piVrfId)) {
    trace_(5, "added vrfId: ", piVrfId);
    const std::uint32_t hwVrfId = in_.vrfIdMap->globalVrfIdToHwVrfId(piVrfId);
    const auto [known, isNew] = knownHwVrfId_.try_emplace(piVrfId, hwVrfId);
    left = !isNew && known->second != hwVrfId;
    known->second = hwVrfId;
    routeToProcess_.wakeVrf(piVrfId);
  } else {
    trace_(5, "deleted vrfId: ", piVrfId);
    left = knownHwVrfId_.erase(piVrfId) != 0;
  }
  if (left) {
    vrfGone<V4>(ipv4Sync_);
    vrfGone<V6>(ipv6Sync_);
    // The syncs know tables only; this brings the VRF's configured routes to where they belong now.
    if (enableRouteProcessing_) configWalk_.vrfIs(piVrfId);
  }
  if (enableRouteProcessing_) scheduleRouteProcessingTask(routeProcessingInterval_);
}

// --- The route-processing task ---------------------------------------------------------------------------------------

void SwRouteSm::handleRouteProcessing() {
  trace_(9, __PRETTY_FUNCTION__);
  if (!enableRouteProcessing_) return;
  std::uint64_t handled = 0;
  if (processFreshRoutes(handled) && processRoutesThatFindRoom<V4>(handled)) processRoutesThatFindRoom<V6>(handled);
  routeProcessingTask_.report(handled, routeToProcess_.size());
  if (routeToProcess_.hasFresh() || configWalk_.pending() || hasRoomForWaiting<V4>() || hasRoomForWaiting<V6>()) {
    scheduleRouteProcessingTask(routeProcessingInterval_);
  }
  routesProcessed();
}

// The leftovers in turn, until the time slice ends; each round is due routeProcessingIntervalDefer after the one before
// has ended, whatever wakes the other task meanwhile. Only a round that gets some of them further goes on after its
// slice, with a pause for tasks of lower priority.
void SwRouteSm::handleLeftoverProcessing() {
  trace_(9, __PRETTY_FUNCTION__);
  if (!enableRouteProcessing_) return;
  const std::size_t before = routeToProcess_.leftoverCount();
  if (leftoverRound_ == 0) leftoverRound_ = before;
  std::uint64_t handled = 0;
  const bool more = workOff(leftoverProcessingTask_, handled, [this] {
    const auto visit = leftoverRound_ > 0 ? routeToProcess_.visitLeftover() : std::nullopt;
    if (visit) processVisited(*visit);
    if (visit) --leftoverRound_;
    return visit.has_value();
  });
  leftoverProcessingTask_.report(handled, routeToProcess_.leftoverCount());
  routeProcessingTask_.report(0, routeToProcess_.size());
  if (more && leftoverRound_ > 0 && routeToProcess_.leftoverCount() < before) {
    scheduleLeftoverProcessingTask(std::max(routeProcessingInterval_, walkPause));
  } else {
    leftoverRound_ = 0;
  }
  routesProcessed();
}

// After a run that visited routes: those that are left wait for the next round; when none is, a restart has come to an
// end.
void SwRouteSm::routesProcessed() {
  if (routeToProcess_.leftoverCount() > 0) scheduleLeftoverProcessingTask(routeProcessingIntervalDefer_);
  if (!routeToProcess_.empty() || configWalk_.pending()) return;
  if (restart_) {
    scheduleAdjCleanupTask(0);
    scheduleVtepResolutionCleanupTask(0);
  }
  restart_ = false;
}

// Routes that a reaction has put in, and those that a walk over the configuration brings. False: it is time to yield.
bool SwRouteSm::processFreshRoutes(std::uint64_t& handled) {
  constexpr unsigned walkStep = 64;  // enough to make a step of the walk cheap, few enough to stay in the cache
  for (;;) {
    if (const auto visit = routeToProcess_.visitFresh()) {
      processVisited(*visit);
      ++handled;
      if (routeProcessingTask_.shouldYield()) return false;
    } else if (configWalk_.pending()) {
      configWalk_.step(routeToProcess_, walkStep);
    } else {
      return true;
    }
  }
}

template <class F>
bool SwRouteSm::hasRoomForWaiting() const {
  return routeToProcess_.isWaitingForRoom(F::family) && F::routes(*this)->hasRoom();
}

// Routes that wait for room, while there is some. False: it is time to yield.
template <class F>
bool SwRouteSm::processRoutesThatFindRoom(std::uint64_t& handled) {
  while (hasRoomForWaiting<F>()) {
    processVisited(*routeToProcess_.visitWaitingForRoom(F::family));
    ++handled;
    if (routeProcessingTask_.shouldYield()) return false;
  }
  return true;
}

void SwRouteSm::processVisited(const RouteQueue::Visit& visit) {
  processRoute(visit.key, (visit.flags & RouteQueue::vtepFlag) != 0, (visit.flags & RouteQueue::initFlag) != 0);
  routeToProcess_.visitEnded();
}

// --- Deciding one route ----------------------------------------------------------------------------------------------

void SwRouteSm::processRoute(const RouteKey& key, bool vtep, bool init) {
  trace_(7, "prefix: ", key.prefix(), " vrf: ", key.vrfId(), " vtep: ", vtep, " init: ", init);
  const auto route = configOf(key).route(key);
  if (!route) return forgetRoute(key);
  if (!in_.vrfIdMap->globalVrfIdToHwVrfIdHas(key.vrfId())) {
    trace_(6, "hw vrfId not available, returning");
    parkRoute(*route);
    routeToProcess_.waitForVrf(key.vrfId());
    return;
  }
  const auto ref = nexthopRefOf(*route);
  if (!ref) return parkRoute(*route);
  if (!ref->v4nh() && !ref->v6nh()) {
    trace_(6, "v4 and v6 oper status is down, returning");
    parkRoute(*route);
    routeToProcessDel(key);
    return;
  }
  if (key.prefix().isV4()) {
    decideRoute<V4>(*route, ref, vtep, init);
  } else {
    decideRoute<V6>(*route, ref, vtep, init);
  }
}

// Not configured any more.
void SwRouteSm::forgetRoute(const RouteKey& key) {
  unprogrammedRouteDel(key);
  deleteRouteFromRouteCacheStatus(key);
  routeToProcessDel(key);
}

// Something that the route needs is missing: it is withdrawn, recorded as unprogrammed, and stays queued.
void SwRouteSm::parkRoute(const Route& route) {
  unprogrammed_.routeIs(route);
  deleteRouteFromRouteCacheStatus(route.key());
  routeToProcessIs(route.key(), RouteQueue::vtepFlag);
}

// The route's next hops, or null when its via is missing or not ready.
std::shared_ptr<IpMixedNexthopRef> SwRouteSm::nexthopRefOf(const Route& route) {
  const auto via = in_.viaConfig->via(route.viaKey());
  if (!via) {
    trace_(6, "via not available, returning");
    return nullptr;
  }
  try {
    auto ref = createNexthopRefFromViaConfig(*via);
    if (!ref) trace_(6, "nexthop isnt ready, returning");
    return ref;
  } catch (const RangeError& error) {
    trace_(3, "via not available, returning: ", std::string_view(error.what()));
    return nullptr;
  }
}

template <class F>
void SwRouteSm::decideRoute(const Route& route, const std::shared_ptr<IpMixedNexthopRef>& ref, bool vtep, bool init) {
  const RouteKey& key = route.key();
  const auto statusKey = *tableKey<F>(key);
  const auto published = F::routes(*this)->route(statusKey);
  // Asked before anything is taken: what stands stays, and a new route waits for room.
  if (!published && !F::routes(*this)->hasRoom()) {
    F::routeRoom(*this).refused(trace_, "route table full, parked: ", key);
    unprogrammed_.routeIs(route);
    routeToProcessIs(key, RouteQueue::vtepFlag);
    routeToProcess_.waitForRoom(key.prefix().family());
    return;
  }
  const AdjId adjId = takeAdjId(ref);
  // A published route holds one registration for each of its VTEPs. One that is not published, was published by a
  // predecessor or changes its next hops holds none of these yet, whatever the flags say.
  const bool held = published && published->adjId() == adjId && !F::inherited(*this).has(statusKey);
  vtep = isAdjacency(adjId) && (vtep || !held);
  if (vtep) addMonitoring(ref->v4nh().get(), ref->v6nh().get());

  vtepResolutionNeeded_ = !adjIds_.current(adjId) && resolutionNeeded(*ref);
  ref->vtepResolutionNeededIs(vtepResolutionNeeded_);
  if (!vtepResolutionNeeded_) routeToProcessIs(key, 0);
  const bool written = createViaFromNexthopRef(adjId, ref);
  if (written && !vtepResolutionNeeded_) routeToProcessDel(key);
  addRoute<F>(key, adjId, ref->v4nh(), ref->v6nh(), vtep, init);
}

// Finds or allocates the identifier for the next hops, with one more reference.
AdjId SwRouteSm::takeAdjId(const std::shared_ptr<IpMixedNexthopRef>& ref) {
  AdjId adjId = adjIds_.adjId(ref);
  if (isAdjacency(adjId)) {
    adjIds_.adjIdRefCountIs(adjId, adjIds_.adjIdRefCount(adjId) + 1);
    return adjId;
  }
  adjId = adjIds_.allocateAdjId(ref->v6nh() != nullptr, ref->v4nh() != nullptr);
  // With the free list empty the route is published without an adjacency, and tried again.
  if (isAdjacency(adjId)) adjIds_.nexthopIs(ref, adjId);
  return adjId;
}

bool SwRouteSm::resolutionNeeded(const IpMixedNexthopRef& ref) const {
  const auto unanswered = [this](const auto& nexthopRef) {
    if (!nexthopRef) return false;
    for (const auto& nexthop : nexthopRef->via()) {
      if (answerOf(nexthop.remoteVtepIp()).value_or(Fib::FecId()).isEmpty()) return true;
    }
    return false;
  };
  return unanswered(ref.v4nh()) || unanswered(ref.v6nh());
}

// --- Publishing ------------------------------------------------------------------------------------------------------

void SwRouteSm::addIpv4Route(const RouteKey& key, AdjId adjId, const std::shared_ptr<Ipv4NexthopRef>& v4nh,
                             const std::shared_ptr<Ipv6NexthopRef>& v6nh, bool vtep, bool init) {
  addRoute<V4>(key, adjId, v4nh, v6nh, vtep, init);
}

void SwRouteSm::addIpv6Route(const RouteKey& key, AdjId adjId, const std::shared_ptr<Ipv4NexthopRef>& v4nh,
                             const std::shared_ptr<Ipv6NexthopRef>& v6nh, bool vtep, bool init) {
  addRoute<V6>(key, adjId, v4nh, v6nh, vtep, init);
}

bool SwRouteSm::adjacencyStands(AdjId adjId) const {
  if (!isAdjacency(adjId)) return false;
  return adjIds_.current(adjId) || ((!adjId.isAdjacencyV4() || in_.ipv4AdjStatus->has(adjId)) &&
                                    (!adjId.isAdjacencyV6() || in_.ipv6AdjStatus->has(adjId)));
}

template <class F>
bool SwRouteSm::isInHw(const typename F::Key& key, AdjId adjId) const {
  if (!adjacencyStands(adjId)) return false;
  if constexpr (std::is_same_v<F, V4>) {
    if (in_.ipv4HwRouteStatus) {
      const auto hardware = in_.ipv4HwRouteStatus->route(key);
      return hardware && hardware->inHw() && hardware->adjId() == adjId;
    }
  }
  return true;  // nothing more to check: what is published is what the hardware takes
}

template <class F>
void SwRouteSm::addRoute(const RouteKey& key, AdjId adjId, const std::shared_ptr<Ipv4NexthopRef>& v4nh,
                         const std::shared_ptr<Ipv6NexthopRef>& v6nh, bool vtep, bool init) {
  const auto statusKey = tableKey<F>(key);
  if (!statusKey) return;
  auto& routes = *F::routes(*this);
  const bool inHw = isInHw<F>(*statusKey, adjId);
  const auto published = routes.route(*statusKey);
  const bool inherited = F::inherited(*this).erase(*statusKey);
  if (published && published->adjId() == adjId) {
    trace_(7, " adjId equal ", adjId, " init: ", init);
    // An inherited route keeps what was just taken for it; any other one has it already.
    if (!inherited && isAdjacency(adjId)) {
      if (vtep) removeMonitoring(v4nh.get(), v6nh.get());
      adjIds_.deallocateAdjId(adjId);
    }
    if (published->inHw() != inHw) routes.routeIs({*statusKey, adjId, inHw});
  } else {
    if (published) trace_(6, " adjId Not equal ", published->adjId(), " ", adjId);
    trace_(6, "adding route: ", key);
    // The new identifier stands before the old one may go: no reader finds a route without its adjacency.
    routes.routeIs({*statusKey, adjId, inHw});
    F::routeRoom(*this).written(routes.hasRoom());
    if (published && !inherited && isAdjacency(published->adjId())) deleteAdjFromAdjStatus(published->adjId());
  }
  if (inherited) updateRetention();
  if (inHw) {
    unprogrammedRouteDel(key);
  } else if (const auto route = configOf(key).route(key)) {
    unprogrammed_.routeIs(*route);
  }
}

void SwRouteSm::deleteRouteFromRouteCacheStatus(const RouteKey& key) {
  if (key.prefix().isV4()) {
    if (const auto statusKey = tableKey<V4>(key)) deleteRoute<V4>(*statusKey);
  } else if (const auto statusKey = tableKey<V6>(key)) {
    deleteRoute<V6>(*statusKey);
  }
}

template <class F>
void SwRouteSm::deleteRoute(const typename F::Key& key) {
  const auto published = F::routes(*this)->route(key);
  if (!published) return;
  F::routes(*this)->routeDel(key);
  if (hasRoomForWaiting<F>()) scheduleRouteProcessingTask(routeProcessingInterval_);
  if (F::inherited(*this).erase(key)) {
    updateRetention();
  } else if (isAdjacency(published->adjId())) {
    deleteAdjFromAdjStatus(published->adjId());
  }
}
template void SwRouteSm::deleteRoute<SwRouteSm::V4>(const Ipv4RouteVrfKey& key);
template void SwRouteSm::deleteRoute<SwRouteSm::V6>(const Ipv6RouteVrfKey& key);

// --- The record of unprogrammed routes -------------------------------------------------------------------------------

void SwRouteSm::unprogrammedRouteDel(const RouteKey& key) {
  unprogrammed_.routeDel(key);
  if (unprogrammed_.walkOwed()) scheduleUnprogrammedRecordTask(0);
}

void SwRouteSm::handleUnprogrammedRecord() {
  trace_(9, __PRETTY_FUNCTION__);
  // Long beside a time slice: among a million routes that are recorded or in hardware, the one that is neither may be
  // the last.
  constexpr double pause = 0.02;
  std::uint64_t handled = 0;
  const bool more = workOff(unprogrammedRecordTask_, handled, [this] { return recordNext(); });
  unprogrammedRecordTask_.report(handled, 0);
  if (more) scheduleUnprogrammedRecordTask(pause);
}

// One step of the walk for those that were left out. False: nobody was, or there is no room.
bool SwRouteSm::recordNext() {
  if (!unprogrammed_.walkOwed()) return false;
  const auto key = unprogrammed_.walkStep();
  if (!key || (key->prefix().isV4() ? isPublishedInHw<V4>(*key) : isPublishedInHw<V6>(*key))) return true;
  if (const auto route = configOf(*key).route(*key)) unprogrammed_.routeIs(*route);
  return true;
}

template <class F>
bool SwRouteSm::isPublishedInHw(const RouteKey& key) const {
  const auto statusKey = tableKey<F>(key);
  const auto published = statusKey ? F::routes(*this)->route(*statusKey) : std::nullopt;
  return published && published->inHw();
}
template bool SwRouteSm::isPublishedInHw<SwRouteSm::V4>(const RouteKey& key) const;
template bool SwRouteSm::isPublishedInHw<SwRouteSm::V6>(const RouteKey& key) const;

}  // namespace RouteCache
