#include "tools/Common.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdlib>
#include <iostream>
#include <nlohmann/json.hpp>

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

std::vector<IpGenPrefix> prefixesOf(const std::vector<std::string>& texts) {
  std::vector<IpGenPrefix> prefixes;
  for (const std::string& text : texts) {
    prefixes.push_back(Platform::fromText<IpGenPrefix>(text));
    if (prefixes.back().isEmpty()) throw Platform::BadText("'' is not an IP prefix");
  }
  return prefixes;
}

std::string counted(std::size_t count, const std::string& what) {
  return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

void tell(bool json, const nlohmann::ordered_json& summary, const std::string& text) {
  std::cout << (json ? summary.dump() : text) << std::endl;
}

}  // namespace Tools
