// VXLAN tunnel interfaces (VTIs) as the switch reports them.
#pragma once

#include <map>
#include <memory>

#include "platform/state/Collection.h"
#include "platform/state/Entity.h"
#include "platform/values/Net.h"

namespace Vxlan {

enum class OperStatus : std::uint8_t { down, up };  // text: "down", "up"

// One tunnel interface. Entity name: the interface's.
class VtiStatus final : public Lattis::Entity {
 public:
  using VlanToVni = std::map<Bridging::ExtendedVlanId, Vni>;
  class Reactor : public Lattis::ReactorOf<VtiStatus> {
   public:
    using ReactorOf::ReactorOf;
    virtual void handleOperStatus() = 0;
    virtual void handleIpv4Addr() = 0;
    virtual void handleIpv6Addr() = 0;
    virtual void handleExtendedVlanToVniMap(Bridging::ExtendedVlanId vlan) = 0;  // added, changed or removed
  };

  using Entity::Entity;
  IntfId intfId() const { return IntfId(name()); }
  OperStatus operStatus() const { return operStatus_; }
  void operStatusIs(OperStatus status);
  IpAddr ipv4Addr() const { return ipv4Addr_; }  // IPv4 source address of the tunnels; zero: none
  void ipv4AddrIs(IpAddr addr);
  Ip6Addr ipv6Addr() const { return ipv6Addr_; }  // IPv6 source address of the tunnels; zero: none
  void ipv6AddrIs(Ip6Addr addr);
  const VlanToVni& extendedVlanToVniMap() const { return extendedVlanToVniMap_.entries(); }
  void extendedVlanToVniMapIs(Bridging::ExtendedVlanId vlan, Vni vni);
  void extendedVlanToVniMapDel(Bridging::ExtendedVlanId vlan);
  const Lattis::EntityType& entityType() const override;

 private:
  OperStatus operStatus_ = OperStatus::down;
  IpAddr ipv4Addr_;
  Ip6Addr ipv6Addr_;
  Lattis::Collection<Bridging::ExtendedVlanId, Vni> extendedVlanToVniMap_;
};

// Every tunnel interface by its id.
class VtiStatusDir final : public Lattis::Entity {
 public:
  using VtiStatuses = std::map<IntfId, std::shared_ptr<VtiStatus>>;
  class Reactor : public Lattis::ReactorOf<VtiStatusDir> {
   public:
    using ReactorOf::ReactorOf;
    virtual void handleVtiStatus(IntfId intfId) = 0;  // appeared or went
  };

  using Entity::Entity;
  const VtiStatuses& vtiStatus() const { return vtiStatuses_.entries(); }
  std::shared_ptr<VtiStatus> vtiStatus(IntfId intfId) const;  // null: no such interface
  std::shared_ptr<VtiStatus> vtiStatusIs(IntfId intfId);      // the one there is, or a new one (down, no addresses)
  void vtiStatusDel(IntfId intfId);
  const Lattis::EntityType& entityType() const override;

 private:
  Lattis::Collection<IntfId, std::shared_ptr<VtiStatus>> vtiStatuses_;
};

}  // namespace Vxlan

namespace Platform {
PLATFORM_TEXT_FORM(Vxlan::OperStatus, "up or down");
}  // namespace Platform
