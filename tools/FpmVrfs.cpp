#include "tools/FpmVrfs.h"

#include <algorithm>
#include <cstdio>
#include <set>
#include <utility>

#include "lib/statedb/EntityFields.h"
#include "linux/control/ControlClient.h"
#include "platform/values/Paths.h"
#include "tools/commandline/Common.h"

namespace Tools {

namespace {

using Platform::BadText;

constexpr double askInterval = 2;  // seconds
constexpr double longestInterval = 16;

}  // namespace

FpmVrfs::FpmVrfs(LinuxPlatform::EventLoop& loop, const std::vector<std::string>& namesWithTables,
                 Netlink::RouteVrfs others, bool wantsHardwareIds, std::string runDir, StateDbOptions stateDb,
                 Take take)
    : others_(std::move(others)),
      runDir_(std::move(runDir)),
      stateDb_(std::move(stateDb)),
      wantsHardwareIds_(wantsHardwareIds),
      take_(std::move(take)) {
  for (const auto& text : namesWithTables) {
    const auto [name, table] = namedNumber("--vrf", text);
    for (const auto& [otherName, otherTable] : tables_) {
      if (otherTable == table) throw BadText("--vrf: two VRFs in table " + std::to_string(table));
    }
    if (!tables_.emplace(name, table).second) throw BadText("--vrf: " + Platform::printable(name) + " twice");
    if (others_.byTable.contains(table)) throw BadText("--vrf: table " + std::to_string(table) + " is another VRF's");
  }
  askingTask_ = loop.taskIs("fpmVrfsTask", Platform::TaskPriority::background, [this] { handleAsking(); });
  if (tables_.empty()) take_(others_, {});
  if (!tables_.empty() || wantsHardwareIds_) askingTask_->scheduleWithin(0);
}

void FpmVrfs::handleAsking() {
  std::string fault;
  try {
    ask();
    take_(all(), hardwareIds());
  } catch (const std::runtime_error& error) {
    fault = error.what();
  }
  if (fault != fault_) std::fprintf(stderr, "fpm: %s\n", fault.empty() ? "names are known again" : fault.c_str());
  fault_ = fault;
  // One that does not answer is not waited for all the time.
  interval_ = fault.empty() ? askInterval : std::min(2 * interval_, longestInterval);
  askingTask_->scheduleWithin(interval_);
}

void FpmVrfs::ask() {
  const auto access = stateAccess(runDir_, stateDb_, briefPatience);
  const auto read = [&](const char* path, std::map<std::string, std::uint32_t>& ids) {
    std::map<std::string, std::uint32_t> now;
    access->fieldsOf(path, [&](const auto& field, const auto& value) {
      const auto name = LinuxPlatform::parseField(field).front().key;
      if (name && value) now[*name] = Platform::fromText<std::uint32_t>(*value);
    });
    // Nobody else has taken its id.
    std::set<std::uint32_t> taken;
    for (const auto& [name, id] : now) taken.insert(id);
    for (const auto& [name, id] : ids) {
      if (!taken.contains(id)) now.emplace(name, id);
    }
    ids = std::move(now);
  };
  read(Paths::vrfNames, ids_);
  if (wantsHardwareIds_) read(Paths::hwRouteStatus, hardwareIds_);
}

Netlink::RouteVrfs FpmVrfs::all() const {
  auto vrfs = others_;
  for (const auto& [name, table] : tables_) {
    if (const auto id = ids_.find(name); id != ids_.end()) vrfs.byTable[table] = id->second;
  }
  return vrfs;
}

FpmVrfs::HardwareIds FpmVrfs::hardwareIds() const {
  HardwareIds hardwareIds;
  for (const auto& [name, id] : ids_) {
    if (const auto found = hardwareIds_.find(name); found != hardwareIds_.end()) hardwareIds[id] = found->second;
  }
  return hardwareIds;
}

}  // namespace Tools
