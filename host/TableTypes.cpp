#include "host/TableTypes.h"

#include "RouteCache/RouteCache.h"
#include "lib/statedb/PlatformTypes.h"

namespace Tools {

Platform::TableTypes allTableTypes() {
  Lattis::EntityTypes entities;
  Platform::TableTypes tables;
  LinuxPlatform::addPlatformTypes(entities, tables);
  RouteCache::addTableTypes(tables);
  return tables;
}

}  // namespace Tools
