// What PipelineBench loads: the routes and vias, and the switch that they are for.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "simulator/routing/RibWriter.h"

namespace Bench {

struct Workload {
  static constexpr std::uint32_t vni = 10010;  // of every next hop
  static constexpr const char* tunnelInterface = "Vxlan1";
  // Of the VRFs, whose pi ids count from 1.
  static std::uint32_t hwVrfId(std::uint32_t piVrfId) { return 1000 + piVrfId; }
  static std::string vrfName(std::uint32_t piVrfId) { return "vrf-" + std::to_string(piVrfId); }

  std::uint32_t routes = 1'000'000;
  std::uint32_t vrfs = 64;
  std::uint32_t vteps = 10'000;
  std::uint32_t nexthopSets = 20'000;
  std::uint32_t paths = 2;  // next hops of each set
  bool caching = false;     // hardware route caching, of all routes
  std::string prefixFile;   // whose prefixes the VRFs have; empty: generated ones

  // The same with so many routes, and next-hop sets in proportion.
  Workload scaledTo(std::uint32_t count) const;
  // The options by which another process of this program makes the same switch.
  std::vector<std::string> options() const;
  // The switch as a scenario: its VRFs, one tunnel interface, underlay routes to all VTEPs, tables that hold it all and
  // an eighth more; with caching it is a quarter, so that the hardware's table does not become scarce.
  std::string scenario() const;
  std::uint32_t capacity() const { return routes + routes / (caching ? 4 : 8) + spare; }

  // Every tenth route is the first VRF's; the others go to the other VRFs in turn. They take the next-hop sets in turn.
  // Generated prefixes have the length mix of the Internet's IPv4 table, and none is there twice. Those of a file are
  // taken again and again, each VRF beginning at another place. Throws RangeError when it has too few for the first
  // VRF.
  Tools::RibChange rib() const;
  std::uint32_t routesOfFirstVrf() const { return vrfs == 1 ? routes : (routes + 9) / 10; }
  std::uint32_t adjacencies() const { return routes < nexthopSets ? routes : nexthopSets; }
  // Generated ones for one VRF alone, others for another seed.
  Tools::RibChange ribOf(std::uint32_t piVrfId, std::uint32_t count, std::uint64_t seed) const;

 private:
  static constexpr std::uint32_t spare = 1024;

  std::uint32_t vrfOf(std::uint32_t route) const;
  std::vector<IpGenPrefix> prefixes() const;
};

}  // namespace Bench
