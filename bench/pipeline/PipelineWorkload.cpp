#include "bench/pipeline/PipelineWorkload.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "simulator/input/PrefixList.h"
#include "simulator/routing/NexthopSets.h"

namespace Bench {

std::vector<std::string> Workload::options() const {
  return {"--routes", std::to_string(routes), "--vrfs",         std::to_string(vrfs),
          "--vteps",  std::to_string(vteps),  "--nexthop-sets", std::to_string(nexthopSets),
          "--paths",  std::to_string(paths)};
}

std::string Workload::scenario() const {
  nlohmann::json scenario = {
      {"routing/hardware/status", {{"hwRouteCachingEnabled", false}}},
      {"routecache/capability",
       {{"hwRouteTableSize", routes + routes / 8},
        {"sfeRouteTableSize", 1024},
        {"adjacencyTableSize", nexthopSets + nexthopSets / 8}}},
      {"interface/status/eth/vxlan",
       {{"vtiStatus",
         {{"Vxlan1", {{"operStatus", "up"}, {"ipv4Addr", "192.0.2.1"}, {"extendedVlanToVniMap", {{"10", vni}}}}}}}}}};
  for (std::uint32_t vrf = 1; vrf <= vrfs; ++vrf) {
    const std::string name = vrfName(vrf);
    scenario["vrf/vrfNameStatus"]["nameToId"][name] = vrf;
    scenario["routing/hardware/route/status"]["vrfStatus"][name]["hwVrfId"] = hwVrfId(vrf);
  }
  for (std::uint32_t net = 0; net < 256; ++net) {
    scenario["routing/underlay/route"]["route"]["10." + std::to_string(net) + ".0.0/16"] = net + 1;
  }
  return scenario.dump();
}

Tools::RibChange Workload::rib() const {
  return ribOf(Tools::generatePrefixes(routes, 1), 1, vrfs);
}

Tools::RibChange Workload::ribOf(std::uint32_t piVrfId, std::uint32_t count, std::uint64_t seed) const {
  return ribOf(Tools::generatePrefixes(count, seed), piVrfId, 1);
}

Tools::RibChange Workload::ribOf(const std::vector<IpGenPrefix>& prefixes, std::uint32_t firstVrf,
                                 std::uint32_t vrfCount) const {
  const Tools::TunnelOptions tunnel{IntfId("Vxlan1"), 0, Vxlan::Vni(vni)};
  const Tools::NexthopSets sets({IpGenAddr(IpAddr(0x0a010001)), vteps, paths, nexthopSets, tunnel});
  Tools::RibChange change;
  for (std::uint32_t set = 0; set < sets.size(); ++set) change.vias.push_back(sets.via(set));
  change.routes.reserve(prefixes.size());
  for (std::size_t i = 0; i < prefixes.size(); ++i) {
    const auto vrfId = static_cast<std::uint32_t>(firstVrf + i % vrfCount);
    change.routes.emplace_back(Routing::Rib::RouteKey(vrfId, prefixes[i]), change.vias[i % sets.size()].key());
  }
  std::ranges::sort(change.routes, {}, &Routing::Rib::Route::key);
  return change;
}

}  // namespace Bench
