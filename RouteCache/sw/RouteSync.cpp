// SwRouteSm's start-up syncs, withdrawal of what is no longer configured, clean-ups after a restart, and the check of
// its invariants.
#include "RouteCache/sw/Families.h"
#include "platform/values/Assert.h"

namespace RouteCache {

// --- Adjacency syncs -------------------------------------------------------------------------------------------------

void SwRouteSm::handleIpv4AdjSync() {
  trace_(9, __PRETTY_FUNCTION__);
  adjSync<V4>();
}

void SwRouteSm::handleIpv6AdjSync() {
  trace_(9, __PRETTY_FUNCTION__);
  adjSync<V6>();
}

template <class F>
void SwRouteSm::adjSync() {
  if (!initialized_) return;
  auto& sync = F::adjSync(*this);
  if (!sync.adjacenciesDone) sync.adjacenciesDone = syncAdjacencies<F>();
  if (!sync.adjacenciesDone || !collectInheritedRoutes<F>()) {
    F::adjSyncTask(*this).schedule(0);
    return;
  }
  sync.done = true;
  initRouteProcessing();
}

// True at the end of the table.
template <class F>
bool SwRouteSm::syncAdjacencies() {
  auto& table = *F::adjacencies(*this);
  auto& bookmark = F::adjSync(*this).bookmark;
  std::uint64_t handled = 0;
  for (auto via = resumeFrom(table, std::exchange(bookmark, std::nullopt)); via != table.end();) {
    const typename F::Via found = *via;
    ++via;  // before adopting, which may drop the entry
    adoptAdjacency<F>(found);
    ++handled;
    if (via != table.end() && F::adjSyncTask(*this).shouldYield()) {
      bookmark = via->key();
      break;
    }
  }
  F::adjSyncTask(*this).report(handled, 0);
  return !bookmark;
}

template <class F>
void SwRouteSm::adoptAdjacency(const typename F::Via& via) {
  const AdjId adjId = via.key();
  // Identifiers that no agent gives out: of the other table's class, with bits that stand for nothing, or of a number
  // that another one has.
  const bool foreign = !F::hasClass(adjId) || !isAdjacency(adjId) || !isWellFormed(adjId) ||
                       (adjIds_.numberInUse(adjId) && !adjIds_.adjIdRefCountHas(adjId));
  if (foreign) {
    trace_(1, "dropping an adjacency that is not of this agent's making: ", adjId);
    F::adjacencies(*this)->adjDel(adjId);
    return;
  }
  // A mixed adjacency is met in both tables; one that a kill left in one of them only has one part, which no route
  // asks for, and is cleaned up.
  const auto v4 = adjId.isAdjacencyV4() ? in_.ipv4AdjStatus->adj(adjId) : std::nullopt;
  const auto v6 = adjId.isAdjacencyV6() ? in_.ipv6AdjStatus->adj(adjId) : std::nullopt;
  auto ref = ipMixedNexthopRefFactory(v4.has_value(), v6.has_value());
  if (v4) ref->v4nhIs(createIpv4NexthopRefFromIpv4Via(*v4));
  if (v6) ref->v6nhIs(createIpv6NexthopRefFromIpv6Via(*v6));
  adjIds_.nexthopIs(ref, adjId);
  adjIds_.adjIdRefCountIs(adjId, 0);
  // Where two disagree about a VTEP, a predecessor was killed between rewriting the one and the other: it went in the
  // order of this walk, so the first one has the newer FEC. An empty one may never have been resolved.
  for (const auto& adjacency : via.viaKey()) {
    auto& vtep = F::vteps(*this).adjIdIs(adjacency.remoteVtepIp(), adjId);
    if (vtep.lastFec.isEmpty()) vtep.lastFec = adjacency.underlayFecId();
  }
}

// Notes every route that a predecessor has published. An identifier that such a route names is in use, also without an
// adjacency (its table was full): it is cleaned up like any other that nobody takes. True at the end of the table.
template <class F>
bool SwRouteSm::collectInheritedRoutes() {
  auto& table = *F::routes(*this);
  auto& bookmark = F::adjSync(*this).routeBookmark;
  if (!bookmark) F::inherited(*this).reserve(table.size());
  for (auto route = resumeFrom(table, std::exchange(bookmark, std::nullopt)); route != table.end();) {
    F::inherited(*this).insert(route->key());
    const AdjId adjId = route->adjId();
    if (isAdjacency(adjId) && isWellFormed(adjId) && !adjIds_.numberInUse(adjId)) adjIds_.adjIdRefCountIs(adjId, 0);
    ++route;
    if (route != table.end() && F::adjSyncTask(*this).shouldYield()) {
      bookmark = route->key();
      return false;
    }
  }
  return true;
}

void SwRouteSm::initRouteProcessing() {
  trace_(5, "ipv4AdjSync: ", ipv4AdjSync_.done, " ipv6AdjSync: ", ipv6AdjSync_.done);
  if (!ipv4AdjSync_.done || !ipv6AdjSync_.done) return;
  enableRouteProcessing_ = true;
  adjIds_.freeAdjIdFill();
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
  if (enableRouteProcessing_ && restart_) {
    scheduleAdjCleanupTask(0);
    scheduleVtepResolutionCleanupTask(0);
  }
  restart_ = false;
}

// --- Route syncs -----------------------------------------------------------------------------------------------------

void SwRouteSm::handleRouteSync() {
  trace_(9, __PRETTY_FUNCTION__);
  routeSync<V4>(&SwRouteSm::scheduleRouteSyncTask, "RouteSync rescheduled with ", "RouteSync ended with ");
}

void SwRouteSm::handleRoute6Sync() {
  trace_(9, __PRETTY_FUNCTION__);
  routeSync<V6>(&SwRouteSm::scheduleRoute6SyncTask, "Route6Sync rescheduled with ", "Route6Sync ended with ");
}

template <class F>
void SwRouteSm::routeSync(void (SwRouteSm::*scheduleSync)(double), const char* rescheduled, const char* ended) {
  if (!enableRouteProcessing_) return;
  auto& table = *F::routes(*this);
  auto& sync = F::sync(*this);
  std::uint64_t handled = 0;
  for (auto route = resumeFrom(table, std::exchange(sync.bookmark, std::nullopt)); route != table.end();) {
    const auto key = route->key();
    ++route;  // before syncRoute, which may delete the entry
    syncRoute<F>(key);
    ++handled;
    if (route != table.end() && F::syncTask(*this).shouldYield()) {
      sync.bookmark = route->key();
      break;
    }
  }
  F::syncTask(*this).report(handled, 0);
  if (sync.bookmark) {
    trace_(5, std::string_view(rescheduled), "Bookmark ", *sync.bookmark);
    (this->*scheduleSync)(0);
    return;
  }
  trace_(5, std::string_view(ended), handled);
  sync.endedOnce = true;
  updateRetention();
  if (std::exchange(sync.again, false)) (this->*scheduleSync)(0);
}

template <class F>
void SwRouteSm::syncRoute(const typename F::Key& key) {
  const VrfIdMap& vrfs = *in_.vrfIdMap;
  const std::uint32_t piVrfId = vrfs.hwVrfIdToGlobalVrfId(key.vrfId());
  // Mapped back and forward again, the VRF must still have this hardware id.
  if (!vrfs.hwVrfIdToGlobalVrfIdHas(key.vrfId()) || !vrfs.globalVrfIdToHwVrfIdHas(piVrfId) ||
      vrfs.globalVrfIdToHwVrfId(piVrfId) != key.vrfId()) {
    trace_(5, "key has gone away. Deleting vrfId: ", key.vrfId());
    deleteRoute<F>(key);
    return;
  }
  const RouteKey routeKey(piVrfId, key.prefix());
  if (!F::config(*this).has(routeKey)) {
    trace_(5, routeKey, " has gone away. Deleting ");
    deleteRoute<F>(key);
    return;
  }
  trace_(9, routeKey, " still in pondra");
}

// A VRF has left its hardware id: the routes under it go at once, those that a walk has passed already included.
template <class F>
void SwRouteSm::vrfGone(RouteSync<typename F::Key>& sync) {
  sync.again = sync.again || sync.bookmark.has_value();
  F::syncTask(*this).schedule(0);
}
template void SwRouteSm::vrfGone<SwRouteSm::V4>(RouteSync<Ipv4RouteVrfKey>& sync);
template void SwRouteSm::vrfGone<SwRouteSm::V6>(RouteSync<Ipv6RouteVrfKey>& sync);

// --- Clean-ups after a restart ---------------------------------------------------------------------------------------

bool SwRouteSm::retainingAdjIds() const {
  return restarted_ && !(ipv4Sync_.endedOnce && ipv6Sync_.endedOnce && inherited4_.empty() && inherited6_.empty());
}

void SwRouteSm::updateRetention() {
  if (adjIds_.retainUnreferenced() && !retainingAdjIds()) adjIds_.retainUnreferencedIs(false);
}

void SwRouteSm::handleAdjCleanup() {
  trace_(9, __PRETTY_FUNCTION__);
  if (!enableRouteProcessing_) return;
  if (retainingAdjIds()) {
    scheduleAdjCleanupTask(adjCleanupInterval_);
    return;
  }
  const auto& unreferenced = adjIds_.unreferenced();
  auto next = unreferenced.lower_bound(std::exchange(adjCleanupBookmark_, AdjId()));
  std::uint64_t handled = 0;
  while (next != unreferenced.end()) {
    const AdjId adjId = *next;
    ++next;  // before the identifier leaves the set
    deleteAdjFromAdjStatus(adjId);
    ++handled;
    if (next != unreferenced.end() && adjCleanupTask_.shouldYield()) {
      adjCleanupBookmark_ = *next;
      break;
    }
  }
  adjCleanupTask_.report(handled, unreferenced.size());
  if (adjCleanupBookmark_ != AdjId()) scheduleAdjCleanupTask(adjCleanupInterval_);
}

// A request that nobody in this life has made may be that of an inherited route, which forwards by the answer.
void SwRouteSm::handleVtepResolutionCleanup() {
  trace_(9, __PRETTY_FUNCTION__);
  if (!enableRouteProcessing_) return;
  if (retainingAdjIds()) {
    scheduleVtepResolutionCleanupTask(adjCleanupInterval_);
    return;
  }
  const auto& requests = nexthopVrfConfig_->nexthop();
  auto next = requests.lower_bound(std::exchange(vtepCleanupBookmark_, IpGenAddr()));
  std::uint64_t handled = 0;
  while (next != requests.end()) {
    const IpGenAddr addr = next->first;
    ++next;  // before the request may go
    const std::uint32_t refCount = addr.isV4() ? vteps4_.refCount(addr.v4()) : vteps6_.refCount(addr.v6());
    if (refCount == 0) {
      trace_(5, "deleting: ", addr);
      nexthopVrfConfig_->nexthopDel(addr);
    }
    ++handled;
    if (next != requests.end() && vtepResolutionCleanupTask_.shouldYield()) {
      vtepCleanupBookmark_ = next->first;
      break;
    }
  }
  vtepResolutionCleanupTask_.report(handled, 0);
  if (!vtepCleanupBookmark_.isEmpty()) scheduleVtepResolutionCleanupTask(0);
}

// --- Invariants ------------------------------------------------------------------------------------------------------

template <class F>
std::map<AdjId, std::uint32_t> SwRouteSm::countHeldRoutes() const {
  std::map<AdjId, std::uint32_t> held;
  for (const auto& route : *F::routes(*this)) {
    const AdjId adjId = route.adjId();
    const bool inherited = F::inherited(*this).has(route.key());
    PLATFORM_ASSERT_TEXT(adjacencyStands(adjId) || !route.inHw() || inherited,
                         "a published route without an adjacency is not in hardware");
    if (!isAdjacency(adjId)) continue;
    if (!inherited) ++held[adjId];
    PLATFORM_ASSERT_TEXT(adjIds_.adjIdRefCountHas(adjId) || inherited, "a published route names an identifier in use");
    const RouteKey key(in_.vrfIdMap->hwVrfIdToGlobalVrfId(route.key().vrfId()), route.key().prefix());
    const bool followsHw = F::family == AddressFamily::ipv4 && in_.ipv4HwRouteStatus;
    PLATFORM_ASSERT_TEXT((adjacencyStands(adjId) && (route.inHw() || followsHw)) || routeToProcess_.flags(key) ||
                             configWalk_.willMeet(key) || inherited || !F::config(*this).has(key),
                         "a published route's adjacency stands and it is in hardware, or it is queued for that");
  }
  return held;
}

namespace {

std::set<IpGenAddr> vtepsOf(const IpMixedNexthopRef& ref) {
  std::set<IpGenAddr> vteps;
  if (ref.v4nh()) {
    for (const auto& nexthop : ref.v4nh()->via()) vteps.insert(nexthop.remoteVtepIp());
  }
  if (ref.v6nh()) {
    for (const auto& nexthop : ref.v6nh()->via()) vteps.insert(nexthop.remoteVtepIp());
  }
  return vteps;
}

}  // namespace

void SwRouteSm::checkHeldRoutes(const std::map<AdjId, std::uint32_t>& held) const {
  std::map<IpGenAddr, std::uint32_t> registrations;
  for (const auto& [adjId, count] : held) {
    PLATFORM_ASSERT_TEXT(adjIds_.adjIdRefCount(adjId) == count, "references are the routes that name the identifier");
    const auto ref = adjIds_.nexthop(adjId);
    PLATFORM_ASSERT_TEXT(ref != nullptr, "an identifier in use has a next hop");
    for (const auto& vtep : vtepsOf(*ref)) registrations[vtep] += count;
  }
  adjIds_.forEach([&](AdjId adjId, std::uint32_t count) {
    if (!isAdjacency(adjId)) return;
    PLATFORM_ASSERT_TEXT(count == 0 || held.contains(adjId), "an identifier that is held is named by a route");
    PLATFORM_ASSERT_TEXT(count > 0 || restarted_, "an identifier that nobody holds is freed");
  });
  PLATFORM_ASSERT_TEXT(registrations.size() == vteps4_.refCounts().size() + vteps6_.refCounts().size(),
                       "the VTEPs monitored are those of held routes");
  for (const auto& [addr, count] : registrations) {
    const std::uint32_t refCount = addr.isV4() ? vteps4_.refCount(addr.v4()) : vteps6_.refCount(addr.v6());
    PLATFORM_ASSERT_TEXT(refCount == count, "registrations are the routes whose next hops name the VTEP");
    PLATFORM_ASSERT_TEXT(nexthopVrfConfig_->nexthop().contains(addr), "a registered VTEP is requested");
  }
}

void SwRouteSm::checkVtepUses() const {
  std::set<std::pair<IpGenAddr, AdjId>> uses;
  std::set<std::pair<IpGenAddr, AdjId>> named;
  const auto note = [&](const IpGenAddr& vtep, AdjId adjId) { uses.emplace(vtep, adjId); };
  vteps4_.forEachUse(note);
  vteps6_.forEachUse(note);
  adjIds_.forEach([&](AdjId adjId, std::uint32_t) {
    const auto ref = adjIds_.nexthop(adjId);
    if (!ref) return;
    for (const auto& vtep : vtepsOf(*ref)) named.emplace(vtep, adjId);
  });
  PLATFORM_ASSERT_TEXT(uses == named, "a VTEP is used by the identifiers whose next hops name it");
}

// Apart from those that are still to be visited as something has changed.
void SwRouteSm::checkConfiguredRoutes(const Routing::Rib::RouteConfig& config) const {
  std::set<RouteKey> fresh;
  routeToProcess_.forEachFresh([&](const RouteKey& key) { fresh.insert(key); });
  for (const auto& route : config) {
    const RouteKey& key = route.key();
    if (&configOf(key) != &config || fresh.contains(key) || configWalk_.willMeet(key)) continue;
    const bool inHw = key.prefix().isV4() ? isPublishedInHw<V4>(key) : isPublishedInHw<V6>(key);
    const bool recorded = unprogrammed_.table().has(key);
    PLATFORM_ASSERT_TEXT(!recorded || !inHw, "a route that is in hardware is not recorded as unprogrammed");
    PLATFORM_ASSERT_TEXT(recorded || inHw || unprogrammed_.willMeet(key),
                         "a configured route that is not in hardware is recorded, or left out for want of room");
  }
}

void SwRouteSm::checkInvariants() const {
  if (!enableRouteProcessing_) return;
  adjIds_.checkInvariants();
  auto held = countHeldRoutes<V4>();
  for (const auto& [adjId, count] : countHeldRoutes<V6>()) held[adjId] += count;
  checkHeldRoutes(held);
  checkVtepUses();
  checkConfiguredRoutes(*in_.routeConfig);
  checkConfiguredRoutes(*in_.route6Config);
}

}  // namespace RouteCache
