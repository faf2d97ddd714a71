#include "RouteCache/sw/Adjacencies.h"

#include "platform/values/Assert.h"

namespace RouteCache {

// --- References ------------------------------------------------------------------------------------------------------

AdjId Adjacencies::take(const std::shared_ptr<IpMixedNexthopRef>& ref, AdjId guess) {
  if (ids_.adjIdRefCountAdd(guess, *ref)) return guess;
  AdjId adjId = ids_.adjId(ref);
  if (isAdjacency(adjId)) {
    ids_.adjIdRefCountAdd(adjId);
    const auto known = ids_.nexthop(adjId);
    ref->v4nhIs(known->v4nh());
    ref->v6nhIs(known->v6nh());
    return adjId;
  }
  adjId = ids_.allocateAdjId(ref->v6nh() != nullptr, ref->v4nh() != nullptr);
  // With the free list empty the route is published without an adjacency, and tried again.
  if (isAdjacency(adjId)) ids_.nexthopIs(ref, adjId);
  return adjId;
}

void Adjacencies::deleteAdjFromAdjStatus(AdjId adjId) {
  if (const auto parts = ids_.adjIdRefCountSub(adjId)) return underlay_.removeMonitoring(parts->v4nh, parts->v6nh);
  // The reference outlives the map entries that go with the last release.
  const auto ref = ids_.nexthop(adjId);
  const bool held = ids_.adjIdRefCount(adjId) > 0;
  if (held && ref) underlay_.removeMonitoring(ref->v4nh().get(), ref->v6nh().get());
  if (ids_.deallocateAdjId(adjId) > 0 || ids_.adjIdRefCountHas(adjId)) return;
  ids_.nexthopDel(adjId);
  adjToProcessDel(adjId);
  if (adjId.isAdjacencyV6()) forget<Ipv6Family>(adjId, ref.get());
  if (adjId.isAdjacencyV4()) forget<Ipv4Family>(adjId, ref.get());
}

template <class Family>
void Adjacencies::forget(AdjId adjId, const IpMixedNexthopRef* ref) {
  if (ref != nullptr && ref->part<Family>()) {
    forEachVtep(*ref->part<Family>(), [&](const auto& vtep) { underlay_.vteps<Family>().adjIdDel(vtep, adjId); });
  }
  table<Family>().adjDel(adjId);
}

// --- Tables ----------------------------------------------------------------------------------------------------------

bool Adjacencies::stands(AdjId adjId) const {
  if (!isAdjacency(adjId)) return false;
  return ids_.current(adjId) || ((!adjId.isAdjacencyV4() || table<Ipv4Family>().has(adjId)) &&
                                 (!adjId.isAdjacencyV6() || table<Ipv6Family>().has(adjId)));
}

template <class Family>
bool Adjacencies::createVia(AdjId adjId, const BasicNexthopRef<Family>& ref) {
  const auto present = table<Family>().adj(adjId);
  BasicVia<Family> via(adjId);
  std::uint16_t slot = 0;
  for (const auto& nexthop : ref.sortedVias()) {
    auto& vtep = underlay_.vteps<Family>().adjIdIs(nexthop.remoteVtepIp(), adjId);
    // No answer is no news: what was resolved goes on forwarding, whichever adjacency it was resolved for.
    if (const auto answer = underlay_.answerOf(nexthop.remoteVtepIp())) vtep.lastFec = *answer;
    via.viaKeyIs(ViaIndex(slot++),
                 {vtep.lastFec, nexthop.extendedVlanId(), nexthop.routerMac(), nexthop.vti(), nexthop.remoteVtepIp()});
  }
  if (present && *present == via) return true;
  if (!present && !table<Family>().hasRoom()) {
    room_.of<Family>().refused(trace_, "adjacency table full, not written: ", adjId);
    return false;
  }
  trace_(6, "writing adjId: ", adjId);
  table<Family>().adjIs(via);
  room_.of<Family>().written(table<Family>().hasRoom());
  return true;
}
template bool Adjacencies::createVia(AdjId adjId, const Ipv4NexthopRef& ref);
template bool Adjacencies::createVia(AdjId adjId, const Ipv6NexthopRef& ref);

bool Adjacencies::createViaFromNexthopRef(AdjId adjId, const std::shared_ptr<IpMixedNexthopRef>& ref) {
  if (!isAdjacency(adjId)) return false;
  if (ids_.current(adjId)) return true;
  bool written = true;
  if (ref->v6nh() && adjId.isAdjacencyV6()) written = createVia(adjId, *ref->v6nh());
  if (ref->v4nh() && adjId.isAdjacencyV4()) written = createVia(adjId, *ref->v4nh()) && written;
  // From here on only a new answer of the resolver can change it, and that comes as a notification.
  ids_.currentIs(adjId, written && !underlay_.resolutionNeeded(*ref));
  return written;
}

// --- Rewriting -------------------------------------------------------------------------------------------------------

void Adjacencies::handleAnswer(const AdjIdColl& adjIds) {
  for (const AdjId adjId : adjIds.adjIdColl()) {
    ids_.currentIs(adjId, false);
    adjToProcessIs(adjId);
  }
}

bool Adjacencies::process(DeferredTask& task) {
  std::uint64_t handled = 0;
  const bool more = workOff(task, handled, [this] {
    if (adjToProcess_.empty()) return false;
    const AdjId adjId = *adjToProcess_.begin();
    if (const auto ref = ids_.nexthop(adjId)) createViaFromNexthopRef(adjId, ref);
    adjToProcessDel(adjId);
    return true;
  });
  task.report(handled, adjToProcess_.size());
  return !more || adjToProcess_.empty();
}

// --- Restart ---------------------------------------------------------------------------------------------------------

template <class Family>
std::shared_ptr<BasicNexthopRef<Family>> Adjacencies::adopted(AdjId adjId) const {
  const auto via = hasClass<Family>(adjId) ? table<Family>().adj(adjId) : std::nullopt;
  return via ? nexthopRefFrom(*via) : nullptr;
}

template <class Family>
void Adjacencies::adopt(const BasicVia<Family>& via) {
  const AdjId adjId = via.key();
  // Identifiers that no agent gives out: of the other table's class, with bits that stand for nothing, or of a number
  // that another one has.
  const bool foreign = !hasClass<Family>(adjId) || !isAdjacency(adjId) || !isWellFormed(adjId) ||
                       (ids_.numberInUse(adjId) && !ids_.adjIdRefCountHas(adjId));
  if (foreign) {
    trace_(1, "dropping an adjacency that is not of this agent's making: ", adjId);
    table<Family>().adjDel(adjId);
    return;
  }
  // A mixed adjacency is met in both tables; one that a kill left in one of them only has one part, which no route
  // asks for, and is cleaned up.
  auto v4nh = adopted<Ipv4Family>(adjId);
  auto v6nh = adopted<Ipv6Family>(adjId);
  auto ref = ipMixedNexthopRefFactory(v4nh != nullptr, v6nh != nullptr);
  ref->v4nhIs(std::move(v4nh));
  ref->v6nhIs(std::move(v6nh));
  ids_.adjIdRefCountIs(adjId, 0);
  ids_.nexthopIs(ref, adjId);
  // Where two disagree about a VTEP, a predecessor was killed between rewriting the one and the other: it went in the
  // order of this walk, so the first one has the newer FEC. An empty one may never have been resolved.
  for (const auto& adjacency : via.viaKey()) {
    auto& vtep = underlay_.vteps<Family>().adjIdIs(adjacency.remoteVtepIp(), adjId);
    if (vtep.lastFec.isEmpty()) vtep.lastFec = adjacency.underlayFecId();
  }
}
template void Adjacencies::adopt(const Ipv4Via& via);
template void Adjacencies::adopt(const Ipv6Via& via);

bool Adjacencies::cleanUp(DeferredTask& task) {
  const auto& unreferenced = ids_.unreferenced();
  std::uint64_t handled = 0;
  const auto next = visitUntilYield(task, unreferenced.lower_bound(adjCleanupBookmark_), unreferenced.end(), handled,
                                    [this](AdjId adjId) { deleteAdjFromAdjStatus(adjId); });
  adjCleanupBookmark_ = next == unreferenced.end() ? AdjId() : *next;
  task.report(handled, unreferenced.size());
  return next == unreferenced.end();
}

// --- Invariants ------------------------------------------------------------------------------------------------------

namespace {

std::set<IpGenAddr> vtepsOf(const IpMixedNexthopRef& ref) {
  std::set<IpGenAddr> vteps;
  const auto note = [&](const IpGenAddr& vtep) { vteps.insert(vtep); };
  if (ref.v4nh()) forEachVtep(*ref.v4nh(), note);
  if (ref.v6nh()) forEachVtep(*ref.v6nh(), note);
  return vteps;
}

}  // namespace

void Adjacencies::checkInvariants(const std::map<AdjId, std::uint32_t>& held, bool leftovers) const {
  ids_.checkInvariants();
  std::map<IpGenAddr, std::uint32_t> registrations;
  for (const auto& [adjId, count] : held) {
    PLATFORM_ASSERT_TEXT(ids_.adjIdRefCount(adjId) == count, "references are the routes that name the identifier");
    const auto ref = ids_.nexthop(adjId);
    PLATFORM_ASSERT_TEXT(ref != nullptr, "an identifier in use has a next hop");
    for (const auto& vtep : vtepsOf(*ref)) registrations[vtep] += count;
  }
  ids_.forEach([&](AdjId adjId, std::uint32_t count) {
    if (!isAdjacency(adjId)) return;
    PLATFORM_ASSERT_TEXT(count == 0 || held.contains(adjId), "an identifier that is held is named by a route");
    PLATFORM_ASSERT_TEXT(count > 0 || leftovers, "an identifier that nobody holds is freed");
  });
  underlay_.checkInvariants(registrations);
  checkVtepUses();
}

void Adjacencies::checkVtepUses() const {
  std::set<std::pair<IpGenAddr, AdjId>> uses;
  std::set<std::pair<IpGenAddr, AdjId>> named;
  const auto note = [&](const IpGenAddr& vtep, AdjId adjId) { uses.emplace(vtep, adjId); };
  underlay_.vteps<Ipv4Family>().forEachUse(note);
  underlay_.vteps<Ipv6Family>().forEachUse(note);
  ids_.forEach([&](AdjId adjId, std::uint32_t) {
    const auto ref = ids_.nexthop(adjId);
    if (!ref) return;
    for (const auto& vtep : vtepsOf(*ref)) named.emplace(vtep, adjId);
  });
  PLATFORM_ASSERT_TEXT(uses == named, "a VTEP is used by the identifiers whose next hops name it");
}

}  // namespace RouteCache
