#include "platform/state/Vxlan.h"

namespace Vxlan {

void VtiStatus::operStatusIs(OperStatus status) {
  if (status == operStatus_) return;
  operStatus_ = status;
  notify<Reactor>([](Reactor& reactor) { reactor.handleOperStatus(); });
}

void VtiStatus::ipv4AddrIs(IpAddr addr) {
  if (addr == ipv4Addr_) return;
  ipv4Addr_ = addr;
  notify<Reactor>([](Reactor& reactor) { reactor.handleIpv4Addr(); });
}

void VtiStatus::ipv6AddrIs(Ip6Addr addr) {
  if (addr == ipv6Addr_) return;
  ipv6Addr_ = addr;
  notify<Reactor>([](Reactor& reactor) { reactor.handleIpv6Addr(); });
}

void VtiStatus::extendedVlanToVniMapIs(Bridging::ExtendedVlanId vlan, Vni vni) {
  if (!extendedVlanToVniMap_.is(vlan, vni)) return;
  notify<Reactor>([&](Reactor& reactor) { reactor.handleExtendedVlanToVniMap(vlan); });
}

void VtiStatus::extendedVlanToVniMapDel(Bridging::ExtendedVlanId vlan) {
  if (!extendedVlanToVniMap_.del(vlan)) return;
  notify<Reactor>([&](Reactor& reactor) { reactor.handleExtendedVlanToVniMap(vlan); });
}

const Lattis::EntityType& VtiStatus::entityType() const {
  using This = VtiStatus;
  static const Lattis::EntityType type{
      "Vxlan::VtiStatus",
      {Lattis::attributeField<This, &This::operStatus, &This::operStatusIs>("operStatus"),
       Lattis::attributeField<This, &This::ipv4Addr, &This::ipv4AddrIs>("ipv4Addr"),
       Lattis::attributeField<This, &This::ipv6Addr, &This::ipv6AddrIs>("ipv6Addr")},
      {Lattis::mapField<This, &This::extendedVlanToVniMap, &This::extendedVlanToVniMapIs,
                        &This::extendedVlanToVniMapDel>("extendedVlanToVniMap")}};
  return type;
}

std::shared_ptr<VtiStatus> VtiStatusDir::vtiStatus(IntfId intfId) const {
  return vtiStatuses_.find(intfId).value_or(nullptr);
}

std::shared_ptr<VtiStatus> VtiStatusDir::vtiStatusIs(IntfId intfId) {
  auto found = vtiStatus(intfId);
  if (found) return found;
  found = std::make_shared<VtiStatus>(intfId.name());
  vtiStatuses_.is(intfId, found);
  notify<Reactor>([&](Reactor& reactor) { reactor.handleVtiStatus(intfId); });
  return found;
}

void VtiStatusDir::vtiStatusDel(IntfId intfId) {
  if (vtiStatuses_.del(intfId)) notify<Reactor>([&](Reactor& reactor) { reactor.handleVtiStatus(intfId); });
}

const Lattis::EntityType& VtiStatusDir::entityType() const {
  using This = VtiStatusDir;
  static const Lattis::EntityType type{
      "Vxlan::VtiStatusDir",
      {},
      {Lattis::childField<This, static_cast<const VtiStatuses& (This::*)() const>(&This::vtiStatus), &This::vtiStatusIs,
                          &This::vtiStatusDel>("vtiStatus")}};
  return type;
}

}  // namespace Vxlan

namespace Platform {

std::string TextForm<Vxlan::OperStatus>::to(const Vxlan::OperStatus& value) {
  return value == Vxlan::OperStatus::up ? "up" : "down";
}

std::optional<Vxlan::OperStatus> TextForm<Vxlan::OperStatus>::from(std::string_view string) {
  if (string == "up") return Vxlan::OperStatus::up;
  if (string == "down") return Vxlan::OperStatus::down;
  return std::nullopt;
}

}  // namespace Platform
