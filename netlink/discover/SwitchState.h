// A machine's survey in the form of a switch's state database.
//
//   VRF                    name       VRF id    hardware id   kernel's table
//   the machine's own      default    1         0             main (254)
//   a VRF device           its name   the table's number, all three
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "netlink/discover/Survey.h"
#include "platform/state/Entity.h"

namespace Netlink {

struct DiscoverSettings {
  std::map<std::string, std::uint32_t> vrfTables;  // VRFs that the kernel has no device for
  // Of external devices, beside what their bridge says; the bridge counts.
  BridgePort::VlanToVni vnis;
  // Of tunnels of devices that have no local address; empty: what the loopback has.
  IpAddr source4;
  Ip6Addr source6;
};

// What a VXLAN device with one VNI has for a VLAN where its bridge knows of none.
inline constexpr Bridging::ExtendedVlanId onlyVlan = 1;
inline constexpr std::uint32_t defaultVrfId = 1;

using StateEntities = std::map<std::string, std::shared_ptr<Lattis::Entity>>;

// Not one of the kernel's own, nor the default VRF's number.
bool isVrfTable(std::uint32_t table);

// Entities by mount path: all of them, whatever there is. What cannot stand in a switch's state (an interface whose
// name has over 8 bytes, two VRFs with one table) is left out, and told in a line.
StateEntities switchState(const Survey& survey, const DiscoverSettings& settings,
                          const std::function<void(const std::string& line)>& tell);

// --- What is to be changed -------------------------------------------------------------------------------------------

// Fields as lib/statedb/EntityFields.h has them, in the order of a walk.
struct StateField {
  std::string field;
  std::optional<std::string> value;  // nothing: a child entity, whose fields follow
};
struct StateChange {
  std::string field;
  bool isDeleted = false;
  std::optional<std::string> value;
};
// What makes `held`, as it stands at a path, into `wanted`: what is deleted first.
std::vector<StateChange> differences(const std::shared_ptr<Lattis::Entity>& wanted,
                                     const std::vector<StateField>& held);

}  // namespace Netlink
