// What the forwarding hardware's agents report of routing: whether route caching is on, and each VRF's hardware id.
#pragma once

#include <map>
#include <memory>

#include "platform/state/Collection.h"
#include "platform/state/Entity.h"
#include "platform/values/Net.h"

namespace Routing::Hardware {

// Read once, when an agent starts.
class Status final : public Lattis::Entity {
 public:
  using Entity::Entity;
  // True: the hardware holds a cache of the routes and a software forwarding engine has all of them. False: every route
  // goes to the hardware.
  bool hwRouteCachingEnabled() const { return hwRouteCachingEnabled_; }
  void hwRouteCachingEnabledIs(bool enabled) { hwRouteCachingEnabled_ = enabled; }
  const Lattis::EntityType& entityType() const override;

 private:
  bool hwRouteCachingEnabled_ = false;
};

// One VRF in hardware. Entity name: the VRF's.
class VrfStatus final : public Lattis::Entity {
 public:
  class Reactor : public Lattis::ReactorOf<VrfStatus> {
   public:
    using ReactorOf::ReactorOf;
    virtual void handleHwVrfId() = 0;
  };

  using Entity::Entity;
  L3::VrfName vrfName() const { return L3::VrfName(name()); }
  // 0 is the default VRF's id; for any other VRF it means that none is assigned yet.
  std::uint32_t hwVrfId() const { return hwVrfId_; }
  void hwVrfIdIs(std::uint32_t hwVrfId);
  const Lattis::EntityType& entityType() const override;

 private:
  std::uint32_t hwVrfId_ = 0;
};

// The VRFs that hardware has, by name.
class RouteStatus final : public Lattis::Entity {
 public:
  using VrfStatuses = std::map<L3::VrfName, std::shared_ptr<VrfStatus>>;
  class Reactor : public Lattis::ReactorOf<RouteStatus> {
   public:
    using ReactorOf::ReactorOf;
    virtual void handleVrfStatus(const L3::VrfName& name) = 0;  // appeared or went
  };

  using Entity::Entity;
  const VrfStatuses& vrfStatus() const { return vrfStatuses_.entries(); }
  std::shared_ptr<VrfStatus> vrfStatus(const L3::VrfName& name) const;  // null: hardware does not have it
  std::shared_ptr<VrfStatus> vrfStatusIs(const L3::VrfName& name);      // the one there is, or a new one (id 0)
  void vrfStatusDel(const L3::VrfName& name);
  const Lattis::EntityType& entityType() const override;

 private:
  Lattis::Collection<L3::VrfName, std::shared_ptr<VrfStatus>> vrfStatuses_;
};

}  // namespace Routing::Hardware
