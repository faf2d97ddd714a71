#include "host/VirtualSwitch.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <system_error>
#include <utility>

#include "host/Progress.h"
#include "host/TableTypes.h"
#include "lib/statedb/EntityFields.h"
#include "platform/state/Hardware.h"
#include "platform/state/Vrf.h"
#include "platform/state/Vxlan.h"
#include "platform/values/Paths.h"
#include "simulator/input/PrefixList.h"
#include "simulator/routing/FibWriter.h"
#include "simulator/routing/NexthopSets.h"
#include "simulator/routing/RibWriter.h"

namespace Tools {

using Platform::BadText;

namespace {

constexpr std::uint32_t vteps = 64;
// A task of the agent gives way after as many entries as it would in a time slice of some milliseconds.
constexpr std::uint64_t entriesPerSlice = 4096;

AgentHostSettings hostSettings(const VirtualSwitchSettings& settings, const std::string& runDir) {
  AgentHostSettings host;
  host.scenario = settings.scenario;
  host.runDir = runDir;
  host.agentLibrary = settings.agentLibrary;
  host.traceFile = false;
  return host;
}

template <class T>
std::shared_ptr<T> entityAt(const Lattis::StateDb& stateDb, const char* path) {
  return std::dynamic_pointer_cast<T>(stateDb.entity(path));
}

struct CompleteVrf {
  L3::VrfName name;
  std::uint32_t piVrfId = 0;
};

// The VRFs that the platform and the hardware know, in the order of their names.
std::vector<CompleteVrf> completeVrfs(const Lattis::StateDb& stateDb) {
  std::vector<CompleteVrf> vrfs;
  const auto names = entityAt<Vrf::VrfIdMap::NameToIdMap>(stateDb, Paths::vrfNames);
  const auto hardware = entityAt<Routing::Hardware::RouteStatus>(stateDb, Paths::hwRouteStatus);
  if (!names || !hardware) return vrfs;
  for (const auto& [text, piVrfId] : names->nameToId()) {
    const L3::VrfName name(text);
    const auto status = hardware->vrfStatus(name);
    if (status && (status->hwVrfId() != 0 || name.isDefault())) vrfs.push_back({name, piVrfId});
  }
  return vrfs;
}

// Through the first tunnel interface that is up, into its first VLAN.
TunnelOptions tunnelOf(const Lattis::StateDb& stateDb) {
  if (const auto directory = entityAt<Vxlan::VtiStatusDir>(stateDb, Paths::vtiStatusDir)) {
    for (const auto& [intfId, status] : directory->vtiStatus()) {
      if (status->operStatus() != Vxlan::OperStatus::up || status->extendedVlanToVniMap().empty()) continue;
      return {intfId, status->extendedVlanToVniMap().begin()->first, Vxlan::Vni()};
    }
  }
  throw BadText("--scenario: it has no tunnel interface that is up and has a VLAN");
}

RibChange ribChange(const std::vector<IpGenPrefix>& hosts, const std::vector<CompleteVrf>& vrfs,
                    const TunnelOptions& tunnel) {
  const NexthopSets sets({Platform::fromText<IpGenAddr>("10.255.0.1"), vteps, 1, 0, tunnel});
  RibChange change;
  for (std::uint32_t set = 0; set < sets.size(); ++set) change.vias.push_back(sets.via(set));
  change.routes.reserve(hosts.size());
  for (std::size_t i = 0; i < hosts.size(); ++i) {
    const Routing::Rib::RouteKey key(vrfs[i % vrfs.size()].piVrfId, hosts[i]);
    change.routes.emplace_back(key, change.vias[i / vrfs.size() % change.vias.size()].key());
  }
  std::ranges::sort(change.routes, {}, &Routing::Rib::Route::key);
  return change;
}

}  // namespace

VirtualSwitch::Directory::Directory() {
  std::string pattern = (std::filesystem::temp_directory_path() / "routecache-simulate-XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) throw std::system_error(errno, std::generic_category(), pattern);
  path_ = pattern;
}

VirtualSwitch::Directory::~Directory() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

VirtualSwitch::VirtualSwitch(const VirtualSwitchSettings& settings)
    : types_(allTableTypes()),
      host_(hostSettings(settings, directory_.path()), scheduler_),
      planeTables_(directory_.path(), types_) {
  const auto status = entityAt<Routing::Hardware::Status>(host_.stateDb(), Paths::hwStatus);
  if (!status || !status->hwRouteCachingEnabled()) {
    throw BadText("--scenario: hardware route caching is off in it (hwRouteCachingEnabled)");
  }
  host_.openTables({});
  writeInputs(settings);
  scheduler_.yieldAfterEntriesIs(entriesPerSlice);
  scheduler_.afterRunIs([this] {
    if (!ready_) return;
    deliver(host_.tables());
    deliver(planeTables_);
  });
  host_.start([this, sets = settings.sets] {
    ready_ = true;
    for (const auto& what : sets) set(what);
  });
  scheduler_.runDue();
}

VirtualSwitch::~VirtualSwitch() {
  host_.stop();
}

void VirtualSwitch::writeInputs(const VirtualSwitchSettings& settings) {
  const IpGenPrefix& within = settings.within;
  if (!within.isV4()) throw BadText("--within: '" + Platform::toText(within) + "' is not an IPv4 prefix");
  const auto vrfs = completeVrfs(host_.stateDb());
  if (vrfs.empty()) throw BadText("--scenario: it has no complete VRF");
  const RibChange change =
      ribChange(generateHosts(settings.routes, within, settings.seed), vrfs, tunnelOf(host_.stateDb()));

  LinuxPlatform::SharedTableService tables(directory_.path(), types_);
  Progress progress("entries written");
  const auto step = [&progress] { progress.step(); };
  RibWriter(tables, step).apply(change);
  std::vector<L3::VrfName> names;
  names.reserve(vrfs.size());
  for (const auto& vrf : vrfs) names.push_back(vrf.name);
  FibWriter(tables, names, step).apply({within}, std::nullopt);
}

void VirtualSwitch::set(const VirtualSwitchSettings::Set& what) {
  const auto& [path, field, value] = what;
  try {
    host_.stateDb().fieldIs(path, field, value);
  } catch (const std::exception& error) {
    throw BadText("--set " + path + " " + field + ": " + error.what());
  }
}

void VirtualSwitch::deliver(LinuxPlatform::SharedTableService& tables) const {
  if (tablesMayAppear_) tables.pendingChanges();
  tables.deliverChanges([] { return false; });
}

void VirtualSwitch::tablesAreComplete() {
  scheduler_.runDue();
  tablesMayAppear_ = false;
}

SwitchVrfs VirtualSwitch::vrfs() {
  return SwitchVrfs([this](const std::string& path, const SwitchVrfs::Field& field) {
    const auto entity = host_.stateDb().entity(path);
    if (!entity) return;
    LinuxPlatform::FieldWalk walk(entity, "");
    while (const auto item = walk.next()) {
      if (item->value) field(item->field, *item->value);
    }
  });
}

}  // namespace Tools
