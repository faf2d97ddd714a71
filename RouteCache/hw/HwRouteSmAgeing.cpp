// HwRouteSm: the scan of the time slices and the ageing that follows it.
#include <algorithm>

#include "RouteCache/hw/HwRouteSm.h"
#include "platform/values/Assert.h"

namespace RouteCache {

// --- Slices ----------------------------------------------------------------------------------------------------------

std::uint16_t HwRouteSm::getHitbitTimeSlice(std::uint8_t hitbit) const {
  trace_(9, "hitbit: ", hitbit);
  return hitbit;
}

std::shared_ptr<HitBitTimeSliceColl> HwRouteSm::hwHitbitColl(std::uint16_t slice) const {
  const auto found = hwHitbitColl_.find(slice);
  return found == hwHitbitColl_.end() ? nullptr : found->second;
}

void HwRouteSm::hwHitbitCollIs(std::uint16_t slice, std::shared_ptr<HitBitTimeSliceColl> coll) {
  PLATFORM_ASSERT(coll && coll->slice() == slice);
  hwHitbitColl_[slice] = std::move(coll);
}

void HwRouteSm::hwHitbitCollDel(std::uint16_t slice) {
  hwHitbitColl_.erase(slice);
}

void HwRouteSm::hwHitbitCollDelAll() {
  hwHitbitColl_.clear();
}

HwRouteSm::Key HwRouteSm::hwHitbitScanRouteBookmark() const {
  if (scanPhase_ != ScanPhase::slices || !slices_->visiting()) return {};
  return slices_->due().value_or(Key());
}

// --- The scan --------------------------------------------------------------------------------------------------------

// A run goes through its phases as far as the time slice lets it.
void HwRouteSm::handleHwhitbitScan() {
  if (!initialized_) return;
  scanned_ = 0;
  bool done = true;
  if (scanPhase_ == ScanPhase::slices && (done = scanSlices())) {
    hwHitbitScanTimeSliceBookmark_ = timeSlice0;
    scanPhase_ = ScanPhase::ageing;
    slices_->setAside(timeSliceNewAdditions);  // what is admitted from now on has not been through a scan
    checkHwRouteAgeing();
  } else if (scanPhase_ == ScanPhase::ageing) {
    continueAgeing();
  }
  if (scanPhase_ == ScanPhase::ageing && (done = !ageing_)) {
    scanPhase_ = ScanPhase::newAdditions;
    if (policy_->isScarce()) {
      slices_->visitAside();
    } else {
      slices_->forgetAside();
    }
  }
  if (scanPhase_ == ScanPhase::newAdditions && (done = moveNewAdditions())) scanPhase_ = ScanPhase::slices;
  hwHitbitScanTask_.report(scanned_, slices_->size());
  scheduleHwHitbitScanTask(done ? hwHitbitScanInterval_ : 0);
}

bool HwRouteSm::scanSlices() {
  for (std::uint16_t& slice = hwHitbitScanTimeSliceBookmark_; slice < timeSliceInvalid; ++slice) {
    if (!slices_->visiting()) slices_->beginVisit(slice);
    bool yield = false;
    for (auto key = slices_->due(); key && !yield; key = slices_->due()) {
      if (scanAhead_.empty()) readAheadOfDue(slice);
      scanRoute(*key, slice);
      ++scanned_;
      yield = hwHitbitScanTask_.shouldYield();
    }
    scanAhead_.clear();
    if (slices_->due()) return false;
    slices_->endVisit();
    if (yield && slice < timeSliceNewAdditionsToDel) {
      ++slice;
      return false;
    }
  }
  return true;
}

std::uint16_t HwRouteSm::reportedSlice(const std::optional<Ipv4RouteHitBit>& hit, std::uint16_t slice) const {
  if (!hit) return std::max(slice, timeSliceNewAdditions);
  return getHitbitTimeSlice(static_cast<std::uint8_t>(std::min<std::uint32_t>(hit->hitbit(), timeSliceMax)));
}

// A route that hardware reports under its slice's value is done with one look-up: routes leave their slices when they
// leave the table.
void HwRouteSm::lookUpScanned(std::span<ScanFacts> facts, std::uint16_t slice) const {
  lookUp(
      facts, *in_.ipv4HwHitBitStatus, [](const ScanFacts& each) { return std::optional(each.key); },
      [](ScanFacts& each, const auto& hit) { each.hit = hit; });
  lookUp(
      facts, *in_.ipv4HwRouteStatus,
      [&](const ScanFacts& each) {
        if (reportedSlice(each.hit, slice) == slice) return std::optional<Key>();
        slices_->expect(each.key);
        return std::optional(each.key);
      },
      [](ScanFacts& each, const auto& route) { each.hwRoute = route; });
}

void HwRouteSm::readAheadOfDue(std::uint16_t slice) {
  scanAhead_.readNext([this](auto keys) { return slices_->dueKeys(keys); },
                      [&](auto facts) { lookUpScanned(facts, slice); });
}

void HwRouteSm::scanRoute(const Key& key, std::uint16_t slice) {
  const ScanFacts& facts = scanAhead_.of(key, [&](auto one) { lookUpScanned(one, slice); });
  const auto& hit = facts.hit;
  const std::uint16_t reported = reportedSlice(hit, slice);
  if (reported == slice) {
    slices_->passDue();
    return;
  }
  const auto& route = facts.hwRoute;
  if (!route) {
    slices_->remove(key);
    return;
  }
  slices_->file(key, reported);
  if (!hit) return;
  trace_(8, "oldTs: ", slice, " newTs: ", reported, " ", key.prefix(), " vrfId: ", key.vrfId());
  if (!route->inHw()) confirmInHw(*route, reported);
}

// Hardware has reported a hit. Of a route that ageing took inHw from, it tells of one that was before, unless the value
// has risen since.
void HwRouteSm::confirmInHw(const Ipv4Route& route, std::uint16_t hitbit) {
  if (std::uint16_t* const released = released_.find(route.key())) {
    if (hitbit <= *released) {
      *released = hitbit;
      return;
    }
    released_.noteDel(route.key());
  }
  in_.ipv4HwRouteStatus->routeIs({route.key(), route.adjId(), true});
}

// What shows no hit in hardware by the end of the next scan goes with the ageing run that follows it.
bool HwRouteSm::moveNewAdditions() {
  if (!slices_->visiting()) return true;
  while (const auto key = slices_->due()) {
    if (isRouteCacheable(*key)) {
      slices_->file(*key, timeSliceNewAdditionsToDel);
    } else {
      slices_->passDue();
    }
    ++scanned_;
    if (hwHitbitScanTask_.shouldYield() && slices_->due()) return false;
  }
  slices_->endVisit();
  return true;
}

// --- Ageing ----------------------------------------------------------------------------------------------------------

void HwRouteSm::checkHwRouteAgeing() {
  PLATFORM_ASSERT(!ageing_ && !slices_->visiting());
  trace_(5, "perc: ", getHwPercentageSpaceUsed());
  auto plan = policy_->ageingPlan(static_cast<std::uint32_t>(in_.ipv4SfeHitBitStatus->size()));
  if (!plan) return;
  // Those of earlier runs that wait for the SFE are on their way already; ageRoute() does not count them again.
  plan->toRemove -= std::min(plan->toRemove, static_cast<std::uint32_t>(released_.size()));
  trace_(5, "pending routesToDelete: ", plan->toRemove);
  ageing_ = Ageing{.rest = *plan};
  continueAgeing();
}

// Slices 0 to the top one until enough is removed, then the new additions that nobody hit.
bool HwRouteSm::continueAgeing() {
  Ageing& run = *ageing_;
  std::uint32_t removed = 0;
  while (run.slice <= run.rest.top && run.rest.toRemove > 0) {
    const bool done = ageSlice(removed);
    run.rest.toRemove -= removed;
    if (!done) return false;
    ++run.slice;
  }
  run.slice = timeSliceNewAdditionsToDel;
  const bool done = ageSlice(removed);
  run.removedNew += removed;
  if (!done) return false;
  trace_(5, "routesDeleted from new: ", run.removedNew);
  ageing_.reset();
  return true;
}

bool HwRouteSm::ageSlice(std::uint32_t& removed) {
  const auto coll = hwHitbitColl(ageing_->slice);
  PLATFORM_ASSERT_TEXT(coll, "a threshold's time slice is 0 to 255");
  if (!slices_->visiting()) {
    ageing_->ofSlice =
        ageing_->slice == timeSliceNewAdditionsToDel ? coll->size() : std::min(coll->size(), ageing_->rest.toRemove);
  }
  removed = ageHwRoutes(ageing_->slice, ageing_->ofSlice);
  ageing_->ofSlice -= removed;
  return !slices_->visiting();
}

std::uint32_t HwRouteSm::ageHwRoutes(std::uint16_t slice, std::uint32_t count) {
  trace_(count == 0 ? 9 : 6, "ts: ", slice, " count: ", count);
  if (count == 0) return 0;
  if (!slices_->visiting()) slices_->beginVisit(slice);
  std::uint32_t removed = 0;
  bool yield = false;
  while (removed < count && !yield) {
    const auto key = slices_->due();
    if (!key) break;
    if (agedAhead_.empty()) readAheadOfAged(count - removed);
    slices_->passDue();
    if (ageRoute(*key, slice)) ++removed;
    ++scanned_;
    yield = hwHitbitScanTask_.shouldYield();
  }
  agedAhead_.clear();
  if (removed == count || !slices_->due()) slices_->endVisit();
  aged_ += removed;
  return removed;
}

void HwRouteSm::lookUpAged(std::span<AgedFacts> facts) const {
  const auto keyOf = [](const AgedFacts& each) { return std::optional(each.key); };
  lookUp(facts, *in_.ipv4HwRouteStatus, keyOf, [](AgedFacts& each, const auto& route) { each.hwRoute = route; });
  lookUp(facts, *in_.ipv4SfeRouteStatus, keyOf, [](AgedFacts& each, const auto& route) { each.sfeRoute = route; });
  lookUp(facts, *in_.ipv4SfeHitBitStatus, keyOf,
         [](AgedFacts& each, const auto& hit) { each.sfeHitbit = hit ? hit->hitbit() : 0; });
}

void HwRouteSm::readAheadOfAged(std::uint32_t most) {
  const auto next = [&](auto keys) { return slices_->dueKeys(keys.first(std::min<std::size_t>(keys.size(), most))); };
  agedAhead_.readNext(next, [this](auto facts) { lookUpAged(facts); });
}

bool HwRouteSm::ageRoute(const Key& key, std::uint16_t slice) {
  const AgedFacts& facts = agedAhead_.of(key, [this](auto one) { lookUpAged(one); });
  const auto& route = facts.hwRoute;
  if (!route || routeToProcess_.has(key)) return false;
  if (facts.sfeHitbit != 0 || !isCacheable(key, facts.sfeRoute.value_or(Ipv4Route()))) return false;
  trace_(6, " ageing prefix: ", key.prefix(), " vrfId: ", key.vrfId());
  if (!in_.routeCacheConfig->ageingKeepsRoute()) {
    removeAgedRoute(*route);
  } else if (route->inHw()) {
    released_.noteIs(key, slice <= timeSliceMax ? slice : std::uint16_t{0});
    in_.ipv4HwRouteStatus->routeIs({key, route->adjId(), false});
  } else {
    handleSwProgrammedRoute(key);
    return !released_.has(key);
  }
  return true;
}

// --- Invariants ------------------------------------------------------------------------------------------------------

void HwRouteSm::checkInvariants() const {
  if (!initialized_) return;
  checkSpace();
  checkSlices();
  checkAdjacencies();
  sfeRouteHitToProcess_.checkInvariants();
  released_.forEach([this](const Key& key, std::uint16_t) {
    const auto route = in_.ipv4HwRouteStatus->route(key);
    PLATFORM_ASSERT_TEXT(route && !route->inHw(), "what is released is in the hardware table without inHw");
  });
  policy_->checkInvariants(*in_.ipv4HwRouteStatus);
}

void HwRouteSm::checkSpace() const {
  PLATFORM_ASSERT_TEXT(
      std::uint64_t{state_.spaceLeft} + in_.ipv4HwRouteStatus->size() == std::uint64_t{state_.capacity} + spaceDebt_,
      "space left + entries = capacity + debt");
  PLATFORM_ASSERT_TEXT(spaceDebt_ == 0 || state_.spaceLeft == 0, "a debt only at no space left");
  PLATFORM_ASSERT_TEXT(in_.routeCacheConfig->ipv4PrefixHwSpaceLeft() == state_.spaceLeft + hwSpaceBuffer_,
                       "the published figure is the space left plus hwSpaceBuffer");
}

void HwRouteSm::checkSlices() const {
  slices_->checkInvariants();
  std::size_t filed = 0;
  for (const auto& [slice, coll] : hwHitbitColl_) {
    PLATFORM_ASSERT_TEXT(coll->route().size() == coll->size(), "a slice counts its routes");
    filed += coll->size();
  }
  PLATFORM_ASSERT_TEXT(filed == slices_->size(), "every key is in one slice");
  std::size_t inTable = 0;
  for (const Ipv4Route& route : *in_.ipv4HwRouteStatus) {
    const Key& key = route.key();
    const bool decided = slices_->sliceOf(key) != timeSliceInvalid;
    if (decided) ++inTable;
    PLATFORM_ASSERT_TEXT(decided || isDecisionToCome(key), "a hardware route is in a slice or still to be decided");
  }
  PLATFORM_ASSERT_TEXT(inTable == slices_->size(), "what is in a slice is in the hardware table");
}

bool HwRouteSm::isDecisionToCome(const Key& key) const {
  return routeToProcess_.has(key) || hwWalk_.willMeet(key) || sfeWalk_.willMeet(key);
}

void HwRouteSm::checkAdjacencies() const {
  for (const Ipv4Route& route : *in_.ipv4HwRouteStatus) {
    PLATFORM_ASSERT_TEXT(adjacencyStands(route.adjId()) || isDecisionToCome(route.key()),
                         "a hardware route's adjacency stands, or it is still to be decided");
  }
  for (const Ipv4Route& route : *in_.ipv4SfeRouteStatus) {
    const Key& key = route.key();
    if (isDecisionToCome(key) || sfeRouteHitToProcess_.has(key) || hitWalk_.willMeet(key)) continue;
    PLATFORM_ASSERT_TEXT(adjacencyStands(route.adjId()) || withoutAdjacency_.has(key),
                         "a route without its adjacency waits for it");
  }
}

}  // namespace RouteCache
