#include "RouteCache/kernel/KernelRouteSm.h"

#include <algorithm>
#include <array>
#include <limits>
#include <utility>

#include "platform/values/Assert.h"

namespace RouteCache {

using Platform::TaskPriority;

// --- Reactors --------------------------------------------------------------------------------------------------------

// Keeps one reactor for each trie.
class KernelRouteSm::VrfCachedRouteReactor final : public VrfCachedRoute::Reactor {
 public:
  VrfCachedRouteReactor(KernelRouteSm& sm, std::shared_ptr<const VrfCachedRoute> tries)
      : Reactor(std::move(tries)), sm_(sm) {}
  void handleVrfTrie(std::uint32_t hwVrfId) override { follow<Ipv4Family>(hwVrfId); }
  void handleVrfTrie6(std::uint32_t hwVrfId) override { follow<Ipv6Family>(hwVrfId); }

 private:
  template <class Family>
  void follow(std::uint32_t hwVrfId) {
    sm_.trace_(9, __PRETTY_FUNCTION__);
    const bool hadTrie = sm_.sides_.of<Family>().tries.contains(hwVrfId);
    sm_.trieReactorDel<Family>(hwVrfId);
    sm_.trieReactorIs<Family>(hwVrfId);
    // A trie that nobody else holds has told this itself, at its end.
    if (hadTrie) sm_.trieChanged<Family>(hwVrfId);
  }
  KernelRouteSm& sm_;
};

// Hears of the cached prefixes of one VRF.
template <class Family>
class KernelRouteSm::TrieReactor final : public CachedTrie<Family>::Reactor {
 public:
  TrieReactor(KernelRouteSm& sm, const std::shared_ptr<const CachedTrie<Family>>& trie, std::uint32_t hwVrfId)
      : CachedTrie<Family>::Reactor(trie), sm_(sm), hwVrfId_(hwVrfId) {}
  void handleRouteCachePrefix(std::uint32_t id) override {
    sm_.trace_(9, __PRETTY_FUNCTION__);
    const auto prefix = this->trie()->prefix(id);
    if (prefix) sm_.cachedPrefixChanged<Family>({*prefix, hwVrfId_});
  }
  void handleTrieDelete() override { sm_.trieChanged<Family>(hwVrfId_); }

 private:
  KernelRouteSm& sm_;
  std::uint32_t hwVrfId_;
};

template <class Family>
auto KernelRouteSm::trie(std::uint32_t hwVrfId) const {
  if constexpr (std::is_same_v<Family, Ipv4Family>) {
    return in_.vrfCachedRoute->vrfTrie(hwVrfId);
  } else {
    return in_.vrfCachedRoute->vrfTrie6(hwVrfId);
  }
}

template <class Family>
void KernelRouteSm::trieReactorIs(std::uint32_t hwVrfId) {
  const auto found = trie<Family>(hwVrfId);
  if (!found) return;
  sides_.of<Family>().tries[hwVrfId] = std::make_unique<TrieReactor<Family>>(*this, found, hwVrfId);
  if (!found->empty()) trieSweepIs<Family>(hwVrfId);
}

template <class Family>
void KernelRouteSm::trieReactorDel(std::uint32_t hwVrfId) {
  sides_.of<Family>().tries.erase(hwVrfId);
  sides_.of<Family>().trieSweep.erase(hwVrfId);
}

void KernelRouteSm::handleTrieFollow() {
  if (!followTries<Ipv4Family>() || !followTries<Ipv6Family>()) trieFollowTask_.schedule(0);
}

// One that has come since, or in another's place, is followed already.
template <class Family>
bool KernelRouteSm::followTries() {
  auto& side = sides_.of<Family>();
  while (!side.triesToFollow.empty()) {
    const std::uint32_t hwVrfId = side.triesToFollow.back();
    side.triesToFollow.pop_back();
    if (!side.tries.contains(hwVrfId)) trieReactorIs<Family>(hwVrfId);
    if (trieFollowTask_.shouldYield()) return false;
  }
  return true;
}

void KernelRouteSm::trieIs(std::uint32_t hwVrfId) {
  trieReactorIs<Ipv4Family>(hwVrfId);
}
void KernelRouteSm::trieDel(std::uint32_t hwVrfId) {
  trieReactorDel<Ipv4Family>(hwVrfId);
}
void KernelRouteSm::trie6Is(std::uint32_t hwVrfId) {
  trieReactorIs<Ipv6Family>(hwVrfId);
}
void KernelRouteSm::trie6Del(std::uint32_t hwVrfId) {
  trieReactorDel<Ipv6Family>(hwVrfId);
}

// --- Life ------------------------------------------------------------------------------------------------------------

KernelRouteSm::KernelRouteSm(const KernelRouteSmInputs& inputs, Platform::TaskScheduler& scheduler,
                             Platform::TraceFacility& trace)
    : Entity("KernelRouteSm"),
      in_(inputs),
      capacity_(inputs.routeCacheCapability->hwRouteTableSize()),
      trace_(trace, "RouteCacheKernelRouteSm"),
      sides_{{*inputs.swIpv4RouteStatus, *inputs.routeConfig,
              DeferredTask(scheduler, trace_, "ipv4RouteProcessingTask", TaskPriority::processing,
                           [this] { handleIpv4RouteProcessing(); })},
             {*inputs.swIpv6RouteStatus, *inputs.route6Config,
              DeferredTask(scheduler, trace_, "ipv6RouteProcessingTask", TaskPriority::processing,
                           [this] { handleIpv6RouteProcessing(); })}},
      kernelRouteProcessingTask_(scheduler, trace_, "kernelRouteProcessingTask", TaskPriority::processing,
                                 [this] { handleKernelRouteProcessing(); }),
      kernelRouteSyncTask_(scheduler, trace_, "kernelRouteSyncTask", TaskPriority::processing,
                           [this] { handleKernelRouteSync(); }),
      waitingReviewTask_(scheduler, trace_, "kernelWaitingReviewTask", TaskPriority::processing,
                         [this] { handleWaitingReview(); }),
      // Ahead of the tasks that decide: what goes from a trie that nobody follows yet is told to nobody.
      trieFollowTask_(scheduler, trace_, "kernelTrieFollowTask", TaskPriority::delivery,
                      [this] { handleTrieFollow(); }) {}

KernelRouteSm::~KernelRouteSm() = default;

std::shared_ptr<KernelRouteSm> KernelRouteSmIs(const KernelRouteSmInputs& inputs, Platform::TaskScheduler& scheduler,
                                               Platform::TraceFacility& trace) {
  return std::make_shared<KernelRouteSm>(inputs, scheduler, trace);
}

void KernelRouteSm::handleInitialized() {
  trace_(9, __PRETTY_FUNCTION__);
  initialized_ = true;
  Pondra::follow(swRouteReactor_, *this, in_.swIpv4RouteStatus, &KernelRouteSm::handleIpv4SwRoute, nullptr,
                 &KernelRouteSm::handleSwWriter<Ipv4Family>);
  Pondra::follow(swRoute6Reactor_, *this, in_.swIpv6RouteStatus, &KernelRouteSm::handleIpv6SwRoute, nullptr,
                 &KernelRouteSm::handleSwWriter<Ipv6Family>);
  handleSwWriter<Ipv4Family>();
  handleSwWriter<Ipv6Family>();
  Pondra::follow(routeReactor_, *this, in_.routeConfig, &KernelRouteSm::handleRouteConfig);
  Pondra::follow(route6Reactor_, *this, in_.route6Config, &KernelRouteSm::handleRouteConfig);
  vrfIdReactor_ = std::make_unique<VrfIdFollower<KernelRouteSm>>(*this, in_.vrfIdMap);
  vrfCachedRouteReactor_ = std::make_unique<VrfCachedRouteReactor>(*this, in_.vrfCachedRoute);
  const auto reversed = [](std::vector<std::uint32_t> ids) {
    std::reverse(ids.begin(), ids.end());
    return ids;
  };
  sides_.v4.triesToFollow = reversed(in_.vrfCachedRoute->vrfTrieIds());
  sides_.v6.triesToFollow = reversed(in_.vrfCachedRoute->vrfTrie6Ids());
  handleTrieFollow();
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

template <class Family>
void KernelRouteSm::queueKey(const BasicRouteVrfKey<Family>& key, double seconds) {
  trace_(7, "prefix: ", key.prefix(), " vrfId: ", key.vrfId());
  sides_.of<Family>().toProcess.keyIs(key);
  sides_.of<Family>().task.schedule(seconds);
}

template <class Family>
void KernelRouteSm::vrfWalkIs(std::uint32_t hwVrfId) {
  trace_(6,
         std::string_view(byFamily<Family>("scheduleSwIpv4RouteStatusWalk for hwVrfId: ",
                                           "scheduleSwIpv6RouteStatusWalk for hwVrfId: ")),
         hwVrfId);
  sides_.of<Family>().walk.vrfIs(hwVrfId);
  sides_.of<Family>().task.schedule(routeProcessingInterval_);
}

template <class Family>
void KernelRouteSm::trieSweepIs(std::uint32_t hwVrfId) {
  sides_.of<Family>().trieSweep[hwVrfId] = {};
  vrfWalkIs<Family>(hwVrfId);
}

void KernelRouteSm::handleIpv4SwRoute(const Ipv4RouteVrfKey& key) {
  trace_(9, __PRETTY_FUNCTION__);
  queueKey<Ipv4Family>(key, routeProcessingInterval_);
}

void KernelRouteSm::handleIpv6SwRoute(const Ipv6RouteVrfKey& key) {
  trace_(9, __PRETTY_FUNCTION__);
  queueKey<Ipv6Family>(key, routeProcessingInterval_);
}

void KernelRouteSm::handleIpv4SwRoute() {
  trace_(9, __PRETTY_FUNCTION__);
  sides_.v4.walk.allIs();
  scheduleIpv4RouteProcessingTask(routeProcessingInterval_);
}

void KernelRouteSm::handleIpv6SwRoute() {
  trace_(9, __PRETTY_FUNCTION__);
  sides_.v6.walk.allIs();
  scheduleIpv6RouteProcessingTask(routeProcessingInterval_);
}

template <class Family>
void KernelRouteSm::handleSwWriter() {
  trace_(9, __PRETTY_FUNCTION__);
  sides_.of<Family>().reconciled = sides_.of<Family>().routes.reconciled();
  reconcile();
}

void KernelRouteSm::reconcile() {
  if (in_.kernelRouteStatus->reconciled()) return;
  const auto allDecided = [](const auto& side) {
    return side.reconciled && !side.toProcess.hasFresh() && side.trieSweep.empty() && !side.walk.pending();
  };
  const bool walked = synced_ && currentKernelRouteVrfIdColl_.empty() && nextKernelRouteVrfIdColl_.empty();
  if (walked && allDecided(sides_.v4) && allDecided(sides_.v6)) {
    in_.kernelRouteStatus->reconciledIs();
  }
}

void KernelRouteSm::handleIpv4CachedRoute(const Ipv4RouteVrfKey& key) {
  trace_(9, __PRETTY_FUNCTION__);
  queueKey<Ipv4Family>(key, routeProcessingInterval_);
}

void KernelRouteSm::handleIpv6CachedRoute(const Ipv6RouteVrfKey& key) {
  trace_(9, __PRETTY_FUNCTION__);
  queueKey<Ipv6Family>(key, routeProcessingInterval_);
}

void KernelRouteSm::scheduleSwIpv4RouteStatusWalk(std::uint32_t hwVrfId) {
  vrfWalkIs<Ipv4Family>(hwVrfId);
}

void KernelRouteSm::scheduleSwIpv6RouteStatusWalk(std::uint32_t hwVrfId) {
  vrfWalkIs<Ipv6Family>(hwVrfId);
}

// As a rule the route is published anew, too: it is decided once for both if that comes first.
void KernelRouteSm::handleRouteConfig(const RouteKey& key) {
  trace_(9, __PRETTY_FUNCTION__);
  constexpr double untilPublished = 0.005;  // seconds: a slice of route processing
  const double seconds = std::max(routeProcessingInterval_, untilPublished);
  if (!in_.kernelRouteStatus->has(key) || !in_.vrfIdMap->globalVrfIdToHwVrfIdHas(key.vrfId())) return;
  const std::uint32_t hwVrfId = in_.vrfIdMap->globalVrfIdToHwVrfId(key.vrfId());
  if (key.prefix().isV4()) {
    queueKey<Ipv4Family>({key.prefix().v4(), hwVrfId}, seconds);
  } else {
    queueKey<Ipv6Family>({key.prefix().v6(), hwVrfId}, seconds);
  }
}

void KernelRouteSm::handleVrfId(std::uint32_t piVrfId) {
  trace_(9, __PRETTY_FUNCTION__);
  reviewWaiting();  // what waits may be of the hardware id that it had, also where it has another one at once
  if (!in_.vrfIdMap->globalVrfIdToHwVrfIdHas(piVrfId)) {
    trace_(6, "deleted piVrfId: ", piVrfId);
    addKernelRouteVrfIdColl(piVrfId);
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
  if (sides_.v4.tries.contains(hwVrfId)) trieSweepIs<Ipv4Family>(hwVrfId);
  if (sides_.v6.tries.contains(hwVrfId)) trieSweepIs<Ipv6Family>(hwVrfId);
}

template <class Family>
void KernelRouteSm::cachedPrefixChanged(const BasicRouteVrfKey<Family>& key) {
  if (!in_.vrfIdMap->hwVrfIdToGlobalVrfIdHas(key.vrfId())) return;
  sides_.of<Family>().walk.coveredIs(key);
  if constexpr (std::is_same_v<Family, Ipv4Family>) {
    handleIpv4CachedRoute(key);
  } else {
    handleIpv6CachedRoute(key);
  }
}

void KernelRouteSm::reviewWaiting() {
  if (!sides_.v4.toProcess.hasWaiting(cachedRoom) && !sides_.v6.toProcess.hasWaiting(cachedRoom)) return;
  reviewOwed_ = true;
  scheduleWaitingReviewTask(routeProcessingIntervalDefer_);
}

void KernelRouteSm::handleWaitingReview() {
  trace_(9, __PRETTY_FUNCTION__);
  reviewOwed_ = false;
  beginReview<Ipv4Family>();
  beginReview<Ipv6Family>();
}

template <class Family>
void KernelRouteSm::beginReview() {
  auto& side = sides_.of<Family>();
  side.toProcess.waitingKindIs(cachedRoom, review);
  if (side.toProcess.hasWaiting(review)) side.task.schedule(routeProcessingInterval_);
}

// Nothing of a VRF that is not mapped has to be decided: its arrival brings all of it.
template <class Family>
void KernelRouteSm::trieChanged(std::uint32_t hwVrfId) {
  if (!in_.vrfIdMap->hwVrfIdToGlobalVrfIdHas(hwVrfId)) return;
  reviewWaiting();
  vrfWalkIs<Family>(hwVrfId);
  addKernelRouteVrfIdColl(in_.vrfIdMap->hwVrfIdToGlobalVrfId(hwVrfId));
}

// --- Decisions -------------------------------------------------------------------------------------------------------

template <class Key>
std::optional<Routing::Rib::RouteKey> KernelRouteSm::kernelKey(const Key& key) const {
  if (!in_.vrfIdMap->hwVrfIdToGlobalVrfIdHas(key.vrfId())) return std::nullopt;
  return RouteKey(in_.vrfIdMap->hwVrfIdToGlobalVrfId(key.vrfId()), key.prefix());
}

// Room aside.
template <class Family>
bool KernelRouteSm::isWanted(const BasicRouteVrfKey<Family>& key, bool published) const {
  const auto cached = trie<Family>(key.vrfId());
  return published ? !cached || !cached->longestMatch(key.prefix()) : cached && cached->has(key.prefix());
}

bool KernelRouteSm::hasRoom(Room room) const {
  return in_.kernelRouteStatus->hasRoom() && (room == cachedRoom || in_.kernelRouteStatus->size() < capacity_);
}

// Of a route that is queued, or that a walk has met.
template <class Family>
void KernelRouteSm::decideRoute(const RouteFacts<Family>& facts) {
  if (!facts.kernel) {
    sides_.of<Family>().toProcess.keyDel(facts.key);
    return;
  }
  const bool wanted = isWanted<Family>(facts.key, facts.published);
  if (admit<Family>(facts, wanted)) {
    trace_(7, "adding", " ", *facts.kernel);
    writeKernelRoute<Family>(facts);
  } else if (!wanted) {
    trace_(7, "deleting", " ", *facts.kernel);
    if (facts.standing) deleteKernelRoute(*facts.kernel);
  }
}

// Takes the route out of the queue, or lets it wait there for the room that it needs. True: it is to be written.
template <class Family>
bool KernelRouteSm::admit(const RouteFacts<Family>& facts, bool wanted) {
  auto& side = sides_.of<Family>();
  const Room room = facts.published ? mirrorRoom : cachedRoom;
  if (wanted && !facts.standing && !hasRoom(room)) {
    side.toProcess.waitingKeyIs(facts.key, room);
    side.task.schedule(routeProcessingIntervalDefer_);
    return false;
  }
  side.toProcess.keyDel(facts.key);
  return wanted;
}

// What is known already is not looked up.
template <class Family>
void KernelRouteSm::lookUpFacts(std::span<RouteFacts<Family>> facts) const {
  using Facts = RouteFacts<Family>;
  lookUp(
      facts, sides_.of<Family>().routes,
      [](const Facts& each) { return each.published ? std::nullopt : std::optional(each.key); },
      [](Facts& each, const auto& route) { each.published = route.has_value(); });
  for (Facts& each : facts) {
    each.kernel = kernelKey(each.key);
    // A walk through the kernel's table has met it under the key of before: the VRF's id has changed meanwhile.
    if (each.standing && each.standing->key() != each.kernel) each.standing.reset();
  }
  lookUp(
      facts, *in_.kernelRouteStatus, [](const Facts& each) { return each.standing ? std::nullopt : each.kernel; },
      [](Facts& each, const auto& route) { each.standing = route; });
  lookUp(
      facts, sides_.of<Family>().config, [](const Facts& each) { return each.published ? each.kernel : std::nullopt; },
      [](Facts& each, const auto& route) { each.configured = route; });
}

template <class Family>
const KernelRouteSm::RouteFacts<Family>& KernelRouteSm::factsOf(const BasicRouteVrfKey<Family>& key) {
  return sides_.of<Family>().readAhead.of(key, [this](auto facts) { this->lookUpFacts<Family>(facts); });
}

template <class Family>
void KernelRouteSm::readAheadOfFresh() {
  auto& side = sides_.of<Family>();
  side.readAhead.readNext([&side](auto keys) { return side.toProcess.freshKeys(keys); },
                          [this](auto facts) { this->lookUpFacts<Family>(facts); });
}

template <class Family>
void KernelRouteSm::writeKernelRoute(const RouteFacts<Family>& facts) {
  // A published route that is configured no more is about to be withdrawn: no reason to touch it before.
  if (facts.published && !facts.configured && facts.standing) return;
  const Routing::Rib::Route wanted = facts.configured.value_or(Routing::Rib::Route(*facts.kernel));
  if (facts.standing == wanted) return;
  in_.kernelRouteStatus->routeIs(wanted);
  ++written_;
}

void KernelRouteSm::deleteKernelRoute(const RouteKey& key) {
  const std::size_t before = in_.kernelRouteStatus->size();
  in_.kernelRouteStatus->routeDel(key);
  if (in_.kernelRouteStatus->size() == before) return;
  ++deleted_;
  wakeWaiting<Ipv4Family>();
  wakeWaiting<Ipv6Family>();
}

// Room has come that somebody may wait for.
template <class Family>
void KernelRouteSm::wakeWaiting() {
  auto& side = sides_.of<Family>();
  const bool waits = (side.toProcess.hasWaiting(mirrorRoom) && hasRoom(mirrorRoom)) ||
                     (side.toProcess.hasWaiting(cachedRoom) && hasRoom(cachedRoom));
  if (waits) side.task.schedule(routeProcessingInterval_);
}

// --- The families' tasks ---------------------------------------------------------------------------------------------

void KernelRouteSm::handleIpv4RouteProcessing() {
  trace_(9, __PRETTY_FUNCTION__);
  handleRouteProcessing<Ipv4Family>();
}

void KernelRouteSm::handleIpv6RouteProcessing() {
  trace_(9, __PRETTY_FUNCTION__);
  handleRouteProcessing<Ipv6Family>();
}

template <class Family>
void KernelRouteSm::handleRouteProcessing() {
  auto& side = sides_.of<Family>();
  const auto delay = runQueue(side.task, side.toProcess, routeProcessingInterval_, routeProcessingIntervalDefer_,
                              [this] { return processNext<Family>(); });
  side.readAhead.clear();
  side.walk.rest();
  if (delay) side.task.schedule(*delay);
  reconcile();
}

// Fresh keys, then one prefix of a trie or one entry of a walk, then those that wait while there is room for them, then
// those under review.
template <class Family>
bool KernelRouteSm::processNext() {
  auto& side = sides_.of<Family>();
  if (const auto fresh = side.toProcess.freshKey()) {
    if (side.readAhead.empty()) readAheadOfFresh<Family>();
    decideRoute<Family>(factsOf<Family>(*fresh));
  } else if (!side.trieSweep.empty()) {
    queueTriePrefix<Family>();
  } else if (side.walk.pending()) {
    const auto note = [](RouteFacts<Family>& facts, const auto& /*route*/) { facts.published = true; };
    const auto look = [this](auto facts) { this->lookUpFacts<Family>(facts); };
    if (const auto* const facts = side.readAhead.step(side.walk, note, look)) decideRoute<Family>(*facts);
  } else if (side.toProcess.hasWaiting(mirrorRoom) && hasRoom(mirrorRoom)) {
    decideRoute<Family>(factsOf<Family>(*side.toProcess.waitingKey(mirrorRoom)));
  } else if (side.toProcess.hasWaiting(cachedRoom) && hasRoom(cachedRoom)) {
    decideRoute<Family>(factsOf<Family>(*side.toProcess.waitingKey(cachedRoom)));
  } else if (side.toProcess.hasWaiting(review)) {
    decideRoute<Family>(factsOf<Family>(*side.toProcess.waitingKey(review)));
  } else {
    return false;
  }
  return true;
}

// The next prefix of the first trie that is to be swept; the sweep ends with the trie.
template <class Family>
void KernelRouteSm::queueTriePrefix() {
  auto& side = sides_.of<Family>();
  const auto sweep = side.trieSweep.begin();
  const auto swept = trie<Family>(sweep->first);
  auto route = swept->lowerBound(sweep->second);
  if (route != swept->end()) {
    side.toProcess.keyIs({route->prefix, sweep->first});
    ++route;
  }
  if (route == swept->end()) {
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
  reconcile();
}

// The kernel routes that the walk visits next. `at` is behind them then, and the tables have been asked about them.
KernelRouteSm::KernelRouteGroup KernelRouteSm::readKernelRoutes(Routing::Rib::RouteConfig::Iterator& at) {
  const Routing::Rib::RouteConfig& table = *in_.kernelRouteStatus;
  const auto& vrfs = currentKernelRouteVrfIdColl_;
  sides_.v4.readAhead.clear();
  sides_.v6.readAhead.clear();
  KernelRouteGroup group;
  while (group.count < group.keys.size() && at != table.end()) {
    const RouteKey key = at->key();
    if (!vrfs.contains(key.vrfId())) {
      const auto next = vrfs.upper_bound(key.vrfId());
      at = next == vrfs.end() ? table.end() : table.lowerBound(RouteKey(*next, IpGenPrefix()));
      continue;
    }
    group.keys[group.count++] = key;
    if (in_.vrfIdMap->globalVrfIdToHwVrfIdHas(key.vrfId())) {
      const std::uint32_t hwVrfId = in_.vrfIdMap->globalVrfIdToHwVrfId(key.vrfId());
      if (key.prefix().isV4()) {
        sides_.v4.readAhead.add({key.prefix().v4(), hwVrfId}).standing = *at;
      } else {
        sides_.v6.readAhead.add({key.prefix().v6(), hwVrfId}).standing = *at;
      }
    }
    ++at;
  }
  lookUpFacts<Ipv4Family>(sides_.v4.readAhead.all());
  lookUpFacts<Ipv6Family>(sides_.v6.readAhead.all());
  return group;
}

void KernelRouteSm::handleKernelRouteProcessing() {
  trace_(9, __PRETTY_FUNCTION__);
  if (currentKernelRouteVrfIdColl_.empty()) return;
  const std::uint64_t handled = walkKernelRoutes();
  if (kernelRouteBookmark_.isEmpty()) currentKernelRouteVrfIdColl_ = std::exchange(nextKernelRouteVrfIdColl_, {});
  kernelRouteProcessingTask_.report(handled, currentKernelRouteVrfIdColl_.size() + nextKernelRouteVrfIdColl_.size());
  if (!currentKernelRouteVrfIdColl_.empty()) {
    scheduleKernelRouteProcessingTask(std::max(routeProcessingInterval_, walkPause));
  }
  reconcile();
}

// From the bookmark on, for a time slice; how many. The bookmark is empty afterwards when the walk has come to its end.
std::uint64_t KernelRouteSm::walkKernelRoutes() {
  const Routing::Rib::RouteConfig& table = *in_.kernelRouteStatus;
  const RouteKey first(*currentKernelRouteVrfIdColl_.begin(), IpGenPrefix());
  auto at = table.lowerBound(kernelRouteBookmark_.isEmpty() ? first : kernelRouteBookmark_);
  kernelRouteBookmark_ = RouteKey();
  KernelRouteGroup group;
  std::uint64_t handled = 0;
  do {
    if (group.empty()) group = readKernelRoutes(at);
    if (group.empty()) break;
    processKernelRoute(group.keys[group.next++]);
    ++handled;
  } while (!kernelRouteProcessingTask_.shouldYield());
  if (!group.empty()) {
    kernelRouteBookmark_ = group.keys[group.next];
  } else if (at != table.end()) {
    kernelRouteBookmark_ = at->key();
  }
  sides_.v4.readAhead.clear();
  sides_.v6.readAhead.clear();
  return handled;
}

void KernelRouteSm::processKernelRoute(const RouteKey& key) {
  if (!in_.vrfIdMap->globalVrfIdToHwVrfIdHas(key.vrfId())) {
    trace_(7, "deleting", " ", key);
    deleteKernelRoute(key);
    return;
  }
  const std::uint32_t hwVrfId = in_.vrfIdMap->globalVrfIdToHwVrfId(key.vrfId());
  if (key.prefix().isV4()) {
    decideRoute<Ipv4Family>(factsOf<Ipv4Family>({key.prefix().v4(), hwVrfId}));
  } else {
    decideRoute<Ipv6Family>(factsOf<Ipv6Family>({key.prefix().v6(), hwVrfId}));
  }
}

// --- Invariants ------------------------------------------------------------------------------------------------------

template <class Family>
bool KernelRouteSm::isAwaited(const BasicRouteVrfKey<Family>& key) const {
  return sides_.of<Family>().toProcess.has(key) || sides_.of<Family>().walk.willMeet(key);
}

template <class Family>
void KernelRouteSm::checkPublished() const {
  for (const auto& route : sides_.of<Family>().routes) {
    const auto kernel = kernelKey(route.key());
    if (!kernel || isAwaited<Family>(route.key())) continue;
    const auto standing = in_.kernelRouteStatus->route(*kernel);
    PLATFORM_ASSERT_TEXT(isWanted<Family>(route.key()) == standing.has_value(),
                         "a published route has a kernel route exactly if no cached prefix covers it");
    const auto configured = sides_.of<Family>().config.route(*kernel);
    PLATFORM_ASSERT_TEXT(!standing || !configured || *standing == *configured,
                         "a kernel route is like the configured route that it mirrors");
  }
}

template <class Family>
void KernelRouteSm::checkCachedPrefixes() const {
  const auto tries = [this] {
    if constexpr (std::is_same_v<Family, Ipv4Family>) {
      return in_.vrfCachedRoute->vrfTries();
    } else {
      return in_.vrfCachedRoute->vrfTries6();
    }
  };
  const auto& toFollow = sides_.of<Family>().triesToFollow;
  for (const auto& [hwVrfId, cached] : tries()) {
    if (std::find(toFollow.begin(), toFollow.end(), hwVrfId) != toFollow.end()) continue;
    const auto sweep = sides_.of<Family>().trieSweep.find(hwVrfId);
    for (const auto& route : *cached) {
      const BasicRouteVrfKey<Family> key(route.prefix, hwVrfId);
      const auto kernel = kernelKey(key);
      const bool swept = sweep != sides_.of<Family>().trieSweep.end() && !(route.prefix < sweep->second);
      if (!kernel || swept || isAwaited<Family>(key) || sides_.of<Family>().routes.has(key)) continue;
      PLATFORM_ASSERT_TEXT(in_.kernelRouteStatus->route(*kernel) == Routing::Rib::Route(*kernel),
                           "a cached prefix that is not published has a kernel route of its key alone");
    }
  }
}

// The one that waits longest stands for the others. Published routes that wait may be left by their VRF: they are about
// to be withdrawn.
template <class Family>
void KernelRouteSm::checkWaiting() const {
  const auto key = sides_.of<Family>().toProcess.waitingKey(cachedRoom);
  if (!key || reviewOwed_ || sides_.of<Family>().walk.willMeet(*key)) return;
  PLATFORM_ASSERT_TEXT(kernelKey(*key) && isWanted<Family>(*key),
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
    const auto isRight = [this]<class Family>(const BasicRouteVrfKey<Family>& tableKey) {
      return isAwaited<Family>(tableKey) || isWanted<Family>(tableKey);
    };
    PLATFORM_ASSERT_TEXT(key.prefix().isV4() ? isRight.operator()<Ipv4Family>({key.prefix().v4(), hwVrfId})
                                             : isRight.operator()<Ipv6Family>({key.prefix().v6(), hwVrfId}),
                         "a kernel route is wanted, or queued");
  }
}

void KernelRouteSm::checkInvariants() const {
  if (!initialized_) return;
  checkPublished<Ipv4Family>();
  checkPublished<Ipv6Family>();
  checkCachedPrefixes<Ipv4Family>();
  checkCachedPrefixes<Ipv6Family>();
  checkWaiting<Ipv4Family>();
  checkWaiting<Ipv6Family>();
  checkKernelRoutes();
}

// --- For callers outside: one key at a time --------------------------------------------------------------------------

template <class Family>
bool KernelRouteSm::isQueued(const BasicRouteVrfKey<Family>& key) const {
  if (sides_.of<Family>().toProcess.has(key)) return true;
  trace_(6, "Not in RouteToProcess");
  return false;
}

template <class Family>
bool KernelRouteSm::isRouteAdded(const BasicRouteVrfKey<Family>& key) {
  if (!isQueued<Family>(key)) return false;
  const auto& facts = factsOf<Family>(key);
  return admit<Family>(facts, isWanted<Family>(key, facts.published));
}

// What is not queued may be deleted, and is not added.
template <class Family>
void KernelRouteSm::processRoute(const BasicRouteVrfKey<Family>& key) {
  const auto& facts = factsOf<Family>(key);
  if (facts.kernel && !isQueued<Family>(key) && isWanted<Family>(key, facts.published)) return;
  decideRoute<Family>(facts);
}

bool KernelRouteSm::isIpv4RouteAdded(const Ipv4RouteVrfKey& key) {
  return isRouteAdded<Ipv4Family>(key);
}

bool KernelRouteSm::isIpv6RouteAdded(const Ipv6RouteVrfKey& key) {
  return isRouteAdded<Ipv6Family>(key);
}

void KernelRouteSm::ipv4ProcessRoute(const Ipv4RouteVrfKey& key) {
  processRoute<Ipv4Family>(key);
}

void KernelRouteSm::ipv6ProcessRoute(const Ipv6RouteVrfKey& key) {
  processRoute<Ipv6Family>(key);
}

}  // namespace RouteCache
