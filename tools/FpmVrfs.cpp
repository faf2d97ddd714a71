#include "tools/FpmVrfs.h"

#include <cstdio>
#include <utility>

#include "lib/statedb/EntityFields.h"
#include "platform/values/Paths.h"
#include "tools/commandline/Common.h"

namespace Tools {

namespace {

using Platform::BadText;

constexpr double askInterval = 2;  // seconds

}  // namespace

FpmVrfs::FpmVrfs(LinuxPlatform::EventLoop& loop, const std::vector<std::string>& namesWithTables,
                 Netlink::RouteVrfs others, std::string runDir, StateDbOptions stateDb,
                 std::function<void(const Netlink::RouteVrfs&)> take)
    : others_(std::move(others)), runDir_(std::move(runDir)), stateDb_(std::move(stateDb)), take_(std::move(take)) {
  for (const auto& text : namesWithTables) {
    const auto [name, table] = namedNumber("--vrf", text);
    for (const auto& [otherName, otherTable] : tables_) {
      if (otherTable == table) throw BadText("--vrf: two VRFs in table " + std::to_string(table));
    }
    if (!tables_.emplace(name, table).second) throw BadText("--vrf: " + Platform::printable(name) + " twice");
    if (others_.byTable.contains(table)) throw BadText("--vrf: table " + std::to_string(table) + " is another VRF's");
  }
  askingTask_ = loop.taskIs("fpmVrfsTask", Platform::TaskPriority::background, [this] { handleAsking(); });
  if (tables_.empty()) {
    take_(others_);
  } else {
    askingTask_->scheduleWithin(0);
  }
}

void FpmVrfs::handleAsking() {
  askingTask_->scheduleWithin(askInterval);
  std::string fault;
  try {
    ask();
    take_(all());
  } catch (const std::runtime_error& error) {
    fault = error.what();
  }
  if (fault != fault_) std::fprintf(stderr, "fpm: %s\n", fault.empty() ? "names are known again" : fault.c_str());
  fault_ = fault;
}

void FpmVrfs::ask() {
  stateAccess(runDir_, stateDb_)->fieldsOf(Paths::vrfNames, [this](const auto& field, const auto& value) {
    const auto steps = LinuxPlatform::parseField(field);
    const auto& name = steps.front().key;
    if (name && value && tables_.contains(*name)) ids_[*name] = Platform::fromText<std::uint32_t>(*value);
  });
}

Netlink::RouteVrfs FpmVrfs::all() const {
  auto vrfs = others_;
  for (const auto& [name, id] : ids_) vrfs.byTable[tables_.at(name)] = id;
  return vrfs;
}

}  // namespace Tools
