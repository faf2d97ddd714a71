// The route cache's configuration and bookkeeping: three entities that the agent shares with the switch through the
// state database (Config, CliConfig, Capability), two that it makes for itself (VrfIdMap, VrfCachedRoute), and the
// collections that its state machines keep.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "RouteCache/model/Values.h"
#include "platform/state/Entity.h"

namespace Platform {
template <class P>
class BasicTrie;
}  // namespace Platform
namespace Routing {
using Trie = Platform::BasicTrie<Prefix>;
}  // namespace Routing
namespace Routing6 {
using Trie = Platform::BasicTrie<Ip6Prefix>;
}  // namespace Routing6

namespace RouteCache {

// --- Shared with the switch ------------------------------------------------------------------------------------------

// "routecache/config": the state of caching, written by the agent and read by others. One switch is theirs: whoever
// drives the SFE sets ageingKeepsRoute. The rest cannot be set from outside.
class Config final : public Lattis::Entity {
 public:
  static constexpr const char* typeName = "RouteCache::Config";
  class Reactor : public Lattis::ReactorOf<Config> {
   public:
    using ReactorOf::ReactorOf;
    virtual void handleCachingEnabled() {}
    virtual void handleAgeingKeepsRoute() {}
    virtual void handleIpv4PrefixHwSpaceLeft() {}
  };

  using Entity::Entity;
  // Some VRF has cached FIB prefixes.
  bool cachingEnabled() const { return cachingEnabled_; }
  void cachingEnabledIs(bool enabled);
  // Ageing clears an idle route's inHw and keeps it in the hardware route table, instead of deleting it there.
  bool ageingKeepsRoute() const { return ageingKeepsRoute_; }
  void ageingKeepsRouteIs(bool keeps);
  // Free IPv4 prefix entries in hardware, as published.
  std::uint32_t ipv4PrefixHwSpaceLeft() const { return ipv4PrefixHwSpaceLeft_; }
  void ipv4PrefixHwSpaceLeftIs(std::uint32_t entries);
  const Lattis::EntityType& entityType() const override;

 private:
  bool cachingEnabled_ = false;
  bool ageingKeepsRoute_ = false;
  std::uint32_t ipv4PrefixHwSpaceLeft_ = 0;
};

// "routecache/cliconfig": the operator's three threshold levels. At a hardware utilisation of `...HwUtilPercentage` or
// more, routes idle for `...IdleTime` or longer may leave hardware.
class CliConfig final : public Lattis::Entity {
 public:
  static constexpr const char* typeName = "RouteCache::CliConfig";
  static constexpr std::uint8_t maxHwUtilPercentage = 100;
  static constexpr std::uint16_t maxIdleTime = 5100;  // seconds: 255 steps of the hardware's idle clock
  class Reactor : public Lattis::ReactorOf<CliConfig> {
   public:
    using ReactorOf::ReactorOf;
    virtual void handleThresholdConfig() = 0;  // any of the six changed
  };

  using Entity::Entity;
  std::uint8_t lowThresholdHwUtilPercentage() const { return lowThresholdHwUtilPercentage_; }
  void lowThresholdHwUtilPercentageIs(std::uint8_t percent);
  std::uint8_t mediumThresholdHwUtilPercentage() const { return mediumThresholdHwUtilPercentage_; }
  void mediumThresholdHwUtilPercentageIs(std::uint8_t percent);
  std::uint8_t highThresholdHwUtilPercentage() const { return highThresholdHwUtilPercentage_; }
  void highThresholdHwUtilPercentageIs(std::uint8_t percent);
  std::uint16_t lowThresholdIdleTime() const { return lowThresholdIdleTime_; }  // seconds
  void lowThresholdIdleTimeIs(std::uint16_t seconds);
  std::uint16_t mediumThresholdIdleTime() const { return mediumThresholdIdleTime_; }
  void mediumThresholdIdleTimeIs(std::uint16_t seconds);
  std::uint16_t highThresholdIdleTime() const { return highThresholdIdleTime_; }
  void highThresholdIdleTimeIs(std::uint16_t seconds);
  const Lattis::EntityType& entityType() const override;
  // A percentage over 100, levels that do not rise from low to high, an idle time over 5100 seconds.
  std::string fault() const override;

 private:
  template <class T>
  void thresholdIs(T& field, T value);
  std::uint8_t lowThresholdHwUtilPercentage_ = 85;
  std::uint8_t mediumThresholdHwUtilPercentage_ = 90;
  std::uint8_t highThresholdHwUtilPercentage_ = 95;
  std::uint16_t lowThresholdIdleTime_ = 1100;
  std::uint16_t mediumThresholdIdleTime_ = 300;
  std::uint16_t highThresholdIdleTime_ = 100;
};

// "routecache/capability": the sizes, in entries, that the platform can support. Read once, when the agent starts; the
// defaults are those of a switch of middle size.
class Capability final : public Lattis::Entity {
 public:
  static constexpr const char* typeName = "RouteCache::Capability";
  // What the kernel's route table holds beyond hwRouteTableSize.
  static constexpr std::uint32_t kernelRouteBuffer = 2048;

  using Entity::Entity;
  std::uint32_t hwRouteTableSize() const { return hwRouteTableSize_; }
  void hwRouteTableSizeIs(std::uint32_t entries) { hwRouteTableSize_ = entries; }
  std::uint32_t sfeRouteTableSize() const { return sfeRouteTableSize_; }
  void sfeRouteTableSizeIs(std::uint32_t entries) { sfeRouteTableSize_ = entries; }
  std::uint32_t adjacencyTableSize() const { return adjacencyTableSize_; }
  void adjacencyTableSizeIs(std::uint32_t entries) { adjacencyTableSize_ = entries; }
  const Lattis::EntityType& entityType() const override;
  // A size that no table can have, the kernel's included.
  std::string fault() const override;

 private:
  std::uint32_t hwRouteTableSize_ = 131072;
  std::uint32_t sfeRouteTableSize_ = 1048576;
  std::uint32_t adjacencyTableSize_ = 65536;
};

// --- Made by the agent -----------------------------------------------------------------------------------------------

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
  void hwVrfIdToGlobalVrfIdIs(std::uint32_t hwVrfId, std::uint32_t globalVrfId);
  // Returns the value removed, or 0.
  std::uint32_t hwVrfIdToGlobalVrfIdDel(std::uint32_t hwVrfId);
  void hwVrfIdToGlobalVrfIdDelAll();
  Ids hwVrfIdToGlobalVrfIds() const;  // a copy, in order

  std::uint32_t globalVrfIdToHwVrfId(std::uint32_t globalVrfId) const;
  bool globalVrfIdToHwVrfIdHas(std::uint32_t globalVrfId) const { return globalToHw_.contains(globalVrfId); }
  void globalVrfIdToHwVrfIdIs(std::uint32_t globalVrfId, std::uint32_t hwVrfId);
  std::uint32_t globalVrfIdToHwVrfIdDel(std::uint32_t globalVrfId);
  void globalVrfIdToHwVrfIdDelAll();
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

// The tries of cached FIB routes by hardware VRF id, one map for each family. Looked up for every route, so hashed.
class VrfCachedRoute final : public Lattis::Entity {
 public:
  static constexpr const char* typeName = "RouteCache::VrfCachedRoute";
  class Reactor : public Lattis::ReactorOf<VrfCachedRoute> {
   public:
    using ReactorOf::ReactorOf;
    virtual void handleVrfTrie(std::uint32_t /*hwVrfId*/) {}  // added, replaced by another object, or removed
    virtual void handleVrfTrie6(std::uint32_t /*hwVrfId*/) {}
  };

  using Entity::Entity;
  // Null when there is none.
  std::shared_ptr<Routing::Trie> vrfTrie(std::uint32_t hwVrfId) const;
  void vrfTrieIs(std::uint32_t hwVrfId, std::shared_ptr<Routing::Trie> trie);
  void vrfTrieDel(std::uint32_t hwVrfId);
  void vrfTrieDelAll();
  std::map<std::uint32_t, std::shared_ptr<Routing::Trie>> vrfTries() const;  // a copy, in order

  std::shared_ptr<Routing6::Trie> vrfTrie6(std::uint32_t hwVrfId) const;
  void vrfTrie6Is(std::uint32_t hwVrfId, std::shared_ptr<Routing6::Trie> trie);
  void vrfTrie6Del(std::uint32_t hwVrfId);
  void vrfTrie6DelAll();
  std::map<std::uint32_t, std::shared_ptr<Routing6::Trie>> vrfTries6() const;

  const Lattis::EntityType& entityType() const override;

 private:
  template <class T>
  using Tries = std::unordered_map<std::uint32_t, std::shared_ptr<T>>;
  using Handler = void (Reactor::*)(std::uint32_t);
  template <class T>
  void set(Tries<T>& tries, std::uint32_t hwVrfId, std::shared_ptr<T> trie, Handler handler);
  template <class T>
  void remove(Tries<T>& tries, std::uint32_t hwVrfId, Handler handler);
  template <class T>
  void removeAll(Tries<T>& tries, Handler handler);
  Tries<Routing::Trie> tries_;
  Tries<Routing6::Trie> tries6_;
};
std::shared_ptr<VrfCachedRoute> vrfCachedRouteFactory(const std::string& name);

// --- Kept by the state machines --------------------------------------------------------------------------------------

// The adjacency identifiers that use one remote tunnel end point. Shared by pointer.
class AdjIdColl {
 public:
  const std::set<AdjId>& adjIdColl() const { return ids_; }
  void adjIdCollIs(AdjId adjId) { ids_.insert(adjId); }
  void adjIdCollDel(AdjId adjId) { ids_.erase(adjId); }
  void adjIdCollDelAll() { ids_.clear(); }
  bool empty() const { return ids_.empty(); }

 private:
  std::set<AdjId> ids_;
};

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

// One VRF's counters for the summary display.
struct VrfSummary {
  explicit VrfSummary(std::uint32_t id) : vrfId(id) {}
  std::uint32_t vrfId;  // the platform's
  std::uint32_t ipv4ConfigRoutes = 0;
  std::uint32_t ipv4SfeRoutes = 0;
  std::uint32_t ipv4HwRoutes = 0;
  std::uint32_t ipv4Unprogrammed = 0;
  std::uint32_t ipv6ConfigRoutes = 0;
  std::uint32_t ipv6SfeRoutes = 0;
  std::uint32_t ipv6HwRoutes = 0;
  std::uint32_t ipv6Unprogrammed = 0;
};

}  // namespace RouteCache
