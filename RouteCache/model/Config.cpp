#include "RouteCache/model/Config.h"

#include <utility>

#include "platform/tables/SharedTable.h"
#include "platform/tables/Trie.h"

namespace RouteCache {

using Lattis::attributeField;
using Lattis::readOnlyField;

namespace {

// Takes an operator's means of changing a collection away.
Lattis::CollectionField readOnly(Lattis::CollectionField field) {
  field.set = nullptr;
  field.del = nullptr;
  return field;
}

// The value, or the value type's default.
template <class Map, class Key>
typename Map::mapped_type valueOrDefault(const Map& map, const Key& key) {
  const auto found = map.find(key);
  return found == map.end() ? typename Map::mapped_type() : found->second;
}

// True when the entry is new or had another value.
template <class Map>
bool insertOrReplace(Map& map, const typename Map::key_type& key, typename Map::mapped_type value) {
  const auto [entry, inserted] = map.try_emplace(key, value);
  if (!inserted && entry->second == value) return false;
  entry->second = std::move(value);
  return true;
}

// The entries of a hashed map in key order: what is told or shown must not follow the order of a hash table.
template <class Map>
auto inOrder(const Map& map) {
  return std::map<typename Map::key_type, typename Map::mapped_type>(map.begin(), map.end());
}

// Fields over hashed maps, read only: `all` puts the entries in order, for their keys; what is asked of one entry is
// looked up.
template <class E, auto all>
Lattis::CollectionField hashedField(std::string name) {
  Lattis::CollectionField field;
  field.name = std::move(name);
  field.keys = [](const Lattis::Entity& e) {
    std::vector<std::string> keys;
    for (const auto& entry : (static_cast<const E&>(e).*all)()) keys.push_back(Platform::toText(entry.first));
    return keys;
  };
  return field;
}

template <class E, auto all, auto has, auto value>
Lattis::CollectionField hashedMapField(std::string name) {
  Lattis::CollectionField field = hashedField<E, all>(std::move(name));
  field.get = [](const Lattis::Entity& e, std::string_view key) -> std::optional<std::string> {
    const E& entity = static_cast<const E&>(e);
    const auto id = Platform::fromText<std::uint32_t>(key);
    return (entity.*has)(id) ? std::optional(Platform::toText((entity.*value)(id))) : std::nullopt;
  };
  return field;
}

template <class E, auto all, auto child>
Lattis::CollectionField hashedChildField(std::string name) {
  Lattis::CollectionField field = hashedField<E, all>(std::move(name));
  field.child = [](Lattis::Entity& e, std::string_view key) -> std::shared_ptr<Lattis::Entity> {
    return (static_cast<const E&>(e).*child)(Platform::fromText<std::uint32_t>(key));
  };
  return field;
}

}  // namespace

// --- Config ----------------------------------------------------------------------------------------------------------

void Config::cachingEnabledIs(bool enabled) {
  if (std::exchange(cachingEnabled_, enabled) == enabled) return;
  notify<Reactor>([](Reactor& reactor) { reactor.handleCachingEnabled(); });
}

void Config::ageingKeepsRouteIs(bool keeps) {
  if (std::exchange(ageingKeepsRoute_, keeps) == keeps) return;
  notify<Reactor>([](Reactor& reactor) { reactor.handleAgeingKeepsRoute(); });
}

void Config::ipv4PrefixHwSpaceLeftIs(std::uint32_t entries) {
  if (std::exchange(ipv4PrefixHwSpaceLeft_, entries) == entries) return;
  notify<Reactor>([](Reactor& reactor) { reactor.handleIpv4PrefixHwSpaceLeft(); });
}

const Lattis::EntityType& Config::entityType() const {
  using This = Config;
  static const Lattis::EntityType type{
      typeName,
      {readOnlyField<This, &This::cachingEnabled>("cachingEnabled"),
       attributeField<This, &This::ageingKeepsRoute, &This::ageingKeepsRouteIs>("ageingKeepsRoute"),
       readOnlyField<This, &This::ipv4PrefixHwSpaceLeft>("ipv4PrefixHwSpaceLeft")},
      {}};
  return type;
}

// --- CliConfig -------------------------------------------------------------------------------------------------------

template <class T>
void CliConfig::thresholdIs(T& field, T value) {
  if (std::exchange(field, value) == value) return;
  notify<Reactor>([](Reactor& reactor) { reactor.handleThresholdConfig(); });
}

void CliConfig::lowThresholdHwUtilPercentageIs(std::uint8_t percent) {
  thresholdIs(lowThresholdHwUtilPercentage_, percent);
}
void CliConfig::mediumThresholdHwUtilPercentageIs(std::uint8_t percent) {
  thresholdIs(mediumThresholdHwUtilPercentage_, percent);
}
void CliConfig::highThresholdHwUtilPercentageIs(std::uint8_t percent) {
  thresholdIs(highThresholdHwUtilPercentage_, percent);
}
void CliConfig::lowThresholdIdleTimeIs(std::uint16_t seconds) {
  thresholdIs(lowThresholdIdleTime_, seconds);
}
void CliConfig::mediumThresholdIdleTimeIs(std::uint16_t seconds) {
  thresholdIs(mediumThresholdIdleTime_, seconds);
}
void CliConfig::highThresholdIdleTimeIs(std::uint16_t seconds) {
  thresholdIs(highThresholdIdleTime_, seconds);
}

const Lattis::EntityType& CliConfig::entityType() const {
  using This = CliConfig;
  static const Lattis::EntityType type{
      typeName,
      {attributeField<This, &This::lowThresholdHwUtilPercentage, &This::lowThresholdHwUtilPercentageIs>(
           "lowThresholdHwUtilPercentage"),
       attributeField<This, &This::mediumThresholdHwUtilPercentage, &This::mediumThresholdHwUtilPercentageIs>(
           "mediumThresholdHwUtilPercentage"),
       attributeField<This, &This::highThresholdHwUtilPercentage, &This::highThresholdHwUtilPercentageIs>(
           "highThresholdHwUtilPercentage"),
       attributeField<This, &This::lowThresholdIdleTime, &This::lowThresholdIdleTimeIs>("lowThresholdIdleTime"),
       attributeField<This, &This::mediumThresholdIdleTime, &This::mediumThresholdIdleTimeIs>(
           "mediumThresholdIdleTime"),
       attributeField<This, &This::highThresholdIdleTime, &This::highThresholdIdleTimeIs>("highThresholdIdleTime")},
      {}};
  return type;
}

std::string CliConfig::fault() const {
  const std::pair<const char*, std::uint8_t> percentages[] = {
      {"lowThresholdHwUtilPercentage", lowThresholdHwUtilPercentage_},
      {"mediumThresholdHwUtilPercentage", mediumThresholdHwUtilPercentage_},
      {"highThresholdHwUtilPercentage", highThresholdHwUtilPercentage_}};
  for (const auto& [name, percent] : percentages) {
    if (percent > maxHwUtilPercentage) return std::string(name) + " " + std::to_string(percent) + " is over 100";
  }
  const std::pair<const char*, std::uint16_t> idleTimes[] = {{"lowThresholdIdleTime", lowThresholdIdleTime_},
                                                             {"mediumThresholdIdleTime", mediumThresholdIdleTime_},
                                                             {"highThresholdIdleTime", highThresholdIdleTime_}};
  for (const auto& [name, seconds] : idleTimes) {
    if (seconds > maxIdleTime) return std::string(name) + " " + std::to_string(seconds) + " is over 5100 seconds";
  }
  if (lowThresholdHwUtilPercentage_ > mediumThresholdHwUtilPercentage_ ||
      mediumThresholdHwUtilPercentage_ > highThresholdHwUtilPercentage_) {
    return "utilisation thresholds must rise from low to high: " + std::to_string(lowThresholdHwUtilPercentage_) +
           ", " + std::to_string(mediumThresholdHwUtilPercentage_) + ", " +
           std::to_string(highThresholdHwUtilPercentage_);
  }
  return {};
}

// --- Capability ------------------------------------------------------------------------------------------------------

const Lattis::EntityType& Capability::entityType() const {
  using This = Capability;
  static const Lattis::EntityType type{
      typeName,
      {attributeField<This, &This::hwRouteTableSize, &This::hwRouteTableSizeIs>("hwRouteTableSize"),
       attributeField<This, &This::sfeRouteTableSize, &This::sfeRouteTableSizeIs>("sfeRouteTableSize"),
       attributeField<This, &This::adjacencyTableSize, &This::adjacencyTableSizeIs>("adjacencyTableSize")},
      {}};
  return type;
}

std::string Capability::fault() const {
  const struct {
    const char* name;
    std::uint32_t entries, most;
  } sizes[] = {{"hwRouteTableSize", hwRouteTableSize_, Pondra::maxCapacity - kernelRouteBuffer},
               {"sfeRouteTableSize", sfeRouteTableSize_, Pondra::maxCapacity},
               {"adjacencyTableSize", adjacencyTableSize_, Pondra::maxCapacity}};
  for (const auto& size : sizes) {
    if (size.entries >= 1 && size.entries <= size.most) continue;
    return std::string(size.name) + " must be 1 to " + std::to_string(size.most);
  }
  return {};
}

// --- VrfIdMap --------------------------------------------------------------------------------------------------------

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
void VrfIdMap::hwVrfIdToGlobalVrfIdIs(std::uint32_t hwVrfId, std::uint32_t globalVrfId) {
  set(hwToGlobal_, hwVrfId, globalVrfId, &Reactor::handleHwVrfId);
}
std::uint32_t VrfIdMap::hwVrfIdToGlobalVrfIdDel(std::uint32_t hwVrfId) {
  return remove(hwToGlobal_, hwVrfId, &Reactor::handleHwVrfId);
}
void VrfIdMap::hwVrfIdToGlobalVrfIdDelAll() {
  removeAll(hwToGlobal_, &Reactor::handleHwVrfId);
}
VrfIdMap::Ids VrfIdMap::hwVrfIdToGlobalVrfIds() const {
  return inOrder(hwToGlobal_);
}

std::uint32_t VrfIdMap::globalVrfIdToHwVrfId(std::uint32_t globalVrfId) const {
  return valueOrDefault(globalToHw_, globalVrfId);
}
void VrfIdMap::globalVrfIdToHwVrfIdIs(std::uint32_t globalVrfId, std::uint32_t hwVrfId) {
  set(globalToHw_, globalVrfId, hwVrfId, &Reactor::handleVrfId);
}
std::uint32_t VrfIdMap::globalVrfIdToHwVrfIdDel(std::uint32_t globalVrfId) {
  return remove(globalToHw_, globalVrfId, &Reactor::handleVrfId);
}
void VrfIdMap::globalVrfIdToHwVrfIdDelAll() {
  removeAll(globalToHw_, &Reactor::handleVrfId);
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

// --- VrfCachedRoute --------------------------------------------------------------------------------------------------

std::shared_ptr<VrfCachedRoute> vrfCachedRouteFactory(const std::string& name) {
  return std::make_shared<VrfCachedRoute>(name);
}

template <class T>
void VrfCachedRoute::set(Tries<T>& tries, std::uint32_t hwVrfId, std::shared_ptr<T> trie, Handler handler) {
  if (!insertOrReplace(tries, hwVrfId, std::move(trie))) return;
  notify<Reactor>([&](Reactor& reactor) { (reactor.*handler)(hwVrfId); });
}

template <class T>
void VrfCachedRoute::remove(Tries<T>& tries, std::uint32_t hwVrfId, Handler handler) {
  if (tries.erase(hwVrfId) != 0) notify<Reactor>([&](Reactor& reactor) { (reactor.*handler)(hwVrfId); });
}

template <class T>
void VrfCachedRoute::removeAll(Tries<T>& tries, Handler handler) {
  const auto removed = inOrder(std::exchange(tries, {}));
  for (const auto& [hwVrfId, trie] : removed) {
    notify<Reactor>([hwVrfId = hwVrfId, handler](Reactor& reactor) { (reactor.*handler)(hwVrfId); });
  }
}

std::shared_ptr<Routing::Trie> VrfCachedRoute::vrfTrie(std::uint32_t hwVrfId) const {
  return valueOrDefault(tries_, hwVrfId);
}
void VrfCachedRoute::vrfTrieIs(std::uint32_t hwVrfId, std::shared_ptr<Routing::Trie> trie) {
  set(tries_, hwVrfId, std::move(trie), &Reactor::handleVrfTrie);
}
void VrfCachedRoute::vrfTrieDel(std::uint32_t hwVrfId) {
  remove(tries_, hwVrfId, &Reactor::handleVrfTrie);
}
void VrfCachedRoute::vrfTrieDelAll() {
  removeAll(tries_, &Reactor::handleVrfTrie);
}
std::map<std::uint32_t, std::shared_ptr<Routing::Trie>> VrfCachedRoute::vrfTries() const {
  return inOrder(tries_);
}

std::shared_ptr<Routing6::Trie> VrfCachedRoute::vrfTrie6(std::uint32_t hwVrfId) const {
  return valueOrDefault(tries6_, hwVrfId);
}
void VrfCachedRoute::vrfTrie6Is(std::uint32_t hwVrfId, std::shared_ptr<Routing6::Trie> trie) {
  set(tries6_, hwVrfId, std::move(trie), &Reactor::handleVrfTrie6);
}
void VrfCachedRoute::vrfTrie6Del(std::uint32_t hwVrfId) {
  remove(tries6_, hwVrfId, &Reactor::handleVrfTrie6);
}
void VrfCachedRoute::vrfTrie6DelAll() {
  removeAll(tries6_, &Reactor::handleVrfTrie6);
}
std::map<std::uint32_t, std::shared_ptr<Routing6::Trie>> VrfCachedRoute::vrfTries6() const {
  return inOrder(tries6_);
}

const Lattis::EntityType& VrfCachedRoute::entityType() const {
  using This = VrfCachedRoute;
  static const Lattis::EntityType type{typeName,
                                       {},
                                       {hashedChildField<This, &This::vrfTries, &This::vrfTrie>("vrfTrie"),
                                        hashedChildField<This, &This::vrfTries6, &This::vrfTrie6>("vrfTrie6")}};
  return type;
}

// --- SwRouteVtiStatus ------------------------------------------------------------------------------------------------

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
