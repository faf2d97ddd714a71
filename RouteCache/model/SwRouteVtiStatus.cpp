#include "RouteCache/model/SwRouteVtiStatus.h"

#include <utility>

#include "RouteCache/model/Maps.h"

namespace RouteCache {

using Lattis::readOnlyField;

void SwRouteVtiStatus::flagIs(bool& flag, bool value, void (Reactor::*handler)()) {
  if (std::exchange(flag, value) == value) return;
  notify<Reactor>([&](Reactor& reactor) { (reactor.*handler)(); });
}
void SwRouteVtiStatus::operStatusUpIs(bool up) {
  flagIs(operStatusUp_, up, &Reactor::handleOperStatusUp);
}
void SwRouteVtiStatus::v4OperStatusUpIs(bool up) {
  flagIs(v4OperStatusUp_, up, &Reactor::handleV4OperStatusUp);
}
void SwRouteVtiStatus::v6OperStatusUpIs(bool up) {
  flagIs(v6OperStatusUp_, up, &Reactor::handleV6OperStatusUp);
}

Vxlan::Vni SwRouteVtiStatus::extendedVlanToVniMap(Bridging::ExtendedVlanId vlan) const {
  return valueOrDefault(vlanToVni_, vlan);
}

void SwRouteVtiStatus::extendedVlanToVniMapIs(Bridging::ExtendedVlanId vlan, Vxlan::Vni vni) {
  if (!insertOrReplace(vlanToVni_, vlan, vni)) return;
  notify<Reactor>([&](Reactor& reactor) { reactor.handleExtendedVlanToVniMap(vlan); });
}

void SwRouteVtiStatus::extendedVlanToVniMapDel(Bridging::ExtendedVlanId vlan) {
  if (vlanToVni_.erase(vlan) == 0) return;
  notify<Reactor>([&](Reactor& reactor) { reactor.handleExtendedVlanToVniMap(vlan); });
}

void SwRouteVtiStatus::extendedVlanToVniMapDelAll() {
  const VlanToVni removed = std::exchange(vlanToVni_, {});
  for (const auto& [vlan, vni] : removed) {
    notify<Reactor>([vlan = vlan](Reactor& reactor) { reactor.handleExtendedVlanToVniMap(vlan); });
  }
}

Bridging::ExtendedVlanId SwRouteVtiStatus::vniToExtendedVlanMap(Vxlan::Vni vni) const {
  return valueOrDefault(vniToVlan_, vni);
}

void SwRouteVtiStatus::vniToExtendedVlanMapIs(Vxlan::Vni vni, Bridging::ExtendedVlanId vlan) {
  if (!insertOrReplace(vniToVlan_, vni, vlan)) return;
  notify<Reactor>([&](Reactor& reactor) { reactor.handleVniToExtendedVlanMap(vni); });
}

void SwRouteVtiStatus::vniToExtendedVlanMapDel(Vxlan::Vni vni) {
  if (vniToVlan_.erase(vni) == 0) return;
  notify<Reactor>([&](Reactor& reactor) { reactor.handleVniToExtendedVlanMap(vni); });
}

void SwRouteVtiStatus::vniToExtendedVlanMapDelAll() {
  const VniToVlan removed = std::exchange(vniToVlan_, {});
  for (const auto& [vni, vlan] : removed) {
    notify<Reactor>([vni = vni](Reactor& reactor) { reactor.handleVniToExtendedVlanMap(vni); });
  }
}

const Lattis::EntityType& SwRouteVtiStatus::entityType() const {
  using This = SwRouteVtiStatus;
  static const Lattis::EntityType type{
      typeName,
      {readOnlyField<This, &This::operStatusUp>("operStatusUp"),
       readOnlyField<This, &This::v4OperStatusUp>("v4OperStatusUp"),
       readOnlyField<This, &This::v6OperStatusUp>("v6OperStatusUp")},
      {readOnly(
           Lattis::mapField<This, static_cast<const VlanToVni& (This::*)() const>(&This::extendedVlanToVniMap),
                            &This::extendedVlanToVniMapIs, &This::extendedVlanToVniMapDel>("extendedVlanToVniMap")),
       readOnly(
           Lattis::mapField<This, static_cast<const VniToVlan& (This::*)() const>(&This::vniToExtendedVlanMap),
                            &This::vniToExtendedVlanMapIs, &This::vniToExtendedVlanMapDel>("vniToExtendedVlanMap"))}};
  return type;
}

}  // namespace RouteCache
