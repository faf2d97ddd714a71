#include "RouteCache/model/Config.h"

#include <utility>

namespace RouteCache {

using Lattis::attributeField;
using Lattis::readOnlyField;

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

}  // namespace RouteCache
