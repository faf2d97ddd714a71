#include "netlink/discover/SwitchState.h"

#include <iterator>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "lib/statedb/EntityFields.h"
#include "platform/state/Hardware.h"
#include "platform/state/Nexthop.h"
#include "platform/state/Vrf.h"
#include "platform/state/Vxlan.h"
#include "platform/tables/Fib.h"
#include "platform/values/Paths.h"
#include "platform/values/Printable.h"

namespace Netlink {

namespace {

constexpr const char* defaultVrf = "default";
using Tell = std::function<void(const std::string& line)>;

// By table: the options' names count.
std::map<std::uint32_t, std::string> vrfsOf(const Survey& survey, const DiscoverSettings& settings, const Tell& tell) {
  std::map<std::uint32_t, std::string> vrfs;
  const auto add = [&](const std::string& name, std::uint32_t table) {
    const std::string vrf = "VRF " + Platform::printable(name) + " is left out: ";
    if (name == defaultVrf) return tell(vrf + "this is the name of the machine's own");
    if (!isVrfTable(table)) return tell(vrf + "its table " + std::to_string(table) + " is no VRF's");
    const auto [other, isNew] = vrfs.emplace(table, name);
    if (!isNew && other->second != name) {
      tell(vrf + "its table " + std::to_string(table) + " is that of " + Platform::printable(other->second));
    }
  };
  for (const auto& [name, table] : settings.vrfTables) add(name, table);
  for (const auto& [name, table] : survey.vrfTables) {
    if (!settings.vrfTables.contains(name)) add(name, table);
  }
  return vrfs;
}

void addVrfs(StateEntities& entities, const std::map<std::uint32_t, std::string>& vrfs) {
  auto names = std::make_shared<Vrf::VrfIdMap::NameToIdMapWrapper>("");
  auto hardware = std::make_shared<Routing::Hardware::RouteStatus>("");
  names->nameToIdIs(defaultVrf, defaultVrfId);
  hardware->vrfStatusIs(L3::VrfName(defaultVrf));
  for (const auto& [table, name] : vrfs) {
    names->nameToIdIs(name, table);
    hardware->vrfStatusIs(L3::VrfName(name))->hwVrfIdIs(table);
  }
  entities[Paths::vrfNames] = std::move(names);
  entities[Paths::hwRouteStatus] = std::move(hardware);
}

BridgePort::VlanToVni vnisOf(const TunnelDevice& device, const DiscoverSettings& settings) {
  if (device.vxlan.vni) {
    return {{device.untaggedVlan == 0 ? onlyVlan : device.untaggedVlan, *device.vxlan.vni}};
  }
  BridgePort::VlanToVni vnis = device.tunnels;
  vnis.insert(settings.vnis.begin(), settings.vnis.end());
  return vnis;
}

// The first of these that is an address.
template <class Address>
Address firstOf(const Address& said, const Address& option, const Address& loopback) {
  if (!said.isZero()) return said;
  return option.isZero() ? loopback : option;
}

void addTunnels(StateEntities& entities, const Survey& survey, const DiscoverSettings& settings, const Tell& tell) {
  auto tunnels = std::make_shared<Vxlan::VtiStatusDir>("");
  for (const auto& [name, device] : survey.tunnels) {
    std::optional<IntfId> intfId;
    try {
      intfId = IntfId(name);
    } catch (const RangeError&) {
      tell("VXLAN device " + Platform::printable(name) + " is left out: a tunnel interface's name has 8 bytes at most");
      continue;
    }
    const auto vti = tunnels->vtiStatusIs(*intfId);
    vti->operStatusIs(device.isRunning ? Vxlan::OperStatus::up : Vxlan::OperStatus::down);
    vti->ipv4AddrIs(firstOf(device.vxlan.local4, settings.source4, survey.loopback4));
    vti->ipv6AddrIs(firstOf(device.vxlan.local6, settings.source6, survey.loopback6));
    for (const auto& [vlan, vni] : vnisOf(device, settings)) vti->extendedVlanToVniMapIs(vlan, vni);
  }
  entities[Paths::vtiStatusDir] = std::move(tunnels);
}

void addUnderlay(StateEntities& entities, const Survey& survey) {
  auto routes = std::make_shared<Routing::UnderlayRouteConfig>("");
  for (const auto& [prefix, nexthops] : survey.underlay) {
    using Pondra::Fib::AdjType;
    const AdjType type = prefix.isV4() ? AdjType::ipv4NexthopAdj_ : AdjType::ipv6NexthopAdj_;
    routes->routeIs(prefix, Fib::FecId(type, nexthops));
  }
  entities[Paths::underlayRoutes] = std::move(routes);
}

}  // namespace

bool isVrfTable(std::uint32_t table) {
  constexpr std::uint32_t compat = 252;
  constexpr std::uint32_t local = 255;
  return table > defaultVrfId && (table < compat || table > local);
}

StateEntities switchState(const Survey& survey, const DiscoverSettings& settings, const Tell& tell) {
  StateEntities entities;
  addVrfs(entities, vrfsOf(survey, settings, tell));
  addTunnels(entities, survey, settings, tell);
  addUnderlay(entities, survey);
  return entities;
}

std::vector<StateChange> differences(const std::shared_ptr<Lattis::Entity>& wanted,
                                     const std::vector<StateField>& held) {
  std::unordered_map<std::string, const StateField*> heldFields;
  for (const StateField& field : held) heldFields.emplace(field.field, &field);
  std::unordered_set<std::string> wantedFields;
  std::vector<StateChange> set;
  LinuxPlatform::FieldWalk walk(wanted, "");
  while (auto item = walk.next()) {
    const auto there = heldFields.find(item->field);
    wantedFields.insert(item->field);
    if (there == heldFields.end() || there->second->value != item->value) {
      set.push_back({std::move(item->field), false, std::move(item->value)});
    }
  }
  std::vector<StateChange> changes;
  std::string gone;  // the child that was deleted last, and a dot: its fields go with it
  for (const StateField& field : held) {
    if (wantedFields.contains(field.field) || (!gone.empty() && field.field.starts_with(gone))) continue;
    changes.push_back({field.field, true, {}});
    if (!field.value) gone = field.field + ".";
  }
  changes.insert(changes.end(), std::make_move_iterator(set.begin()), std::make_move_iterator(set.end()));
  return changes;
}

}  // namespace Netlink
