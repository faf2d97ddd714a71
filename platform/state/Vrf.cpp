#include "platform/state/Vrf.h"

namespace Vrf::VrfIdMap {

void NameToIdMap::nameToIdIs(const std::string& name, std::uint32_t piVrfId) {
  if (nameToId_.is(name, piVrfId)) notify<Reactor>([&](Reactor& reactor) { reactor.handleNameToId(name); });
}

void NameToIdMap::nameToIdDel(const std::string& name) {
  if (nameToId_.del(name)) notify<Reactor>([key = name](Reactor& reactor) { reactor.handleNameToId(key); });
}

const Lattis::EntityType& NameToIdMap::entityType() const {
  using This = NameToIdMap;
  static const Lattis::EntityType type{
      "Vrf::VrfIdMap::NameToIdMapWrapper",
      {},
      {Lattis::mapField<This, static_cast<const Names& (This::*)() const>(&This::nameToId), &This::nameToIdIs,
                        &This::nameToIdDel>("nameToId")}};
  return type;
}

}  // namespace Vrf::VrfIdMap
