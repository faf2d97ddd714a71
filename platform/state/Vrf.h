// The platform-independent VRF ids: VRF name -> pi VRF id, as the switch hands them out.
#pragma once

#include <map>
#include <optional>
#include <string>

#include "platform/state/Collection.h"
#include "platform/state/Entity.h"
#include "platform/values/Net.h"

namespace Vrf::VrfIdMap {

class NameToIdMap : public Lattis::Entity {
 public:
  using Names = std::map<std::string, std::uint32_t>;
  class Reactor : public Lattis::ReactorOf<NameToIdMap> {
   public:
    using ReactorOf::ReactorOf;
    virtual void handleNameToId(const std::string& name) = 0;  // added, changed or removed
  };

  using Entity::Entity;
  const Names& nameToId() const { return nameToId_.entries(); }
  std::optional<std::uint32_t> nameToId(const std::string& name) const { return nameToId_.find(name); }
  void nameToIdIs(const std::string& name, std::uint32_t piVrfId);
  void nameToIdDel(const std::string& name);
  const Lattis::EntityType& entityType() const override;

 private:
  Lattis::Collection<std::string, std::uint32_t> nameToId_;
};

// The map in the form in which the state database holds and mounts it.
class NameToIdMapWrapper final : public NameToIdMap {
 public:
  using NameToIdMap::NameToIdMap;
};

}  // namespace Vrf::VrfIdMap
