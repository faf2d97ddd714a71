#include "RouteCache/sw/SwRouteSm.h"

#include <algorithm>

#include "platform/values/Assert.h"

namespace RouteCache {

using Platform::TaskPriority;
using Routing::Rib::Route;
using Routing::Rib::RouteConfig;

// --- Life ------------------------------------------------------------------------------------------------------------

SwRouteSm::SwRouteSm(const SwRouteSmInputs& inputs, Platform::TaskScheduler& scheduler, Platform::TraceFacility& trace,
                     bool restart)
    : Entity("SwRouteSm"),
      in_(inputs),
      trace_(trace, "RouteCacheSwRouteSm"),
      configWalk_(*inputs.routeConfig, *inputs.route6Config),
      underlay_(*this, inputs.nexthopConfig, inputs.nexthopStatus, inputs.vtiStatusDir, trace_),
      nexthopSets_(inputs.viaConfig, underlay_),
      adjacencies_(inputs.ipv4AdjStatus, inputs.ipv6AdjStatus, underlay_, trace_),
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
                              [this] { handleUnprogrammedRecord(); }),
      sides_{{inputs.ipv4RouteStatus, *inputs.routeConfig, in_, trace_, routeSyncTask_, ipv4AdjSyncTask_},
             {inputs.ipv6RouteStatus, *inputs.route6Config, in_, trace_, route6SyncTask_, ipv6AdjSyncTask_}} {
  adjacencies_.ids().retainUnreferencedIs(restart);
}

SwRouteSm::~SwRouteSm() {
  // First, so that what the reactors' clean-ups would queue comes to nothing: an orderly stop changes no table and
  // withdraws no request.
  enableRouteProcessing_ = false;
  underlay_.stop();
}

void SwRouteSm::handleInitialized() {
  trace_(9, __PRETTY_FUNCTION__);
  Pondra::follow(routeReactor_, *this, in_.routeConfig, &SwRouteSm::handleRoute, &SwRouteSm::appetite);
  Pondra::follow(route6Reactor_, *this, in_.route6Config, &SwRouteSm::handleRoute, &SwRouteSm::appetite);
  if (in_.ipv4HwRouteStatus) {
    Pondra::follow(hwRouteReactor_, *this, in_.ipv4HwRouteStatus, &SwRouteSm::handleHwRoute);
  }
  vrfIdReactor_ = std::make_unique<VrfIdFollower<SwRouteSm>>(*this, in_.vrfIdMap);
  for (const auto& [piVrfId, hwVrfId] : in_.vrfIdMap->globalVrfIdToHwVrfIds()) knownHwVrfId_[piVrfId] = hwVrfId;
  underlay_.handleInitialized();
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

// A shorter interval counts for what is queued, too.
void SwRouteSm::routeProcessingIntervalIs(double seconds) {
  routeProcessingInterval_ = seconds;
  if (routeToProcess_.hasFresh()) scheduleRouteProcessingTask(seconds);
}

Pondra::Appetite SwRouteSm::appetite() const {
  return appetiteOf(routeProcessingTask_, routeToProcess_.toldCount());
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
      adjacencies_.stands(published->adjId())) {
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
    vrfGone<Ipv4Family>();
    vrfGone<Ipv6Family>();
    // The syncs know tables only; this brings the VRF's configured routes to where they belong now.
    if (enableRouteProcessing_) configWalk_.vrfIs(piVrfId);
  }
  if (enableRouteProcessing_) scheduleRouteProcessingTask(routeProcessingInterval_);
}

// A VRF has left its hardware id: the routes under it go at once, those that a walk has passed already included.
template <class Family>
void SwRouteSm::vrfGone() {
  sides_.of<Family>().sync.againIs();
  sides_.of<Family>().syncTask.schedule(0);
}

void SwRouteSm::handleUnderlay() {
  nexthopSets_.handleUnderlay();
  scheduleAllRoutesForProcessing(true, false);
}

// What rests on answers is decided again.
void SwRouteSm::handleAnswers() {
  adjacencies_.currentDelAll();
  scheduleAllRoutesForProcessing(true, false);
}

void SwRouteSm::handleAnswer(const AdjIdColl& adjIds) {
  adjacencies_.handleAnswer(adjIds);
  scheduleAdjProcessingTask(adjProcessingInterval_);
}

// --- The route-processing task ---------------------------------------------------------------------------------------

void SwRouteSm::handleRouteProcessing() {
  trace_(9, __PRETTY_FUNCTION__);
  if (!enableRouteProcessing_) return;
  std::uint64_t handled = 0;
  if (processFreshRoutes(handled) && processRoutesThatFindRoom<Ipv4Family>(handled))
    processRoutesThatFindRoom<Ipv6Family>(handled);
  routeProcessingTask_.report(handled, routeToProcess_.size());
  if (routeToProcess_.hasFresh() || configWalk_.pending() || hasRoomForWaiting<Ipv4Family>() ||
      hasRoomForWaiting<Ipv6Family>()) {
    scheduleRouteProcessingTask(routeProcessingInterval_);
  }
  routesProcessed(handled);
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
  routesProcessed(handled);
}

// After a run that visited routes: those that are left wait for the next round; when none is, a restart has come to an
// end.
void SwRouteSm::routesProcessed(std::uint64_t handled) {
  const bool allDecided = !routeToProcess_.hasFresh() && !configWalk_.pending();
  const bool atRest = allDecided && in_.routeConfig->quiesced() && in_.route6Config->quiesced();
  const bool foundNothing = atRest && handled == 0;
  if (foundNothing || nexthopSets_.size() > NexthopSets::most) nexthopSets_.dropSome();
  if (allDecided && !(atRest && nexthopSets_.size() == 0)) lookAgain(foundNothing);
  if (atRest) processedOnce_ = true;
  reconcile();
  if (routeToProcess_.leftoverCount() > 0) scheduleLeftoverProcessingTask(routeProcessingIntervalDefer_);
  if (routeToProcess_.empty() && atRest) endRestart();
}

// When everything is decided that the machine was told of:
//   the tables are not at rest     it asks again a second later: the followers hand on no word of it when they are
//   at rest, and something done    likewise: a stream of changes has ended when a run finds nothing
//   at rest, and nothing done      some next-hop sets go, and another run follows at once, until none is left
void SwRouteSm::lookAgain(bool foundNothing) {
  constexpr double quiet = 1;  // seconds
  scheduleRouteProcessingTask(foundNothing ? routeProcessingInterval_ : std::max(quiet, routeProcessingInterval_));
}

void SwRouteSm::endRestart() {
  if (enableRouteProcessing_ && restart_) {
    scheduleAdjCleanupTask(0);
    scheduleVtepResolutionCleanupTask(0);
  }
  restart_ = false;
}

void SwRouteSm::reconcile() {
  if (!processedOnce_ || !sides_.v4.sync.endedOnce() || !sides_.v6.sync.endedOnce()) return;
  if (in_.unprogrammedRouteConfig->reconciled()) return;
  in_.ipv4RouteStatus->reconciledIs();
  in_.ipv6RouteStatus->reconciledIs();
  in_.ipv4AdjStatus->reconciledIs();
  in_.ipv6AdjStatus->reconciledIs();
  in_.unprogrammedRouteConfig->reconciledIs();
}

// Routes that a reaction has put in, and those that a walk over the configuration brings. False: it is time to yield.
bool SwRouteSm::processFreshRoutes(std::uint64_t& handled) {
  bool goOn = true;
  while (goOn && (routeToProcess_.hasFresh() || configWalk_.pending())) {
    if (!routeToProcess_.hasFresh()) {
      readAheadOfWalk();
      goOn = routeToProcess_.hasFresh() || !routeProcessingTask_.shouldYield();
      continue;
    }
    if (readAhead_.empty()) readAheadOfFresh();
    processVisited(*routeToProcess_.visitFresh());
    ++handled;
    goOn = !routeProcessingTask_.shouldYield();
  }
  readAhead_.clear();
  return goOn;
}

void SwRouteSm::readAheadOfFresh() {
  readAhead_.readNext([this](auto keys) { return routeToProcess_.freshKeys(keys); },
                      [this](auto facts) { lookUpFacts(facts); });
}

// Goes on with the walk; what it meets is fresh, and known already.
void SwRouteSm::readAheadOfWalk() {
  readAhead_.clear();
  configWalk_.step(routeToProcess_, readAheadGroup, [this](const Route& route, bool belongs) {
    RouteFacts& facts = readAhead_.add(route.key());
    if (belongs) facts.route = route;
  });
  lookUpFacts(readAhead_.all());
}

template <class Family>
bool SwRouteSm::hasRoomForWaiting() const {
  return routeToProcess_.isWaitingForRoom(Family::family) && sides_.of<Family>().routes->hasRoom();
}

// Routes that wait for room, while there is some. False: it is time to yield.
template <class Family>
bool SwRouteSm::processRoutesThatFindRoom(std::uint64_t& handled) {
  while (hasRoomForWaiting<Family>()) {
    processVisited(*routeToProcess_.visitWaitingForRoom(Family::family));
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
  const RouteFacts& facts = readAhead_.of(key, [this](auto one) { lookUpFacts(one); });
  if (!facts.route) return forgetRoute(key);
  if (!facts.hwVrfId) {
    trace_(6, "hw vrfId not available, returning");
    parkRoute(*facts.route);
    routeToProcess_.waitForVrf(key.vrfId());
    return;
  }
  if (facts.set != nullptr) nexthopSets_.bringUpToDate(*facts.set);
  if (facts.set == nullptr || !facts.set->ref) {
    traceNotReady(facts.set);
    return parkRoute(*facts.route);
  }
  if (!facts.set->ref->v4nh() && !facts.set->ref->v6nh()) {
    trace_(6, "v4 and v6 oper status is down, returning");
    parkRoute(*facts.route);
    routeToProcessDel(key);
    return;
  }
  if (key.prefix().isV4()) {
    decideRoute<Ipv4Family>(facts, vtep, init);
  } else {
    decideRoute<Ipv6Family>(facts, vtep, init);
  }
}

void SwRouteSm::lookUpFacts(std::span<RouteFacts> facts) {
  lookUpConfigured<Ipv4Family>(facts);
  lookUpConfigured<Ipv6Family>(facts);
  for (RouteFacts& each : facts) {
    const std::uint32_t piVrfId = each.key.vrfId();
    if (!each.route || !in_.vrfIdMap->globalVrfIdToHwVrfIdHas(piVrfId)) continue;
    each.hwVrfId = in_.vrfIdMap->globalVrfIdToHwVrfId(piVrfId);
  }
  lookUp(
      facts, nexthopSets_,
      [](const RouteFacts& each) { return each.hwVrfId ? std::optional(each.route->viaKey()) : std::nullopt; },
      [this](RouteFacts& each, std::optional<NexthopSet*> set) {
        each.set = set.value_or(nullptr);
        if (!set || !(*set)->ref) return;
        adjacencies_.ids().expect((*set)->adjId);
        underlay_.expect(*(*set)->ref);
      });
  lookUpPublished<Ipv4Family>(facts);
  lookUpPublished<Ipv6Family>(facts);
}

template <class Family>
void SwRouteSm::lookUpConfigured(std::span<RouteFacts> facts) const {
  lookUp(
      facts, sides_.of<Family>().config,
      [](const RouteFacts& each) {
        const bool isWanted = !each.route && each.key.prefix().family() == Family::family;
        return isWanted ? std::optional(each.key) : std::nullopt;
      },
      [](RouteFacts& each, const std::optional<Route>& route) { each.route = route; });
}

template <class Family>
void SwRouteSm::lookUpPublished(std::span<RouteFacts> facts) const {
  using Key = BasicRouteVrfKey<Family>;
  const auto& side = sides_.of<Family>();
  lookUp(
      facts, *side.routes,
      [&](const RouteFacts& each) {
        if (!each.hwVrfId || each.key.prefix().family() != Family::family) return std::optional<Key>();
        const Key key(Family::prefix(each.key.prefix()), *each.hwVrfId);
        side.inherited.expect(key);
        return std::optional(key);
      },
      [](RouteFacts& each, std::optional<BasicRoute<Family>>&& route) {
        each.published.of<Family>() = std::move(route);
      });
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

// Why there is nothing to leave by. Null: the via is not there.
void SwRouteSm::traceNotReady(const NexthopSet* set) const {
  if (set != nullptr && !set->fault.empty()) {
    trace_(3, "via not available, returning: ", std::string_view(set->fault));
  } else if (set == nullptr || !set->isVia) {
    trace_(6, "via not available, returning");
  } else {
    trace_(6, "nexthop isnt ready, returning");
  }
}

template <class Family>
void SwRouteSm::decideRoute(const RouteFacts& facts, bool vtep, bool init) {
  const RouteKey& key = facts.key;
  const auto& ref = facts.set->ref;
  const BasicRouteVrfKey<Family> statusKey(Family::prefix(key.prefix()), *facts.hwVrfId);
  const auto& published = facts.published.of<Family>();
  // Asked before anything is taken: what stands stays, and a new route waits for room.
  if (!published && !sides_.of<Family>().routes->hasRoom()) {
    sides_.of<Family>().room.refused(trace_, "route table full, parked: ", key);
    unprogrammed_.routeIs(*facts.route);
    routeToProcessIs(key, RouteQueue::vtepFlag);
    routeToProcess_.waitForRoom(key.prefix().family());
    return;
  }
  const AdjId adjId = adjacencies_.take(ref, facts.set->adjId);
  facts.set->adjId = adjId;
  // A published route holds one registration for each of its VTEPs. One that is not published, was published by a
  // predecessor or changes its next hops holds none of these yet, whatever the flags say.
  const bool held = published && published->adjId() == adjId && !sides_.of<Family>().inherited.has(statusKey);
  vtep = isAdjacency(adjId) && (vtep || !held);
  if (vtep) underlay_.addMonitoring(ref->v4nh().get(), ref->v6nh().get());

  const bool unresolved = !adjacencies_.current(adjId) && underlay_.resolutionNeeded(*ref);
  underlay_.vtepResolutionNeededIs(unresolved);
  ref->vtepResolutionNeededIs(unresolved);
  if (!unresolved) routeToProcessIs(key, 0);
  const bool written = createViaFromNexthopRef(adjId, ref);
  if (written && !unresolved) routeToProcessDel(key);
  publish<Family>(key, {statusKey, adjId, isInHw<Family>(statusKey, adjId, written)}, published, facts.route,
                  {ref->v4nh().get(), ref->v6nh().get(), vtep, init});
}

template <class Family>
std::optional<BasicRouteVrfKey<Family>> SwRouteSm::tableKey(const RouteKey& key) const {
  if (!in_.vrfIdMap->globalVrfIdToHwVrfIdHas(key.vrfId())) return std::nullopt;
  return BasicRouteVrfKey<Family>(Family::prefix(key.prefix()), in_.vrfIdMap->globalVrfIdToHwVrfId(key.vrfId()));
}

// --- Publishing ------------------------------------------------------------------------------------------------------

void SwRouteSm::addIpv4Route(const RouteKey& key, AdjId adjId, const std::shared_ptr<Ipv4NexthopRef>& v4nh,
                             const std::shared_ptr<Ipv6NexthopRef>& v6nh, bool vtep, bool init) {
  addRoute<Ipv4Family>(key, adjId, v4nh, v6nh, vtep, init);
}

void SwRouteSm::addIpv6Route(const RouteKey& key, AdjId adjId, const std::shared_ptr<Ipv4NexthopRef>& v4nh,
                             const std::shared_ptr<Ipv6NexthopRef>& v6nh, bool vtep, bool init) {
  addRoute<Ipv6Family>(key, adjId, v4nh, v6nh, vtep, init);
}

template <class Family>
bool SwRouteSm::isInHw(const BasicRouteVrfKey<Family>& key, AdjId adjId, bool standing) const {
  if (!standing) return false;
  if constexpr (std::is_same_v<Family, Ipv4Family>) {
    if (in_.ipv4HwRouteStatus) {
      const auto hardware = in_.ipv4HwRouteStatus->route(key);
      return hardware && hardware->inHw() && hardware->adjId() == adjId;
    }
  }
  return true;  // nothing more to check: what is published is what the hardware takes
}

template <class Family>
void SwRouteSm::addRoute(const RouteKey& key, AdjId adjId, const std::shared_ptr<Ipv4NexthopRef>& v4nh,
                         const std::shared_ptr<Ipv6NexthopRef>& v6nh, bool vtep, bool init) {
  const auto statusKey = tableKey<Family>(key);
  if (!statusKey) return;
  const bool inHw = isInHw<Family>(*statusKey, adjId, adjacencies_.stands(adjId));
  publish<Family>(key, {*statusKey, adjId, inHw}, sides_.of<Family>().routes->route(*statusKey),
                  configOf(key).route(key), {v4nh.get(), v6nh.get(), vtep, init});
}

template <class Family>
void SwRouteSm::publish(const RouteKey& key, const BasicRoute<Family>& route,
                        const std::optional<BasicRoute<Family>>& published, const std::optional<Route>& configured,
                        const Taken& taken) {
  auto& routes = *sides_.of<Family>().routes;
  const AdjId adjId = route.adjId();
  const bool inherited = sides_.of<Family>().inherited.erase(route.key());
  if (published && published->adjId() == adjId) {
    trace_(7, " adjId equal ", adjId, " init: ", taken.init);
    // An inherited route keeps what was just taken for it; any other one has it already.
    if (!inherited && isAdjacency(adjId)) {
      if (taken.vtep) underlay_.removeMonitoring(taken.v4nh, taken.v6nh);
      adjacencies_.ids().deallocateAdjId(adjId);
    }
    if (published->inHw() != route.inHw()) routes.routeIs(route);
  } else {
    if (published) trace_(6, " adjId Not equal ", published->adjId(), " ", adjId);
    trace_(6, "adding route: ", key);
    // The new identifier stands before the old one may go: no reader finds a route without its adjacency.
    routes.routeIs(route);
    sides_.of<Family>().room.written(routes.hasRoom());
    if (published && !inherited && isAdjacency(published->adjId())) deleteAdjFromAdjStatus(published->adjId());
  }
  if (inherited) updateRetention();
  if (route.inHw()) {
    unprogrammedRouteDel(key);
  } else if (configured) {
    unprogrammed_.routeIs(*configured);
  }
}

void SwRouteSm::deleteRouteFromRouteCacheStatus(const RouteKey& key) {
  if (key.prefix().isV4()) {
    if (const auto statusKey = tableKey<Ipv4Family>(key)) deleteRoute<Ipv4Family>(*statusKey);
  } else if (const auto statusKey = tableKey<Ipv6Family>(key)) {
    deleteRoute<Ipv6Family>(*statusKey);
  }
}

template <class Family>
void SwRouteSm::deleteRoute(const BasicRouteVrfKey<Family>& key) {
  const auto published = sides_.of<Family>().routes->route(key);
  if (!published) return;
  sides_.of<Family>().routes->routeDel(key);
  if (hasRoomForWaiting<Family>()) scheduleRouteProcessingTask(routeProcessingInterval_);
  if (sides_.of<Family>().inherited.erase(key)) {
    updateRetention();
  } else if (isAdjacency(published->adjId())) {
    deleteAdjFromAdjStatus(published->adjId());
  }
}

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
  if (!key || (key->prefix().isV4() ? isPublishedInHw<Ipv4Family>(*key) : isPublishedInHw<Ipv6Family>(*key)))
    return true;
  if (const auto route = configOf(*key).route(*key)) unprogrammed_.routeIs(*route);
  return true;
}

template <class Family>
bool SwRouteSm::isPublishedInHw(const RouteKey& key) const {
  const auto statusKey = tableKey<Family>(key);
  const auto published = statusKey ? sides_.of<Family>().routes->route(*statusKey) : std::nullopt;
  return published && published->inHw();
}

// --- Adjacency processing --------------------------------------------------------------------------------------------

void SwRouteSm::handleAdjProcessing() {
  trace_(9, __PRETTY_FUNCTION__);
  if (enableRouteProcessing_ && !adjacencies_.process(adjProcessingTask_)) {
    scheduleAdjProcessingTask(adjProcessingInterval_);
  }
}

// --- Start: what a predecessor left ----------------------------------------------------------------------------------

void SwRouteSm::handleIpv4AdjSync() {
  trace_(9, __PRETTY_FUNCTION__);
  adjSync<Ipv4Family>();
}

void SwRouteSm::handleIpv6AdjSync() {
  trace_(9, __PRETTY_FUNCTION__);
  adjSync<Ipv6Family>();
}

template <class Family>
void SwRouteSm::adjSync() {
  if (!initialized_) return;
  auto& side = sides_.of<Family>();
  if (side.adjSync.run(side.adjSyncTask, adjacencies_, *side.routes, side.inherited)) {
    initRouteProcessing();
  } else {
    side.adjSyncTask.schedule(0);
  }
}

void SwRouteSm::initRouteProcessing() {
  trace_(5, "ipv4AdjSync: ", ipv4AdjSyncDone(), " ipv6AdjSync: ", ipv6AdjSyncDone());
  if (!ipv4AdjSyncDone() || !ipv6AdjSyncDone()) return;
  enableRouteProcessing_ = true;
  adjacencies_.ids().freeAdjIdFill();
  handleRoute();
  // Records of routes that are gone, or published by now, go when their keys are decided.
  if (restarted_) {
    for (auto route = in_.unprogrammedRouteConfig->begin(); route != in_.unprogrammedRouteConfig->end(); ++route) {
      routeToProcessIs(route->key(), RouteQueue::vtepFlag);
    }
  }
  scheduleRouteSyncTask(routeSyncInterval_);
  scheduleRoute6SyncTask(routeSyncInterval_);
  scheduleInitTask(initInterval_);
}

void SwRouteSm::handleInitComplete() {
  trace_(9, __PRETTY_FUNCTION__);
  endRestart();
  if (initCompleteHandler_) initCompleteHandler_();
}

// --- Route syncs -----------------------------------------------------------------------------------------------------

void SwRouteSm::handleRouteSync() {
  trace_(9, __PRETTY_FUNCTION__);
  routeSync<Ipv4Family>("RouteSync");
}

void SwRouteSm::handleRoute6Sync() {
  trace_(9, __PRETTY_FUNCTION__);
  routeSync<Ipv6Family>("Route6Sync");
}

template <class Family>
void SwRouteSm::routeSync(std::string_view name) {
  if (!enableRouteProcessing_) return;
  auto& side = sides_.of<Family>();
  const bool ended =
      side.sync.run(side.syncTask, name, [this](const BasicRouteVrfKey<Family>& key) { deleteRoute<Family>(key); });
  updateRetention();
  reconcile();
  if (!ended) side.syncTask.schedule(0);
}

// --- Clean-ups after a restart ---------------------------------------------------------------------------------------

bool SwRouteSm::retainingAdjIds() const {
  const auto accountedFor = [](const auto& side) { return side.sync.endedOnce() && side.inherited.empty(); };
  return restarted_ && !(accountedFor(sides_.v4) && accountedFor(sides_.v6));
}

void SwRouteSm::updateRetention() {
  if (adjIds().retainUnreferenced() && !retainingAdjIds()) adjacencies_.ids().retainUnreferencedIs(false);
}

void SwRouteSm::handleAdjCleanup() {
  trace_(9, __PRETTY_FUNCTION__);
  if (!enableRouteProcessing_) return;
  if (retainingAdjIds() || !adjacencies_.cleanUp(adjCleanupTask_)) scheduleAdjCleanupTask(adjCleanupInterval_);
}

// A request that nobody in this life has made may be that of an inherited route, which forwards by the answer.
void SwRouteSm::handleVtepResolutionCleanup() {
  trace_(9, __PRETTY_FUNCTION__);
  if (!enableRouteProcessing_) return;
  if (retainingAdjIds()) {
    scheduleVtepResolutionCleanupTask(adjCleanupInterval_);
  } else if (!underlay_.cleanUpRequests(vtepResolutionCleanupTask_)) {
    scheduleVtepResolutionCleanupTask(0);
  }
}

// --- Invariants ------------------------------------------------------------------------------------------------------

template <class Family>
void SwRouteSm::countHeldRoutes(std::map<AdjId, std::uint32_t>& held) const {
  const auto& side = sides_.of<Family>();
  for (const auto& route : *side.routes) {
    const AdjId adjId = route.adjId();
    const bool inherited = side.inherited.has(route.key());
    const bool stands = adjacencies_.stands(adjId);
    PLATFORM_ASSERT_TEXT(stands || !route.inHw() || inherited,
                         "a published route without an adjacency is not in hardware");
    if (!isAdjacency(adjId)) continue;
    if (!inherited) ++held[adjId];
    PLATFORM_ASSERT_TEXT(adjIds().adjIdRefCountHas(adjId) || inherited, "a published route names an identifier in use");
    const RouteKey key(in_.vrfIdMap->hwVrfIdToGlobalVrfId(route.key().vrfId()), route.key().prefix());
    const bool followsHw = Family::family == AddressFamily::ipv4 && in_.ipv4HwRouteStatus;
    PLATFORM_ASSERT_TEXT((stands && (route.inHw() || followsHw)) || routeToProcess_.flags(key) ||
                             configWalk_.willMeet(key) || inherited || !side.config.has(key),
                         "a published route's adjacency stands and it is in hardware, or it is queued for that");
  }
}

// Apart from those that are still to be visited as something has changed.
void SwRouteSm::checkConfiguredRoutes(const Routing::Rib::RouteConfig& config) const {
  std::set<RouteKey> fresh;
  routeToProcess_.forEachFresh([&](const RouteKey& key) { fresh.insert(key); });
  for (const auto& route : config) {
    const RouteKey& key = route.key();
    if (&configOf(key) != &config || fresh.contains(key) || configWalk_.willMeet(key)) continue;
    const bool inHw = key.prefix().isV4() ? isPublishedInHw<Ipv4Family>(key) : isPublishedInHw<Ipv6Family>(key);
    const bool recorded = unprogrammed_.table().has(key);
    PLATFORM_ASSERT_TEXT(!recorded || !inHw, "a route that is in hardware is not recorded as unprogrammed");
    PLATFORM_ASSERT_TEXT(recorded || inHw || unprogrammed_.willMeet(key),
                         "a configured route that is not in hardware is recorded, or left out for want of room");
  }
}

void SwRouteSm::checkInvariants() const {
  if (!enableRouteProcessing_) return;
  std::map<AdjId, std::uint32_t> held;
  countHeldRoutes<Ipv4Family>(held);
  countHeldRoutes<Ipv6Family>(held);
  adjacencies_.checkInvariants(held, restarted_);
  checkConfiguredRoutes(*in_.routeConfig);
  checkConfiguredRoutes(*in_.route6Config);
}

}  // namespace RouteCache
