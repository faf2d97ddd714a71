// What stands where in the state database of a switch that runs the agent.
#pragma once

#include <cstddef>
#include <set>
#include <string>

#include "lib/statedb/Scenario.h"

namespace Tools {

inline constexpr std::size_t mostScenarioBytes = 256 * 1024 * 1024;  // some millions of entries

LinuxPlatform::PathTypes allPathTypes();

// What one process makes anew at each start, of what others say: the agent its requests to the resolver, the resolver
// the answers. Nobody keeps it.
std::set<std::string, std::less<>> derivedPaths();

}  // namespace Tools
