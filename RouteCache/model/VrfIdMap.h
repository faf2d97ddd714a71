#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>

#include "platform/state/Entity.h"

namespace RouteCache {

// Hardware VRF ids to global ones (the platform's own, "pi") and back. The two directions are separate maps: their
// writer keeps them each other's inverse. Looked up for every route, so hashed. Operators can read it, not write it.
class VrfIdMap final : public Lattis::Entity {
 public:
  static constexpr const char* typeName = "RouteCache::VrfIdMap";
  class Reactor : public Lattis::ReactorOf<VrfIdMap> {
   public:
    using ReactorOf::ReactorOf;
    virtual void handleVrfId(std::uint32_t /*piVrfId*/) {}    // globalVrfIdToHwVrfId: added, changed or removed
    virtual void handleHwVrfId(std::uint32_t /*hwVrfId*/) {}  // hwVrfIdToGlobalVrfId: added, changed or removed
  };
  using Ids = std::map<std::uint32_t, std::uint32_t>;

  using Entity::Entity;
  // 0 when there is none: ask ...Has whether there is, for 0 is the default VRF's hardware id.
  std::uint32_t hwVrfIdToGlobalVrfId(std::uint32_t hwVrfId) const;
  bool hwVrfIdToGlobalVrfIdHas(std::uint32_t hwVrfId) const { return hwToGlobal_.contains(hwVrfId); }
  void hwVrfIdToGlobalVrfIdIs(std::uint32_t hwVrfId, std::uint32_t globalVrfId) {
    set(hwToGlobal_, hwVrfId, globalVrfId, &Reactor::handleHwVrfId);
  }
  // Returns the value removed, or 0.
  std::uint32_t hwVrfIdToGlobalVrfIdDel(std::uint32_t hwVrfId) {
    return remove(hwToGlobal_, hwVrfId, &Reactor::handleHwVrfId);
  }
  void hwVrfIdToGlobalVrfIdDelAll() { removeAll(hwToGlobal_, &Reactor::handleHwVrfId); }
  Ids hwVrfIdToGlobalVrfIds() const;  // a copy, in order

  std::uint32_t globalVrfIdToHwVrfId(std::uint32_t globalVrfId) const;
  bool globalVrfIdToHwVrfIdHas(std::uint32_t globalVrfId) const { return globalToHw_.contains(globalVrfId); }
  void globalVrfIdToHwVrfIdIs(std::uint32_t globalVrfId, std::uint32_t hwVrfId) {
    set(globalToHw_, globalVrfId, hwVrfId, &Reactor::handleVrfId);
  }
  std::uint32_t globalVrfIdToHwVrfIdDel(std::uint32_t globalVrfId) {
    return remove(globalToHw_, globalVrfId, &Reactor::handleVrfId);
  }
  void globalVrfIdToHwVrfIdDelAll() { removeAll(globalToHw_, &Reactor::handleVrfId); }
  Ids globalVrfIdToHwVrfIds() const;

  const Lattis::EntityType& entityType() const override;

 private:
  using HashedIds = std::unordered_map<std::uint32_t, std::uint32_t>;
  using Handler = void (Reactor::*)(std::uint32_t);
  void set(HashedIds& ids, std::uint32_t key, std::uint32_t value, Handler handler);
  std::uint32_t remove(HashedIds& ids, std::uint32_t key, Handler handler);
  void removeAll(HashedIds& ids, Handler handler);
  HashedIds hwToGlobal_;
  HashedIds globalToHw_;
};
std::shared_ptr<VrfIdMap> vrfIdMapFactory(const std::string& name);

// Hands on which of the platform's ids have another hardware id, or none, or have one now.
template <class Owner>
class VrfIdFollower final : public VrfIdMap::Reactor {
 public:
  VrfIdFollower(Owner& owner, std::shared_ptr<const VrfIdMap> map) : Reactor(std::move(map)), owner_(owner) {}
  void handleVrfId(std::uint32_t piVrfId) override { owner_.handleVrfId(piVrfId); }

 private:
  Owner& owner_;
};

}  // namespace RouteCache
