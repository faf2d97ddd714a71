// The life of HwRouteSm, its reactions, and the admission of routes. Scan and ageing: hw/HwRouteSmAgeing.cpp.
#include "RouteCache/hw/HwRouteSm.h"

#include <algorithm>

#include "platform/tables/Trie.h"
#include "platform/values/Assert.h"

namespace RouteCache {

using Platform::TaskPriority;

// --- Reactors --------------------------------------------------------------------------------------------------------

class HwRouteSm::ThresholdReactor final : public CliConfig::Reactor {
 public:
  ThresholdReactor(HwRouteSm& sm, std::shared_ptr<const CliConfig> config) : Reactor(std::move(config)), sm_(sm) {}
  void handleThresholdConfig() override { sm_.handleThresholdConfig(); }

 private:
  HwRouteSm& sm_;
};

class HwRouteSm::ConfigReactor final : public Config::Reactor {
 public:
  ConfigReactor(HwRouteSm& sm, std::shared_ptr<const Config> config) : Reactor(std::move(config)), sm_(sm) {}
  void handleAgeingKeepsRoute() override { sm_.handleAgeingKeepsRoute(); }

 private:
  HwRouteSm& sm_;
};

// Keeps one TrieReactor for each trie.
class HwRouteSm::VrfCachedRouteReactor final : public VrfCachedRoute::Reactor {
 public:
  VrfCachedRouteReactor(HwRouteSm& sm, std::shared_ptr<const VrfCachedRoute> tries)
      : Reactor(std::move(tries)), sm_(sm) {}
  void handleVrfTrie(std::uint32_t hwVrfId) override {
    const auto trie = watched().vrfTrie(hwVrfId);
    const bool hadTrie = sm_.trie_.contains(hwVrfId);
    sm_.trieDel(hwVrfId);
    if (trie) sm_.trieIs(hwVrfId);
    if (hadTrie) {
      // What was cacheable by the old trie may not be any more.
      sm_.scheduleSwRouteWalk(hwVrfId);
      sm_.evaluateCachingEnabled(false);
    } else if (trie && !trie->empty()) {
      sm_.evaluateCachingEnabled(true);
    }
  }

 private:
  HwRouteSm& sm_;
};

// Hears of the cached prefixes of one VRF.
class HwRouteSm::TrieReactor final : public Routing::Trie::Reactor {
 public:
  TrieReactor(HwRouteSm& sm, const std::shared_ptr<const Routing::Trie>& trie, std::uint32_t hwVrfId)
      : Reactor(trie), sm_(sm), hwVrfId_(hwVrfId) {}

  void handleRouteCachePrefix(std::uint32_t id) override {
    sm_.notePrefixes(hwVrfId_, !trie()->empty());
    const auto prefix = trie()->prefix(id);
    if (!prefix) return;
    if (trie()->longestMatch(*prefix) == prefix) {
      sm_.evaluateCachingEnabled(true);
      return;
    }
    sm_.trace_(7, "cached prefix gone: ", *prefix);
    sm_.scheduleSwRouteWalk(hwVrfId_);
    sm_.evaluateCachingEnabled(false);
  }
  void handleTrieDelete() override {
    sm_.notePrefixes(hwVrfId_, false);
    sm_.evaluateCachingEnabled(false);
  }

 private:
  HwRouteSm& sm_;
  std::uint32_t hwVrfId_;
};

void HwRouteSm::trieIs(std::uint32_t hwVrfId) {
  const auto trie = in_.vrfCachedRoute->vrfTrie(hwVrfId);
  trie_[hwVrfId] = std::make_unique<TrieReactor>(*this, trie, hwVrfId);
  notePrefixes(hwVrfId, !trie->empty());
}

void HwRouteSm::trieDel(std::uint32_t hwVrfId) {
  trie_.erase(hwVrfId);
  notePrefixes(hwVrfId, false);
}

void HwRouteSm::trieDelAll() {
  trie_.clear();
  vrfsWithPrefixes_.clear();
}

void HwRouteSm::notePrefixes(std::uint32_t hwVrfId, bool any) {
  if (any) {
    vrfsWithPrefixes_.insert(hwVrfId);
  } else {
    vrfsWithPrefixes_.erase(hwVrfId);
  }
}

// --- Life ------------------------------------------------------------------------------------------------------------

HwRouteSm::HwRouteSm(const HwRouteSmInputs& inputs, Platform::TaskScheduler& scheduler, Platform::TraceFacility& trace)
    : Entity("HwRouteSm"),
      in_(inputs),
      state_{.capacity = inputs.routeCacheCapability->hwRouteTableSize()},
      policyKind_(cachePolicyKind(defaultCachePolicy)),
      policy_(policyKind_.make(state_)),
      trace_(trace, "RouteCacheHwRouteSm"),
      sfeWalk_(*inputs.ipv4SfeRouteStatus),
      hwWalk_(*inputs.ipv4HwRouteStatus),
      hitWalk_(*inputs.ipv4SfeHitBitStatus),
      slices_(std::make_shared<HitBitTimeSlices>()),
      routeProcessingTask_(scheduler, trace_, "hwRouteProcessingTask", TaskPriority::processing,
                           [this] { handleRouteProcessing(); }),
      sfeRouteHitProcessingTask_(scheduler, trace_, "sfeRouteHitProcessingTask", TaskPriority::processing,
                                 [this] { handleSfeRouteHitProcessing(); }),
      sfeProgrammedRouteProcessingTask_(scheduler, trace_, "sfeProgrammedRouteProcessingTask", TaskPriority::processing,
                                        [this] { handleSfeProgrammedRouteProcessing(); }),
      hwHitbitScanTask_(scheduler, trace_, "hwHitbitScanTask", TaskPriority::background,
                        [this] { handleHwhitbitScan(); }) {
  PLATFORM_ASSERT_TEXT(state_.capacity > 0, "routecache/capability: hwRouteTableSize must be at least 1");
  if (in_.ipv4SfeProgrammedRouteStatus) {
    programmedWalk_ = std::make_unique<RouteStatusWalk<Ipv4ProgrammedRouteStatus>>(*in_.ipv4SfeProgrammedRouteStatus);
  }
}

HwRouteSm::~HwRouteSm() {
  trieDelAll();
}

std::shared_ptr<HwRouteSm> HwRouteSmIs(const HwRouteSmInputs& inputs, Platform::TaskScheduler& scheduler,
                                       Platform::TraceFacility& trace) {
  return std::make_shared<HwRouteSm>(inputs, scheduler, trace);
}

void HwRouteSm::handleInitialized() {
  trace_(9, __PRETTY_FUNCTION__);
  initialized_ = true;
  handleThresholdConfig();
  const std::size_t entries = in_.ipv4HwRouteStatus->size();
  state_.spaceLeft = entries < capacity() ? capacity() - static_cast<std::uint32_t>(entries) : 0;
  spaceDebt_ = entries > capacity() ? static_cast<std::uint32_t>(entries) - capacity() : 0;
  publishSpace();
  for (std::uint16_t slice = timeSlice0; slice < timeSliceInvalid; ++slice) {
    hwHitbitCollIs(slice, HitBitTimeSliceCollIs(slices_, slice));
  }
  // The hardware has one interval to report what it holds.
  scheduleHwHitbitScanTask(hwHitbitScanInterval_);

  thresholdReactor_ = std::make_unique<ThresholdReactor>(*this, in_.cliConfig);
  configReactor_ = std::make_unique<ConfigReactor>(*this, in_.routeCacheConfig);
  Pondra::follow(swRouteReactor_, *this, in_.ipv4SfeRouteStatus, &HwRouteSm::handleSwRoute, &HwRouteSm::appetite,
                 &HwRouteSm::handleSwWriter);
  sfeReconciled_ = in_.ipv4SfeRouteStatus->reconciled();
  Pondra::follow(sfeHitReactor_, *this, in_.ipv4SfeHitBitStatus, &HwRouteSm::handleSfeRouteHit);
  if (in_.ipv4SfeProgrammedRouteStatus) {
    Pondra::follow(programmedReactor_, *this, in_.ipv4SfeProgrammedRouteStatus, &HwRouteSm::handleSwProgrammedRoute);
  }
  Pondra::follow(adjReactor_, *this, in_.ipv4AdjStatus, &HwRouteSm::handleAdjacency);
  Pondra::follow(adj6Reactor_, *this, in_.ipv6AdjStatus, &HwRouteSm::handleAdjacency);
  vrfCachedRouteReactor_ = std::make_unique<VrfCachedRouteReactor>(*this, in_.vrfCachedRoute);
  for (const std::uint32_t hwVrfId : in_.vrfCachedRoute->vrfTrieIds()) trieIs(hwVrfId);
  evaluateCachingEnabled(false);

  handleSwRoute();
  handleHwRoute();
  handleSfeRouteHit();
  handleSwProgrammedRoute();
}

const Lattis::EntityType& HwRouteSm::entityType() const {
  using This = HwRouteSm;
  using Lattis::attributeField;
  using Lattis::readOnlyField;
  static const Lattis::EntityType type{
      "RouteCache::HwRouteSm",
      {attributeField<This, &This::enableRouteCache, &This::enableRouteCacheIs>("enableRouteCache"),
       attributeField<This, &This::policy, &This::policyIs>("policy"),
       attributeField<This, &This::admitAgedUnhit, &This::admitAgedUnhitIs>("admitAgedUnhit"),
       attributeField<This, &This::hwSpaceBuffer, &This::hwSpaceBufferIs>("hwSpaceBuffer"),
       attributeField<This, &This::routeProcessingInterval, &This::routeProcessingIntervalIs>(
           "routeProcessingInterval"),
       attributeField<This, &This::routeProcessingIntervalDefer, &This::routeProcessingIntervalDeferIs>(
           "routeProcessingIntervalDefer"),
       attributeField<This, &This::hwHitbitScanInterval, &This::hwHitbitScanIntervalIs>("hwHitbitScanInterval"),
       readOnlyField<This, &This::capacity>("capacity"),
       readOnlyField<This, &This::ipv4PrefixHwSpaceLeft>("ipv4PrefixHwSpaceLeft"),
       readOnlyField<This, &This::spaceDebt>("spaceDebt"),
       readOnlyField<This, &This::getHwPercentageSpaceUsed>("hwPercentageSpaceUsed"),
       readOnlyField<This, &This::routeToProcessCount>("routeToProcess"),
       readOnlyField<This, &This::sfeRouteHitToProcessCount>("sfeRouteHitToProcess"),
       readOnlyField<This, &This::admissions>("admissions"), readOnlyField<This, &This::aged>("aged")},
      {}};
  return type;
}

std::string HwRouteSm::fault() const {
  auto fault = intervalFault({{"routeProcessingInterval", routeProcessingInterval_},
                              {"routeProcessingIntervalDefer", routeProcessingIntervalDefer_, Interval::shortestRetry},
                              {"hwHitbitScanInterval", hwHitbitScanInterval_, Interval::shortestRetry}});
  if (!fault.empty()) return fault;
  if (hwSpaceBuffer_ > std::numeric_limits<std::uint32_t>::max() - capacity()) {
    return "hwSpaceBuffer " + std::to_string(hwSpaceBuffer_) + " is too large: with the capacity of " +
           std::to_string(capacity()) + " it exceeds 32 bits";
  }
  return {};
}

void HwRouteSm::enableRouteCacheIs(bool enable) {
  if (std::exchange(enableRouteCache_, enable) == enable || !initialized_) return;
  sfeWalk_.allIs();
  scheduleRouteProcessingTask(routeProcessingInterval_);
}

void HwRouteSm::policyIs(const std::string& name) {
  if (name != policyKind_.name) policyKindIs(cachePolicyKind(name));
}

void HwRouteSm::policyKindIs(CachePolicyKind kind) {
  policy_ = kind.make(state_);
  policyKind_ = kind;
  if (initialized_) handleSwRoute();
}

void HwRouteSm::admitAgedUnhitIs(bool admit) {
  admitAgedUnhit_ = admit;
  if (admit) policy_->forgetAll();
}

void HwRouteSm::hwSpaceBufferIs(std::uint32_t entries) {
  hwSpaceBuffer_ = entries;
  if (initialized_) publishSpace();
}

// A shorter interval counts for what is queued, too.
void HwRouteSm::routeProcessingIntervalIs(double seconds) {
  routeProcessingInterval_ = seconds;
  if (routeToProcess_.hasFresh()) scheduleRouteProcessingTask(seconds);
}

// A shorter interval counts for the scan that is waiting, too.
void HwRouteSm::hwHitbitScanIntervalIs(double seconds) {
  hwHitbitScanInterval_ = seconds;
  if (initialized_ && seconds >= Interval::shortestRetry) scheduleHwHitbitScanTask(seconds);
}

// --- Reactions -------------------------------------------------------------------------------------------------------

void HwRouteSm::handleThresholdConfig() {
  trace_(9, __PRETTY_FUNCTION__);
  const CliConfig& cli = *in_.cliConfig;
  state_.high = {cli.highThresholdHwUtilPercentage(), timeSliceOfIdle(cli.highThresholdIdleTime())};
  state_.medium = {cli.mediumThresholdHwUtilPercentage(), timeSliceOfIdle(cli.mediumThresholdIdleTime())};
  state_.low = {cli.lowThresholdHwUtilPercentage(), timeSliceOfIdle(cli.lowThresholdIdleTime())};
}

void HwRouteSm::handleSwRoute(const Key& key) {
  trace_(9, __PRETTY_FUNCTION__);
  trace_(7, "sfe route: ", key.prefix(), " vrfId: ", key.vrfId());
  routeToProcess_.keyIs(key);
  scheduleRouteProcessingTask(policy_->isScarce() ? routeProcessingIntervalDefer_ : routeProcessingInterval_);
}

Pondra::Appetite HwRouteSm::appetite() const {
  return appetiteOf(routeProcessingTask_, routeToProcess_.freshCount());
}

void HwRouteSm::handleSwRoute() {
  trace_(9, __PRETTY_FUNCTION__);
  sfeWalk_.allIs();
  scheduleRouteProcessingTask(routeProcessingInterval_);
}

void HwRouteSm::handleSwWriter() {
  trace_(9, __PRETTY_FUNCTION__);
  sfeReconciled_ = in_.ipv4SfeRouteStatus->reconciled();
  reconcile();
}

void HwRouteSm::reconcile() {
  if (!sfeReconciled_ || in_.ipv4HwRouteStatus->reconciled()) return;
  const bool allDecided = !routeToProcess_.hasFresh() && !withoutAdjacency_.readyKey() && !hwWalk_.pending() &&
                          !sfeWalk_.pending() && !hitWalk_.pending() && !sfeRouteHitToProcess_.freshKey();
  if (allDecided) in_.ipv4HwRouteStatus->reconciledIs();
}

void HwRouteSm::handleAdjacency(const AdjId& adjId) {
  trace_(9, __PRETTY_FUNCTION__);
  if (withoutAdjacency_.empty() || !adjacencyStands(adjId)) return;
  withoutAdjacency_.adjacencyIs(adjId);
  if (withoutAdjacency_.readyKey()) scheduleRouteProcessingTask(routeProcessingInterval_);
}

void HwRouteSm::handleHwRoute() {
  trace_(9, __PRETTY_FUNCTION__);
  if (in_.ipv4HwRouteStatus->size() == 0) return;
  hwWalk_.allIs();
  scheduleRouteProcessingTask(routeProcessingInterval_);
}

void HwRouteSm::scheduleSwRouteWalk(std::uint32_t hwVrfId) {
  trace_(6, "scheduleSwRouteWalk for hw vrfId: ", hwVrfId);
  sfeWalk_.vrfIs(hwVrfId);
  scheduleRouteProcessingTask(routeProcessingInterval_);
}

void HwRouteSm::handleSfeRouteHit(const Key& key) {
  trace_(9, __PRETTY_FUNCTION__);
  trace_(7, "sfe hit: ", key.prefix(), " vrfId: ", key.vrfId());
  const auto hit = in_.ipv4SfeHitBitStatus->routeHitBit(key);
  if (!hit) {
    sfeRouteHitToProcess_.keyDel(key);
    return;
  }
  const bool waits = state_.spaceLeft == 0 && sfeRouteHitToProcess_.has(key);
  sfeRouteHitToProcess_.keyIs(key, hit->hitbit());
  if (!waits) scheduleSfeRouteHitProcessingTask(routeProcessingInterval_);
}

void HwRouteSm::handleSfeRouteHit() {
  trace_(9, __PRETTY_FUNCTION__);
  hitWalk_.allIs();
  scheduleSfeRouteHitProcessingTask(routeProcessingInterval_);
}

void HwRouteSm::handleSwProgrammedRoute(const Key& key) {
  trace_(9, __PRETTY_FUNCTION__);
  if (!in_.routeCacheConfig->ageingKeepsRoute() || !in_.ipv4SfeProgrammedRouteStatus) return;
  if (!in_.ipv4SfeProgrammedRouteStatus->has(key)) return;
  trace_(7, "sfe programmed: ", key.prefix());
  sfeProgrammedRouteToProcess_.keyIs(key);
  scheduleSfeProgrammedRouteProcessingTask(routeProcessingInterval_);
}

// Set: what the SFE programmed while nobody listened counts. Cleared: nobody waits for the SFE any more.
void HwRouteSm::handleAgeingKeepsRoute() {
  if (in_.routeCacheConfig->ageingKeepsRoute()) {
    handleSwProgrammedRoute();
  } else if (!released_.empty()) {
    scheduleSfeProgrammedRouteProcessingTask(routeProcessingInterval_);
  }
}

void HwRouteSm::handleSwProgrammedRoute() {
  trace_(9, __PRETTY_FUNCTION__);
  if (!in_.routeCacheConfig->ageingKeepsRoute() || !programmedWalk_) return;
  programmedWalk_->allIs();
  scheduleSfeProgrammedRouteProcessingTask(routeProcessingInterval_);
}

void HwRouteSm::scheduleRouteProcessingTask(double seconds) {
  trace_(8, " scheduling route processing");
  routeProcessingTask_.schedule(seconds);
}
void HwRouteSm::scheduleSfeRouteHitProcessingTask(double seconds) {
  sfeRouteHitProcessingTask_.schedule(seconds);
}
void HwRouteSm::scheduleSfeProgrammedRouteProcessingTask(double seconds) {
  trace_(8, " scheduling programmed route processing");
  sfeProgrammedRouteProcessingTask_.schedule(seconds);
}
void HwRouteSm::scheduleHwHitbitScanTask(double seconds) {
  hwHitbitScanTask_.schedule(seconds);
}

void HwRouteSm::evaluateCachingEnabled(bool hint) {
  trace_(6, " enabled: ", hint);
  if (hint && in_.routeCacheConfig->cachingEnabled()) return;
  in_.routeCacheConfig->cachingEnabledIs(!vrfsWithPrefixes_.empty());
}

// --- Space -----------------------------------------------------------------------------------------------------------

std::uint32_t HwRouteSm::ipv4PrefixHwSpaceLeftInc(std::uint32_t n) {
  const bool wasFull = state_.spaceLeft == 0;
  const std::uint32_t paid = std::min(spaceDebt_, n);
  spaceDebt_ -= paid;
  state_.spaceLeft += n - paid;
  publishSpace();
  if (wasFull && state_.spaceLeft > 0) {
    if (sfeRouteHitToProcess_.hasWaiting()) {
      scheduleSfeRouteHitProcessingTask(0);  // whose end wakes the others, if room is left
    } else if (routeToProcess_.hasWaiting()) {
      scheduleRouteProcessingTask(0);
    }
  }
  return state_.spaceLeft;
}

void HwRouteSm::publishSpace() {
  in_.routeCacheConfig->ipv4PrefixHwSpaceLeftIs(state_.spaceLeft + hwSpaceBuffer_);
}

// --- Admission -------------------------------------------------------------------------------------------------------

bool HwRouteSm::adjacencyStands(AdjId adjId) const {
  if ((adjId.value() & AdjId::adjacencyIdMask) == AdjId::adjacencyInvalid) return false;
  return (!adjId.isAdjacencyV4() || in_.ipv4AdjStatus->has(adjId)) &&
         (!adjId.isAdjacencyV6() || in_.ipv6AdjStatus->has(adjId));
}

bool HwRouteSm::isRouteCacheable(const Key& key) const {
  return isCacheable(key, in_.ipv4SfeRouteStatus->route(key).value_or(Ipv4Route()));
}

bool HwRouteSm::isCacheable(const Key& key, const Ipv4Route& sfeRoute) const {
  const auto trie = in_.vrfCachedRoute->vrfTrie(key.vrfId());
  if (!trie) return enableRouteCache_;
  const bool isHost = key.prefix().length() == Prefix::maxLength;
  if (isHost && (sfeRoute.adjId().value() & AdjId::adjacencyV6Const) == 0 && trie->longestMatch(key.prefix())) {
    return true;
  }
  return enableRouteCache_;
}

std::uint32_t HwRouteSm::sfeHitbit(const Key& key) const {
  const auto hit = in_.ipv4SfeHitBitStatus->routeHitBit(key);
  return hit ? hit->hitbit() : 0;
}

bool HwRouteSm::checkRouteAddEligibility(const Key& key) const {
  const Ipv4Route sfeRoute = in_.ipv4SfeRouteStatus->route(key).value_or(Ipv4Route());
  return isEligible(sfeRoute, sfeHitbit(key), isCacheable(key, sfeRoute));
}

bool HwRouteSm::isEligible(const Ipv4Route& sfeRoute, std::uint32_t hitbit, bool cacheable) const {
  return state_.spaceLeft > 0 && (!cacheable || policy_->admits(sfeRoute, hitbit));
}

// Puts the key of a route that hardware does not get where it waits.
void HwRouteSm::leaveOut(const Ipv4Route& sfeRoute, std::uint32_t hitbit, bool cacheable) {
  const Key& key = sfeRoute.key();
  if (!cacheable) {
    policy_->forget(key);
    routeToProcess_.waitingKeyIs(key);
    if (sfeRouteHitToProcess_.has(key)) sfeRouteHitToProcess_.waitingKeyIs(key, hitbit);
    scheduleRouteProcessingTask(routeProcessingIntervalDefer_);
    return;
  }
  policy_->handleLeftOut(sfeRoute, hitbit);
  routeToProcess_.keyDel(key);
  if (hitbit != 0 && state_.spaceLeft == 0) {
    // Its hit bit may never change again: nothing but this queue would bring it back.
    sfeRouteHitToProcess_.waitingKeyIs(key, hitbit);
    scheduleSfeRouteHitProcessingTask(routeProcessingIntervalDefer_);
  } else {
    sfeRouteHitToProcess_.keyDel(key);
  }
}

void HwRouteSm::processRoute(const Key& key) {
  decideRoute(readAhead_.of(key, [this](auto one) { lookUpFacts(one); }));
}

void HwRouteSm::decideRoute(const RouteFacts& facts) {
  PLATFORM_ASSERT(!facts.isFiled);  // of one that is, nobody has asked whether software has it
  const Key& key = facts.key;
  trace_(7, "processing: ", key.prefix(), " vrfId: ", key.vrfId());
  withoutAdjacency_.keyDel(key);
  const auto& sfeRoute = facts.sfeRoute;
  const auto& hwRoute = facts.hwRoute;
  if (sfeRoute && adjacencyStands(sfeRoute->adjId())) {
    const bool cacheable = !hwRoute && isCacheable(key, *sfeRoute);
    if (!hwRoute && !isEligible(*sfeRoute, facts.sfeHitbit, cacheable)) {
      leaveOut(*sfeRoute, facts.sfeHitbit, cacheable);
      return;
    }
    if (!hwRoute || hwRoute->adjId() != sfeRoute->adjId()) writeHwRoute(*sfeRoute, !hwRoute);
    slices_->file(key, timeSliceNewAdditions);
  } else {
    if (hwRoute) {
      trace_(6, " deleting prefix: ", key.prefix());
      removeHwRoute(key);
    }
    policy_->forget(key);
    if (sfeRoute) withoutAdjacency_.keyIs(key, sfeRoute->adjId());
  }
  routeToProcess_.keyDel(key);
  sfeRouteHitToProcess_.keyDel(key);
}

// What is known already is not looked up.
void HwRouteSm::lookUpFacts(std::span<RouteFacts> facts) const {
  const auto keyIf = [](bool isWanted, const RouteFacts& each) {
    return isWanted && !each.isFiled ? std::optional(each.key) : std::nullopt;
  };
  lookUp(
      facts, *in_.ipv4SfeRouteStatus, [&](const RouteFacts& each) { return keyIf(!each.sfeRoute, each); },
      [](RouteFacts& each, const auto& route) { each.sfeRoute = route; });
  lookUp(
      facts, *in_.ipv4HwRouteStatus, [&](const RouteFacts& each) { return keyIf(!each.hwRoute, each); },
      [](RouteFacts& each, const auto& route) { each.hwRoute = route; });
  lookUp(
      facts, *in_.ipv4SfeHitBitStatus,
      [&](const RouteFacts& each) { return keyIf(each.sfeRoute && !each.hwRoute, each); },
      [](RouteFacts& each, const auto& hit) { each.sfeHitbit = hit ? hit->hitbit() : 0; });
}

// What decideWalked() leaves alone is not looked up.
void HwRouteSm::lookUpWalked(std::span<RouteFacts> facts) const {
  for (const RouteFacts& each : facts) slices_->expect(each.key);
  for (RouteFacts& each : facts) each.isFiled = slices_->sliceOf(each.key) != timeSliceInvalid;
  lookUpFacts(facts);
}

void HwRouteSm::readAheadOfFresh() {
  const auto look = [this](auto facts) {
    for (const RouteFacts& each : facts) slices_->expect(each.key);
    lookUpFacts(facts);
  };
  readAhead_.readNext([this](auto keys) { return routeToProcess_.freshKeys(keys); }, look);
}

void HwRouteSm::writeHwRoute(const Ipv4Route& sfeRoute, bool isNew) {
  trace_(6, " adding prefix: ", sfeRoute.key().prefix());
  if (isNew) {
    --state_.spaceLeft;
    ++admissions_;
    publishSpace();
    policy_->forget(sfeRoute.key());
  }
  released_.noteDel(sfeRoute.key());
  const bool inHw = sfeRoute.inHw() || !policy_->isScarce();
  in_.ipv4HwRouteStatus->routeIs({sfeRoute.key(), sfeRoute.adjId(), inHw});
}

void HwRouteSm::removeHwRoute(const Key& key) {
  in_.ipv4HwRouteStatus->routeDel(key);
  slices_->remove(key);
  released_.noteDel(key);
  ipv4PrefixHwSpaceLeftInc(1);
}

void HwRouteSm::removeAgedRoute(const Ipv4Route& hwRoute) {
  removeHwRoute(hwRoute.key());
  if (!admitAgedUnhit_) policy_->handleAged(hwRoute);
}

// --- The queues' tasks -----------------------------------------------------------------------------------------------

// Prefixes that keep going prolong a walk as long as they do: the scan, of lower priority, gets its turns meanwhile.
void HwRouteSm::handleRouteProcessing() {
  const auto delay = runQueue(routeProcessingTask_, routeToProcess_, routeProcessingInterval_,
                              routeProcessingIntervalDefer_, [this] { return processNextRoute(); });
  readAhead_.clear();
  walkAhead_.clear();
  hwWalk_.rest();
  sfeWalk_.rest();
  if (delay) scheduleRouteProcessingTask(*delay);
  reconcile();
}

// Fresh routes and those whose adjacency has come, then one entry of a walk, then those that wait for room while there
// is some.
bool HwRouteSm::processNextRoute() {
  const auto look = [this](auto facts) { lookUpWalked(facts); };
  if (const auto fresh = routeToProcess_.freshKey()) {
    if (readAhead_.empty()) readAheadOfFresh();
    processRoute(*fresh);
  } else if (const auto ready = withoutAdjacency_.readyKey()) {
    withoutAdjacency_.keyDel(*ready);
    decideSfeWalked(walkAhead_.of(*ready, look));
  } else if (hwWalk_.pending()) {
    const auto note = [](RouteFacts& facts, const Ipv4Route& route) { facts.hwRoute = route; };
    if (const RouteFacts* const facts = walkAhead_.step(hwWalk_, note, look)) decideWalked(*facts);
  } else if (sfeWalk_.pending()) {
    const auto note = [](RouteFacts& facts, const Ipv4Route& route) { facts.sfeRoute = route; };
    if (const RouteFacts* const facts = walkAhead_.step(sfeWalk_, note, look)) decideSfeWalked(*facts);
  } else if (state_.spaceLeft > 0 && routeToProcess_.hasWaiting()) {
    processRoute(*routeToProcess_.waitingKey());
  } else {
    return false;
  }
  return true;
}

// A route that is in hardware stays, whatever is cacheable now; refiling it would put off its ageing at every walk.
void HwRouteSm::decideWalked(const RouteFacts& facts) {
  if (!facts.isFiled) decideRoute(facts);
}

// Nor does a walk let in those that are hit in software in the order of their keys.
void HwRouteSm::decideSfeWalked(const RouteFacts& facts) {
  if (facts.sfeHitbit == 0) {
    decideWalked(facts);
  } else {
    sfeRouteHitToProcess_.keyIs(facts.key, facts.sfeHitbit);
    scheduleSfeRouteHitProcessingTask(routeProcessingInterval_);
  }
}

void HwRouteSm::handleSfeRouteHitProcessing() {
  std::uint64_t handled = 0;
  const bool more = workOff(sfeRouteHitProcessingTask_, handled, [this] { return processNextHit(); });
  sfeRouteHitProcessingTask_.report(handled, sfeRouteHitToProcess_.size());
  reconcile();
  if (more) {
    scheduleSfeRouteHitProcessingTask(routeProcessingInterval_);
    return;
  }
  if (!sfeRouteHitToProcess_.empty()) scheduleSfeRouteHitProcessingTask(routeProcessingIntervalDefer_);
  if (state_.spaceLeft > 0 && routeToProcess_.hasWaiting()) scheduleRouteProcessingTask(0);
}

// A walk's routes are queued before anybody is admitted: it is their hit-bit values that decide who comes first.
bool HwRouteSm::processNextHit() {
  if (hitWalk_.pending()) {
    const auto key = hitWalk_.step();
    const auto hit = key ? in_.ipv4SfeHitBitStatus->routeHitBit(*key) : std::nullopt;
    if (hit) sfeRouteHitToProcess_.keyIs(*key, hit->hitbit());
    return true;
  }
  const auto key = state_.spaceLeft > 0 ? sfeRouteHitToProcess_.nextKey() : sfeRouteHitToProcess_.freshKey();
  if (key) processRoute(*key);
  return key.has_value();
}

void HwRouteSm::handleSfeProgrammedRouteProcessing() {
  std::uint64_t handled = 0;
  const bool more = workOff(sfeProgrammedRouteProcessingTask_, handled, [this] { return processNextProgrammed(); });
  sfeProgrammedRouteProcessingTask_.report(handled, sfeProgrammedRouteToProcess_.size());
  if (more) scheduleSfeProgrammedRouteProcessingTask(routeProcessingInterval_);
}

bool HwRouteSm::processNextProgrammed() {
  if (const auto fresh = sfeProgrammedRouteToProcess_.freshKey()) {
    processProgrammedRoute(*fresh);
  } else if (programmedWalk_ && programmedWalk_->pending()) {
    if (const auto key = programmedWalk_->step()) processProgrammedRoute(*key);
  } else if (!in_.routeCacheConfig->ageingKeepsRoute() && !released_.empty()) {
    finishReleased(*released_.oldestKey());
  } else {
    return false;
  }
  return true;
}

// The flag was cleared: an idle route goes, whatever the SFE has programmed; one that is not idle any more stays, and
// is aged as any other. A decision about it that is pending is made all the same.
void HwRouteSm::finishReleased(const Key& key) {
  released_.noteDel(key);
  const auto hwRoute = in_.ipv4HwRouteStatus->route(key);
  if (!hwRoute || !isRouteCacheable(key) || sfeHitbit(key) != 0) return;
  trace_(6, " deleting prefix: ", key.prefix());
  removeAgedRoute(*hwRoute);
}

// The SFE forwards the route now: hardware may let go of it, unless it was put there only now and waits to be hit.
void HwRouteSm::processProgrammedRoute(const Key& key) {
  sfeProgrammedRouteToProcess_.keyDel(key);
  if (!in_.routeCacheConfig->ageingKeepsRoute()) return;
  const auto hwRoute = in_.ipv4HwRouteStatus->route(key);
  if (!hwRoute || hwRoute->inHw() || !in_.ipv4SfeProgrammedRouteStatus->has(key)) return;
  const std::uint16_t slice = slices_->sliceOf(key);  // none: the walk at start has not come to it yet
  if ((slice == timeSliceNewAdditions || slice == timeSliceInvalid) && !released_.has(key)) return;
  trace_(6, " deleting prefix: ", key.prefix());
  removeAgedRoute(*hwRoute);
  // It may have been hit meanwhile, or have stopped to be a route that is aged: no change to come would tell.
  if (sfeHitbit(key) != 0 || !isRouteCacheable(key)) handleSwRoute(key);
}

}  // namespace RouteCache
