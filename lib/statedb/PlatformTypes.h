// The entity and table types that the platform itself brings along, and where they stand.
#pragma once

#include "lib/statedb/Scenario.h"
#include "platform/services/AgentBase.h"

namespace LinuxPlatform {

void addPlatformTypes(Lattis::EntityTypes& entities, Platform::TableTypes& tables);

// The platform's own mount paths and what a scenario may put there without naming a type.
PathTypes platformPathTypes();

}  // namespace LinuxPlatform
