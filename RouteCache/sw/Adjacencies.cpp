// SwRouteSm's next hops and adjacencies: from vias to references, from references to adjacency table entries.
#include "RouteCache/sw/Families.h"
#include "platform/values/Assert.h"

namespace RouteCache {

using Routing::Rib::RouteCache::Evpn::ViaNexthop;

// --- From vias to references -----------------------------------------------------------------------------------------

std::shared_ptr<SwRouteVtiStatus> SwRouteSm::swRouteVtiStatusColl(IntfId intfId) const {
  const auto found = swRouteVtiStatusColl_.find(intfId);
  return found == swRouteVtiStatusColl_.end() ? nullptr : found->second;
}

std::shared_ptr<IpMixedNexthopRef> SwRouteSm::createNexthopRefFromViaConfig(const Via& via) const {
  if (via.nexthops().size() > Via::maxNexthops) throw RangeError("a via spreads over at most 32 next hops");
  std::shared_ptr<Ipv4NexthopRef> v4nh;
  std::shared_ptr<Ipv6NexthopRef> v6nh;
  bool partial = false;
  bool ready = false;
  for (const ViaNexthop& nexthop : via.nexthops()) {
    const auto found = swRouteVtiStatusColl_.find(nexthop.vti);
    const SwRouteVtiStatus* vti = found == swRouteVtiStatusColl_.end() ? nullptr : found->second.get();
    if (vti == nullptr || nexthop.remoteVtep.isEmpty() ||
        (nexthop.vni.isPresent() && !vti->vniToExtendedVlanMapHas(nexthop.vni))) {
      partial = true;
      continue;
    }
    ready = true;
    const Bridging::ExtendedVlanId vlan =
        nexthop.vni.isPresent() ? vti->vniToExtendedVlanMap(nexthop.vni) : nexthop.extendedVlanId;
    // A VTEP is reached only from an interface that has a source address of its family.
    if (nexthop.remoteVtep.isV4() && vti->v4OperStatusUp()) {
      if (!v4nh) v4nh = ipv4NexthopRefFactory(true, false);
      v4nh->viaIs(Ipv4Nexthop(nexthop.vti, vlan, nexthop.routerMac, nexthop.remoteVtep.v4()));
    } else if (nexthop.remoteVtep.isV6() && vti->v6OperStatusUp()) {
      if (!v6nh) v6nh = ipv6NexthopRefFactory(false, true);
      v6nh->viaIs(Ipv6Nexthop(nexthop.vti, vlan, nexthop.routerMac, nexthop.remoteVtep.v6()));
    }
  }
  if (!ready) return nullptr;
  auto ref = ipMixedNexthopRefFactory(v4nh != nullptr, v6nh != nullptr);
  ref->partialIs(partial);
  ref->v4nhIs(std::move(v4nh));
  ref->v6nhIs(std::move(v6nh));
  return ref;
}

namespace {

template <class Ref, class Via>
void addNexthops(Ref& ref, const Via& via) {
  for (const auto& adjacency : via.viaKey()) {
    ref.viaIs(typename Ref::Nexthop(adjacency.vti(), adjacency.extendedVlanId(), adjacency.routerMac(),
                                    adjacency.remoteVtepIp()));
  }
}

// Calls use(address) for each VTEP of the reference, once however many of its next hops name it.
template <class Ref, class Use>
void forEachVtep(const Ref& ref, Use&& use) {
  const auto& nexthops = ref.via();
  for (std::size_t i = 0; i < nexthops.size(); ++i) {
    const auto& addr = nexthops[i].remoteVtepIp();
    bool first = true;
    for (std::size_t j = 0; j < i && first; ++j) first = !(nexthops[j].remoteVtepIp() == addr);
    if (first) use(addr);
  }
}

}  // namespace

std::shared_ptr<Ipv4NexthopRef> SwRouteSm::createIpv4NexthopRefFromIpv4Via(const Ipv4Via& via) {
  auto ref = ipv4NexthopRefFactory(true, false);
  addNexthops(*ref, via);
  return ref;
}

std::shared_ptr<Ipv6NexthopRef> SwRouteSm::createIpv6NexthopRefFromIpv6Via(const Ipv6Via& via) {
  auto ref = ipv6NexthopRefFactory(false, true);
  addNexthops(*ref, via);
  return ref;
}

// --- Underlay monitoring ---------------------------------------------------------------------------------------------

void SwRouteSm::addUnderlayVtepIpv4Monitoring(IpAddr ip) {
  trace_(7, "ip: ", ip, " vtepResolutionNeeded: ", vtepResolutionNeeded_);
  vteps4_.add(ip, *nexthopVrfConfig_);
}

void SwRouteSm::removeUnderlayVtepIpv4Monitoring(IpAddr ip) {
  trace_(7, "ip: ", ip, " vtepResolutionNeeded: ", vtepResolutionNeeded_);
  vteps4_.remove(ip, *nexthopVrfConfig_);
}

void SwRouteSm::addUnderlayVtepIpv6Monitoring(const Ip6Addr& ip) {
  trace_(7, "ip: ", ip, " vtepResolutionNeeded: ", vtepResolutionNeeded_);
  vteps6_.add(ip, *nexthopVrfConfig_);
}

void SwRouteSm::removeUnderlayVtepIpv6Monitoring(const Ip6Addr& ip) {
  trace_(7, "ip: ", ip, " vtepResolutionNeeded: ", vtepResolutionNeeded_);
  vteps6_.remove(ip, *nexthopVrfConfig_);
}

void SwRouteSm::addMonitoring(const Ipv4NexthopRef* v4nh, const Ipv6NexthopRef* v6nh) {
  if (v6nh != nullptr) forEachVtep(*v6nh, [this](const Ip6Addr& ip) { addUnderlayVtepIpv6Monitoring(ip); });
  if (v4nh != nullptr) forEachVtep(*v4nh, [this](IpAddr ip) { addUnderlayVtepIpv4Monitoring(ip); });
}

void SwRouteSm::removeMonitoring(const Ipv4NexthopRef* v4nh, const Ipv6NexthopRef* v6nh) {
  if (v6nh != nullptr) forEachVtep(*v6nh, [this](const Ip6Addr& ip) { removeUnderlayVtepIpv6Monitoring(ip); });
  if (v4nh != nullptr) forEachVtep(*v4nh, [this](IpAddr ip) { removeUnderlayVtepIpv4Monitoring(ip); });
}

// The resolver's answer for a VTEP: nothing when there is none yet, the empty FEC when it is unreachable.
std::optional<Fib::FecId> SwRouteSm::answerOf(const IpGenAddr& vtep) const {
  return nexthopVrfStatus_ ? nexthopVrfStatus_->nexthop(vtep) : std::nullopt;
}

// --- Adjacency table entries -----------------------------------------------------------------------------------------

template <class F>
bool SwRouteSm::createVia(AdjId adjId, const typename F::NexthopRef& ref) {
  auto& table = *F::adjacencies(*this);
  const auto present = table.adj(adjId);
  typename F::Via via(adjId);
  std::uint16_t slot = 0;
  for (const typename F::Nexthop& nexthop : ref.sortedVias()) {
    auto& vtep = F::vteps(*this).adjIdIs(nexthop.remoteVtepIp(), adjId);
    // No answer is no news: what was resolved goes on forwarding, whichever adjacency it was resolved for.
    if (const auto answer = answerOf(nexthop.remoteVtepIp())) vtep.lastFec = *answer;
    via.viaKeyIs(ViaIndex(slot++),
                 {vtep.lastFec, nexthop.extendedVlanId(), nexthop.routerMac(), nexthop.vti(), nexthop.remoteVtepIp()});
  }
  if (present && *present == via) return true;
  if (!present && !table.hasRoom()) {
    F::adjRoom(*this).refused(trace_, "adjacency table full, not written: ", adjId);
    return false;
  }
  trace_(6, "writing adjId: ", adjId);
  table.adjIs(via);
  F::adjRoom(*this).written(table.hasRoom());
  return true;
}

bool SwRouteSm::createIpv4ViaFromNexthopRef(AdjId adjId, const std::shared_ptr<Ipv4NexthopRef>& v4nh) {
  return createVia<V4>(adjId, *v4nh);
}

bool SwRouteSm::createIpv6ViaFromNexthopRef(AdjId adjId, const std::shared_ptr<Ipv6NexthopRef>& v6nh) {
  return createVia<V6>(adjId, *v6nh);
}

bool SwRouteSm::createViaFromNexthopRef(AdjId adjId, const std::shared_ptr<IpMixedNexthopRef>& ref) {
  if (!isAdjacency(adjId)) return false;
  if (adjIds_.current(adjId)) return true;
  bool written = true;
  if (ref->v6nh() && adjId.isAdjacencyV6()) written = createIpv6ViaFromNexthopRef(adjId, ref->v6nh());
  if (ref->v4nh() && adjId.isAdjacencyV4()) written = createIpv4ViaFromNexthopRef(adjId, ref->v4nh()) && written;
  // From here on only a new answer of the resolver can change it, and that comes as a notification.
  adjIds_.currentIs(adjId, written && !resolutionNeeded(*ref));
  return written;
}

void SwRouteSm::deleteAdjFromAdjStatus(AdjId adjId) {
  // The reference outlives the map entries that go with the last release.
  const auto ref = adjIds_.nexthop(adjId);
  const bool held = adjIds_.adjIdRefCount(adjId) > 0;
  if (held && ref) removeMonitoring(ref->v4nh().get(), ref->v6nh().get());
  if (adjIds_.deallocateAdjId(adjId) > 0 || adjIds_.adjIdRefCountHas(adjId)) return;
  if (ref && ref->v6nh()) {
    forEachVtep(*ref->v6nh(), [&](const Ip6Addr& ip) { vteps6_.adjIdDel(ip, adjId); });
  }
  if (ref && ref->v4nh()) {
    forEachVtep(*ref->v4nh(), [&](IpAddr ip) { vteps4_.adjIdDel(ip, adjId); });
  }
  adjIds_.nexthopDel(adjId);
  adjToProcessDel(adjId);
  if (adjId.isAdjacencyV6()) in_.ipv6AdjStatus->adjDel(adjId);
  if (adjId.isAdjacencyV4()) in_.ipv4AdjStatus->adjDel(adjId);
}

void SwRouteSm::handleAdjProcessing() {
  trace_(9, __PRETTY_FUNCTION__);
  if (!enableRouteProcessing_) return;
  std::uint64_t handled = 0;
  while (!adjToProcess_.empty()) {
    const AdjId adjId = *adjToProcess_.begin();
    if (const auto ref = adjIds_.nexthop(adjId)) createViaFromNexthopRef(adjId, ref);
    adjToProcessDel(adjId);
    ++handled;
    if (adjProcessingTask_.shouldYield()) break;
  }
  adjProcessingTask_.report(handled, adjToProcess_.size());
  if (!adjToProcess_.empty()) scheduleAdjProcessingTask(adjProcessingInterval_);
}

}  // namespace RouteCache
