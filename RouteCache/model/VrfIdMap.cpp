#include "RouteCache/model/VrfIdMap.h"

#include "RouteCache/model/Maps.h"

namespace RouteCache {

std::shared_ptr<VrfIdMap> vrfIdMapFactory(const std::string& name) {
  return std::make_shared<VrfIdMap>(name);
}

void VrfIdMap::set(HashedIds& ids, std::uint32_t key, std::uint32_t value, Handler handler) {
  if (insertOrReplace(ids, key, value)) notify<Reactor>([&](Reactor& reactor) { (reactor.*handler)(key); });
}

std::uint32_t VrfIdMap::remove(HashedIds& ids, std::uint32_t key, Handler handler) {
  const auto found = ids.find(key);
  if (found == ids.end()) return 0;
  const std::uint32_t value = found->second;
  ids.erase(found);
  notify<Reactor>([&](Reactor& reactor) { (reactor.*handler)(key); });
  return value;
}

void VrfIdMap::removeAll(HashedIds& ids, Handler handler) {
  const Ids removed = inOrder(std::exchange(ids, {}));
  for (const auto& [key, value] : removed) {
    notify<Reactor>([key = key, handler](Reactor& reactor) { (reactor.*handler)(key); });
  }
}

std::uint32_t VrfIdMap::hwVrfIdToGlobalVrfId(std::uint32_t hwVrfId) const {
  return valueOrDefault(hwToGlobal_, hwVrfId);
}
VrfIdMap::Ids VrfIdMap::hwVrfIdToGlobalVrfIds() const {
  return inOrder(hwToGlobal_);
}

std::uint32_t VrfIdMap::globalVrfIdToHwVrfId(std::uint32_t globalVrfId) const {
  return valueOrDefault(globalToHw_, globalVrfId);
}
VrfIdMap::Ids VrfIdMap::globalVrfIdToHwVrfIds() const {
  return inOrder(globalToHw_);
}

const Lattis::EntityType& VrfIdMap::entityType() const {
  using This = VrfIdMap;
  static const Lattis::EntityType type{
      typeName,
      {},
      {hashedMapField<This, &This::hwVrfIdToGlobalVrfIds, &This::hwVrfIdToGlobalVrfIdHas, &This::hwVrfIdToGlobalVrfId>(
           "hwVrfIdToGlobalVrfId"),
       hashedMapField<This, &This::globalVrfIdToHwVrfIds, &This::globalVrfIdToHwVrfIdHas, &This::globalVrfIdToHwVrfId>(
           "globalVrfIdToHwVrfId")}};
  return type;
}

}  // namespace RouteCache
