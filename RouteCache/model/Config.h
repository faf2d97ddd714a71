#pragma once

#include <cstdint>

#include "platform/state/Entity.h"

namespace RouteCache {

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

}  // namespace RouteCache
