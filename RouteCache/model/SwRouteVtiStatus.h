#pragma once

#include <map>

#include "platform/state/Entity.h"
#include "platform/state/Vxlan.h"

namespace RouteCache {

// What the software route state machine makes of one VXLAN tunnel interface. Entity name: the interface's.
class SwRouteVtiStatus final : public Lattis::Entity {
 public:
  static constexpr const char* typeName = "RouteCache::SwRouteVtiStatus";
  using VlanToVni = std::map<Bridging::ExtendedVlanId, Vxlan::Vni>;
  using VniToVlan = std::map<Vxlan::Vni, Bridging::ExtendedVlanId>;
  class Reactor : public Lattis::ReactorOf<SwRouteVtiStatus> {
   public:
    using ReactorOf::ReactorOf;
    virtual void handleOperStatusUp() {}
    virtual void handleV4OperStatusUp() {}
    virtual void handleV6OperStatusUp() {}
    virtual void handleExtendedVlanToVniMap(Bridging::ExtendedVlanId /*vlan*/) {}  // added, changed or removed
    virtual void handleVniToExtendedVlanMap(Vxlan::Vni /*vni*/) {}
  };

  explicit SwRouteVtiStatus(IntfId intfId) : Entity(intfId.name()), intfId_(intfId) {}
  IntfId intfId() const { return intfId_; }
  bool operStatusUp() const { return operStatusUp_; }
  void operStatusUpIs(bool up);
  bool v4OperStatusUp() const { return v4OperStatusUp_; }  // up, and has an IPv4 source address
  void v4OperStatusUpIs(bool up);
  bool v6OperStatusUp() const { return v6OperStatusUp_; }  // up, and has an IPv6 source address
  void v6OperStatusUpIs(bool up);

  const VlanToVni& extendedVlanToVniMap() const { return vlanToVni_; }
  bool extendedVlanToVniMapHas(Bridging::ExtendedVlanId vlan) const { return vlanToVni_.contains(vlan); }
  Vxlan::Vni extendedVlanToVniMap(Bridging::ExtendedVlanId vlan) const;  // the absent VNI when there is none
  void extendedVlanToVniMapIs(Bridging::ExtendedVlanId vlan, Vxlan::Vni vni);
  void extendedVlanToVniMapDel(Bridging::ExtendedVlanId vlan);
  void extendedVlanToVniMapDelAll();

  const VniToVlan& vniToExtendedVlanMap() const { return vniToVlan_; }
  bool vniToExtendedVlanMapHas(Vxlan::Vni vni) const { return vniToVlan_.contains(vni); }
  Bridging::ExtendedVlanId vniToExtendedVlanMap(Vxlan::Vni vni) const;  // 0 when there is none
  void vniToExtendedVlanMapIs(Vxlan::Vni vni, Bridging::ExtendedVlanId vlan);
  void vniToExtendedVlanMapDel(Vxlan::Vni vni);
  void vniToExtendedVlanMapDelAll();

  const Lattis::EntityType& entityType() const override;

 private:
  void flagIs(bool& flag, bool value, void (Reactor::*handler)());
  IntfId intfId_;
  bool operStatusUp_ = false;
  bool v4OperStatusUp_ = false;
  bool v6OperStatusUp_ = false;
  VlanToVni vlanToVni_;
  VniToVlan vniToVlan_;
};

}  // namespace RouteCache
