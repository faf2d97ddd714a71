// What PipelineBench loads: the routes and vias, and the switch that they are for.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "simulator/routing/RibWriter.h"

namespace Bench {

struct Workload {
  static constexpr std::uint32_t vni = 10010;  // of every next hop
  // Of the VRFs, whose pi ids count from 1.
  static std::uint32_t hwVrfId(std::uint32_t piVrfId) { return 1000 + piVrfId; }
  static std::string vrfName(std::uint32_t piVrfId) { return "vrf-" + std::to_string(piVrfId); }

  std::uint32_t routes = 1'000'000;
  std::uint32_t vrfs = 64;
  std::uint32_t vteps = 10'000;
  std::uint32_t nexthopSets = 20'000;
  std::uint32_t paths = 2;  // next hops of each set

  // The options by which another process of this program makes the same workload.
  std::vector<std::string> options() const;
  // The switch as a scenario: its VRFs, one tunnel interface, underlay routes to all VTEPs, tables that hold it all.
  std::string scenario() const;
  // Prefixes with the length mix of the Internet's IPv4 table; the n-th goes to the n-th VRF and takes the n-th
  // next-hop set, both in turn.
  Tools::RibChange rib() const;
  // The same of so many prefixes for one VRF alone, others for another seed.
  Tools::RibChange ribOf(std::uint32_t piVrfId, std::uint32_t count, std::uint64_t seed) const;

 private:
  Tools::RibChange ribOf(const std::vector<IpGenPrefix>& prefixes, std::uint32_t firstVrf,
                         std::uint32_t vrfCount) const;
};

}  // namespace Bench
