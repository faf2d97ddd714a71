// The entity and table types that the platform itself brings along, and where they stand.
#pragma once

#include "lib/statedb/Scenario.h"
#include "platform/services/AgentBase.h"

namespace LinuxPlatform {

void addPlatformTypes(Lattis::EntityTypes& entities, Platform::TableTypes& tables);

// The platform's own mount paths and what a scenario may put there without naming a type.
PathTypes platformPathTypes();

// Where the launcher's own parts find their entities.
inline constexpr const char* nexthopConfigPath = "l3/nexthop-resolver/config/routeCache";
inline constexpr const char* nexthopStatusPath = "l3/nexthop-resolver/status/routeCache";
inline constexpr const char* underlayRoutePath = "routing/underlay/route";

}  // namespace LinuxPlatform
