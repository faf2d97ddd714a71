// How published routes become routes of a kernel, where the tables do not say it.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>

#include "platform/values/Net.h"

namespace Netlink {

// VNIs of routes over a VLAN of a tunnel interface; the empty interface: of any.
using TunnelVnis = std::map<std::pair<IntfId, Bridging::ExtendedVlanId>, std::uint32_t>;

struct MirrorSettings {
  // The kernel's table of a VRF: the one named here under its hardware id, or else tableBase + that id.
  std::map<std::uint32_t, std::uint32_t> tables;
  std::optional<std::uint32_t> tableBase;
  TunnelVnis vnis;  // as far as they are known from the start
  std::string
      device;  // VXLAN device of all next hops; empty: the one that is called as the next hop's tunnel interface
  std::uint32_t metric = 20;
  double compareInterval = 300;  // seconds
  std::string routePath;         // of the IPv4 routes
  std::string route6Path;

  // Nothing: no table of the kernel is the VRF's alone.
  std::optional<std::uint32_t> tableOf(std::uint32_t hwVrfId) const {
    if (const auto named = tables.find(hwVrfId); named != tables.end()) return named->second;
    const std::uint64_t table = std::uint64_t{tableBase.value_or(0)} + hwVrfId;
    if (!tableBase || !isUsable(table) || isNamed(table)) return std::nullopt;
    return static_cast<std::uint32_t>(table);
  }
  // Nothing: it is no VRF's.
  std::optional<std::uint32_t> hwVrfIdOf(std::uint32_t table) const {
    for (const auto& [hwVrfId, named] : tables) {
      if (named == table) return hwVrfId;
    }
    if (!tableBase || table < *tableBase || tables.contains(table - *tableBase) || !isUsable(table))
      return std::nullopt;
    return table - *tableBase;
  }
  // 0 is no table, and 255 the kernel's own, of this machine's addresses.
  static bool isUsable(std::uint64_t table) { return table != 0 && table != 255 && table <= 0xFFFFFFFF; }

 private:
  bool isNamed(std::uint64_t table) const {
    for (const auto& named : tables) {
      if (named.second == table) return true;
    }
    return false;
  }
};

}  // namespace Netlink
