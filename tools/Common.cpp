#include "tools/Common.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdlib>

#include "RouteCache/RouteCacheTables.h"
#include "linux/PlatformTypes.h"

namespace Tools {

std::string defaultRunDir() {
  if (const char* given = std::getenv("ROUTECACHE_RUN_DIR"); given != nullptr && *given != '\0') return given;
  std::string system = "/run/routecache";
  if (::access(system.c_str(), F_OK) == 0 || ::access("/run", W_OK) == 0) return system;
  if (const char* own = std::getenv("XDG_RUNTIME_DIR"); own != nullptr && *own == '/') {
    return std::string(own) + "/routecache";
  }
  return "/tmp/routecache-" + std::to_string(::getuid());
}

void addRunDirOption(CLI::App& command, std::string& runDir) {
  runDir = defaultRunDir();
  command.add_option("--run-dir", runDir, "Directory of the shared tables and the control socket")
      ->type_name("DIR")
      ->capture_default_str();
}

Platform::TableTypes allTableTypes() {
  Lattis::EntityTypes entities;
  Platform::TableTypes tables;
  LinuxPlatform::addPlatformTypes(entities, tables);
  RouteCache::addTableTypes(tables);
  return tables;
}

}  // namespace Tools
