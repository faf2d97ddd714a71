#include "RouteCache/sw/Underlay.h"

#include "RouteCache/sw/SwRouteSm.h"

namespace RouteCache {

NexthopVrfStatusReactor::NexthopVrfStatusReactor(SwRouteSm& sm, std::shared_ptr<const Routing::NexthopVrfStatus> status)
    : Reactor(std::move(status)), sm_(sm) {}

void NexthopVrfStatusReactor::handleInitialized() {
  sm_.trace_(9, __PRETTY_FUNCTION__);
  sm_.in_.nexthopConfig->vrfIs(L3::VrfName(watched().name()));
  initialized_ = true;
  // Answers that are there already are not told one by one.
  if (!L3::VrfName(watched().name()).isDefault() || watched().nexthop().empty()) return;
  sm_.adjIds_.currentDelAll();
  sm_.scheduleAllRoutesForProcessing(true, false);
}

void NexthopVrfStatusReactor::handleNexthop(const IpGenAddr& addr) {
  sm_.trace_(9, __PRETTY_FUNCTION__);
  if (!initialized_) return;
  sm_.trace_(7, " nexthop: ", addr);
  const auto adjIds = addr.isV4() ? sm_.remoteVtepIpv4ToAdjId(addr.v4()) : sm_.remoteVtepIpv6ToAdjId(addr.v6());
  if (!adjIds) return;
  // Kept now: the answer may be gone again before the adjacencies' turn comes.
  if (const auto answer = sm_.answerOf(addr)) {
    addr.isV4() ? sm_.vteps4_.lastFecIs(addr.v4(), *answer) : sm_.vteps6_.lastFecIs(addr.v6(), *answer);
  }
  for (const AdjId adjId : adjIds->adjIdColl()) {
    sm_.adjIds_.currentIs(adjId, false);
    sm_.adjToProcessIs(adjId);
  }
  if (!sm_.adjToProcess_.empty()) sm_.scheduleAdjProcessingTask(sm_.adjProcessingInterval());
}

void NexthopVrfStatusReactor::cleanup() {
  sm_.trace_(9, __PRETTY_FUNCTION__);
  sm_.scheduleAllRoutesForProcessing(true, false);
}

VtiStatusReactor::VtiStatusReactor(SwRouteSm& sm, std::shared_ptr<const Vxlan::VtiStatus> vti)
    : Reactor(std::move(vti)), sm_(sm) {}

void VtiStatusReactor::handleInitialized() {
  sm_.trace_(9, __PRETTY_FUNCTION__);
  updateOperStatus();
  handleExtendedVlanToVniMap();
}

SwRouteVtiStatus& VtiStatusReactor::digest() {
  auto& digest = sm_.swRouteVtiStatusColl_[watched().intfId()];
  if (!digest) digest = std::make_shared<SwRouteVtiStatus>(watched().intfId());
  return *digest;
}

void VtiStatusReactor::updateOperStatus() {
  SwRouteVtiStatus& status = digest();
  const bool up = watched().operStatus() == Vxlan::OperStatus::up;
  status.v4OperStatusUpIs(up && !watched().ipv4Addr().isZero());
  status.v6OperStatusUpIs(up && !watched().ipv6Addr().isZero());
  status.operStatusUpIs(up);
  if (up) {
    sm_.trace_(5, " vti ", watched().name(), " oper status is up ", " schedule sync ");
  } else {
    sm_.trace_(5, " vti ", watched().name(), " oper status is down ");
  }
}

void VtiStatusReactor::handleOperStatus() {
  sm_.trace_(9, __PRETTY_FUNCTION__);
  updateOperStatus();
  sm_.scheduleAllRoutesForProcessing(true, false);
}

void VtiStatusReactor::handleIpv4Addr() {
  sm_.trace_(9, __PRETTY_FUNCTION__);
  handleOperStatus();
}

void VtiStatusReactor::handleIpv6Addr() {
  sm_.trace_(9, __PRETTY_FUNCTION__);
  handleOperStatus();
}

void VtiStatusReactor::updateVlan(Bridging::ExtendedVlanId vlan) {
  SwRouteVtiStatus& status = digest();
  // Two VLANs may carry one VNI, but its inverse names one of them: when that one lets go, another takes its place.
  if (status.extendedVlanToVniMapHas(vlan)) {
    const Vxlan::Vni oldVni = status.extendedVlanToVniMap(vlan);
    status.extendedVlanToVniMapDel(vlan);
    if (status.vniToExtendedVlanMapHas(oldVni) && status.vniToExtendedVlanMap(oldVni) == vlan) {
      status.vniToExtendedVlanMapDel(oldVni);
      for (const auto& [otherVlan, otherVni] : status.extendedVlanToVniMap()) {
        if (otherVni == oldVni) status.vniToExtendedVlanMapIs(oldVni, otherVlan);
      }
    }
  }
  const auto& vlans = watched().extendedVlanToVniMap();
  const auto found = vlans.find(vlan);
  if (found == vlans.end()) return;
  status.extendedVlanToVniMapIs(vlan, found->second);
  if (found->second.isPresent()) status.vniToExtendedVlanMapIs(found->second, vlan);
}

void VtiStatusReactor::handleExtendedVlanToVniMap(Bridging::ExtendedVlanId vlan) {
  sm_.trace_(9, __PRETTY_FUNCTION__);
  updateVlan(vlan);
  sm_.trace_(5, "Vti ", watched().name(), " extendedVlanId ", vlan, " schedule sync ");
  sm_.scheduleAllRoutesForProcessing(true, false);
}

void VtiStatusReactor::handleExtendedVlanToVniMap() {
  sm_.trace_(9, __PRETTY_FUNCTION__);
  std::set<Bridging::ExtendedVlanId> vlans;
  for (const auto& entry : watched().extendedVlanToVniMap()) vlans.insert(entry.first);
  for (const auto& entry : digest().extendedVlanToVniMap()) vlans.insert(entry.first);
  for (const auto vlan : vlans) updateVlan(vlan);
  sm_.trace_(5, "Vti ", watched().name(), " schedule sync ");
  sm_.scheduleAllRoutesForProcessing(true, false);
}

void VtiStatusReactor::cleanup() {
  sm_.trace_(9, __PRETTY_FUNCTION__);
  sm_.swRouteVtiStatusColl_.erase(watched().intfId());
  sm_.scheduleAllRoutesForProcessing(true, false);
}

}  // namespace RouteCache
