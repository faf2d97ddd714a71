// Which VRF a message's route is of. A suite says a kernel's table; one that keeps each VRF in a network namespace of
// its own says the same table for all of them, and then the VNI tells them apart: a VRF's tunnels all have its own.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>

#include "netlink/fpm/FpmMessages.h"

namespace Netlink {

// Platform VRF ids, by what a message says.
struct RouteVrfs {
  std::map<std::uint32_t, std::uint32_t> byTable;
  std::map<std::uint32_t, std::uint32_t> byVni;  // whatever the table
  bool isTablesNumber = false;                   // a table that is not named is of the VRF with its number

  bool operator==(const RouteVrfs&) const = default;

  std::optional<std::uint32_t> ofTable(std::uint32_t table) const {
    const auto found = byTable.find(table);
    if (found != byTable.end()) return found->second;
    return isTablesNumber ? std::optional(table) : std::nullopt;
  }
  // Of a route that is there: by the VNI of its next hops, if that is named, or else by its table.
  std::optional<std::uint32_t> of(const FpmRoute& route) const {
    if (byVni.empty() || route.nexthops.empty() || !route.nexthops.front().vni.isPresent()) return ofTable(route.table);
    const auto found = byVni.find(route.nexthops.front().vni.value());
    return found == byVni.end() ? ofTable(route.table) : std::optional(found->second);
  }
  // Whose a route of this table may be: a withdrawal has no VNI.
  std::set<std::uint32_t> candidates(std::uint32_t table) const {
    std::set<std::uint32_t> vrfs;
    for (const auto& [vni, vrf] : byVni) vrfs.insert(vrf);
    if (const auto vrf = ofTable(table)) vrfs.insert(*vrf);
    return vrfs;
  }
};

}  // namespace Netlink
