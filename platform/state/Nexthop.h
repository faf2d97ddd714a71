// Next-hop resolution: an agent writes which addresses it wants resolved (NexthopConfig), the switch's resolver answers
// with the underlay FEC that reaches each (NexthopStatus). Both are kept per VRF; overlay VTEPs are resolved in the VRF
// named "default".
#pragma once

#include <map>
#include <memory>

#include "platform/state/Collection.h"
#include "platform/state/Entity.h"
#include "platform/values/Net.h"

namespace Routing {

// The addresses that are to be watched in one VRF. Entity name: the VRF's.
class NexthopVrfConfig final : public Lattis::Entity {
 public:
  using Nexthops = std::map<IpGenAddr, bool>;  // the value is always true: presence is the request
  class Reactor : public Lattis::ReactorOf<NexthopVrfConfig> {
   public:
    using ReactorOf::ReactorOf;
    virtual void handleNexthop(const IpGenAddr& addr) = 0;  // added or removed
  };

  using Entity::Entity;
  const Nexthops& nexthop() const { return nexthops_.entries(); }
  void nexthopIs(const IpGenAddr& addr, bool watched = true);  // false: the same as nexthopDel
  void nexthopDel(const IpGenAddr& addr);
  const Lattis::EntityType& entityType() const override;

 private:
  Lattis::Collection<IpGenAddr, bool> nexthops_;
};

// The requests of one agent: VRF name -> requests of that VRF.
class NexthopConfig final : public Lattis::Entity {
 public:
  using Vrfs = std::map<L3::VrfName, std::shared_ptr<NexthopVrfConfig>>;
  class Reactor : public Lattis::ReactorOf<NexthopConfig> {
   public:
    using ReactorOf::ReactorOf;
    virtual void handleVrf(const L3::VrfName& name) = 0;  // registered or withdrawn
  };

  using Entity::Entity;
  const Vrfs& vrf() const { return vrfs_.entries(); }
  std::shared_ptr<NexthopVrfConfig> vrf(const L3::VrfName& name) const;  // null: not registered
  std::shared_ptr<NexthopVrfConfig> vrfIs(const L3::VrfName& name);      // the one there is, or a new one
  void vrfDel(const L3::VrfName& name);
  const Lattis::EntityType& entityType() const override;

 private:
  Lattis::Collection<L3::VrfName, std::shared_ptr<NexthopVrfConfig>> vrfs_;
};

// The answers for one VRF: address -> underlay FEC. No entry: no answer yet. An entry with the empty FEC: unreachable.
class NexthopVrfStatus final : public Lattis::Entity {
 public:
  using Nexthops = std::map<IpGenAddr, Fib::FecId>;
  class Reactor : public Lattis::ReactorOf<NexthopVrfStatus> {
   public:
    using ReactorOf::ReactorOf;
    virtual void handleNexthop(const IpGenAddr& addr) = 0;  // answered, answered otherwise, or withdrawn
  };

  using Entity::Entity;
  const Nexthops& nexthop() const { return nexthops_.entries(); }
  std::optional<Fib::FecId> nexthop(const IpGenAddr& addr) const { return nexthops_.find(addr); }
  void nexthopIs(const IpGenAddr& addr, Fib::FecId fecId);
  void nexthopDel(const IpGenAddr& addr);
  const Lattis::EntityType& entityType() const override;

 private:
  Lattis::Collection<IpGenAddr, Fib::FecId> nexthops_;
};

// The resolver's answers to one agent: VRF name -> answers for that VRF.
class NexthopStatus final : public Lattis::Entity {
 public:
  using Vrfs = std::map<L3::VrfName, std::shared_ptr<NexthopVrfStatus>>;
  class Reactor : public Lattis::ReactorOf<NexthopStatus> {
   public:
    using ReactorOf::ReactorOf;
    virtual void handleVrf(const L3::VrfName& name) = 0;  // appeared or went
  };

  using Entity::Entity;
  const Vrfs& vrf() const { return vrfs_.entries(); }
  std::shared_ptr<NexthopVrfStatus> vrf(const L3::VrfName& name) const;  // null: not there
  std::shared_ptr<NexthopVrfStatus> vrfIs(const L3::VrfName& name);      // the one there is, or a new one
  void vrfDel(const L3::VrfName& name);
  const Lattis::EntityType& entityType() const override;

 private:
  Lattis::Collection<L3::VrfName, std::shared_ptr<NexthopVrfStatus>> vrfs_;
};

// The underlay's routes, from which a resolver answers: prefix -> the FEC that forwards to it.
class UnderlayRouteConfig final : public Lattis::Entity {
 public:
  using Routes = std::map<IpGenPrefix, Fib::FecId>;
  class Reactor : public Lattis::ReactorOf<UnderlayRouteConfig> {
   public:
    using ReactorOf::ReactorOf;
    virtual void handleRoute(const IpGenPrefix& prefix) = 0;  // added, changed or removed
  };

  using Entity::Entity;
  const Routes& route() const { return routes_.entries(); }
  void routeIs(const IpGenPrefix& prefix, Fib::FecId fecId);
  void routeDel(const IpGenPrefix& prefix);
  // The FEC of the longest prefix that covers the address, or nothing.
  std::optional<Fib::FecId> longestMatch(const IpGenAddr& addr) const;
  const Lattis::EntityType& entityType() const override;

 private:
  Lattis::Collection<IpGenPrefix, Fib::FecId> routes_;
};

}  // namespace Routing
