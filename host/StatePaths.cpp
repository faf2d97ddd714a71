#include "host/StatePaths.h"

#include "lib/statedb/PlatformTypes.h"
#include "platform/values/Paths.h"

namespace Tools {

LinuxPlatform::PathTypes allPathTypes() {
  LinuxPlatform::PathTypes types = LinuxPlatform::platformPathTypes();
  types[Paths::config] = "RouteCache::Config";
  types[Paths::cliConfig] = "RouteCache::CliConfig";
  types[Paths::capability] = "RouteCache::Capability";
  return types;
}

std::set<std::string, std::less<>> derivedPaths() {
  return {Paths::nexthopConfig, Paths::nexthopStatus};
}

}  // namespace Tools
