#include "lib/statedb/PlatformTypes.h"

#include "platform/state/Hardware.h"
#include "platform/state/Nexthop.h"
#include "platform/state/Vrf.h"
#include "platform/state/Vxlan.h"
#include "platform/tables/Fib.h"
#include "platform/tables/Rib.h"
#include "platform/values/Paths.h"

namespace LinuxPlatform {

void addPlatformTypes(Lattis::EntityTypes& entities, Platform::TableTypes& tables) {
  entities.typeIs<Routing::Hardware::Status>("Routing::Hardware::Status");
  entities.typeIs<Routing::Hardware::RouteStatus>("Routing::Hardware::RouteStatus");
  entities.typeIs<Vrf::VrfIdMap::NameToIdMapWrapper>("Vrf::VrfIdMap::NameToIdMapWrapper");
  entities.typeIs<Routing::NexthopConfig>("Routing::NexthopConfig");
  entities.typeIs<Routing::NexthopStatus>("Routing::NexthopStatus");
  entities.typeIs<Routing::UnderlayRouteConfig>("Routing::UnderlayRouteConfig");
  entities.typeIs<Vxlan::VtiStatusDir>("Vxlan::VtiStatusDir");

  tables.typeIs<Routing::Rib::RouteConfig>();
  tables.typeIs<Routing::Rib::RouteCache::Evpn::ViaConfig>();
  tables.typeIs<Pondra::Fib::RouteStatus>();
  tables.typeIs<Pondra::Fib6::RouteStatus>();
}

PathTypes platformPathTypes() {
  return {{Paths::hwRouteStatus, "Routing::Hardware::RouteStatus"},
          {Paths::hwStatus, "Routing::Hardware::Status"},
          {Paths::vrfNames, "Vrf::VrfIdMap::NameToIdMapWrapper"},
          {Paths::nexthopConfig, "Routing::NexthopConfig"},
          {Paths::nexthopStatus, "Routing::NexthopStatus"},
          {Paths::underlayRoutes, "Routing::UnderlayRouteConfig"},
          {Paths::vtiStatusDir, "Vxlan::VtiStatusDir"}};
}

}  // namespace LinuxPlatform
