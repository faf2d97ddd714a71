#include "bench/pipeline/PipelineWorkload.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "linux/files/InputFile.h"
#include "simulator/input/PrefixList.h"
#include "simulator/routing/NexthopSets.h"

namespace Bench {

Workload Workload::scaledTo(std::uint32_t count) const {
  Workload scaled = *this;
  scaled.routes = count;
  scaled.nexthopSets = std::max(1U, static_cast<std::uint32_t>(std::uint64_t{nexthopSets} * count / routes));
  return scaled;
}

std::vector<std::string> Workload::options() const {
  std::vector<std::string> all{"--routes", std::to_string(routes), "--vrfs",         std::to_string(vrfs),
                               "--vteps",  std::to_string(vteps),  "--nexthop-sets", std::to_string(nexthopSets),
                               "--paths",  std::to_string(paths)};
  if (caching) all.emplace_back("--caching=on");
  return all;
}

std::string Workload::scenario() const {
  nlohmann::json scenario = {
      {"routing/hardware/status", {{"hwRouteCachingEnabled", caching}}},
      {"routecache/capability",
       {{"hwRouteTableSize", capacity()},
        {"sfeRouteTableSize", caching ? capacity() : spare},
        {"adjacencyTableSize", nexthopSets + nexthopSets / 8}}},
      {"interface/status/eth/vxlan",
       {{"vtiStatus",
         {{tunnelInterface,
           {{"operStatus", "up"}, {"ipv4Addr", "192.0.2.1"}, {"extendedVlanToVniMap", {{"10", vni}}}}}}}}}};
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

std::uint32_t Workload::vrfOf(std::uint32_t route) const {
  if (vrfs == 1 || route % 10 == 0) return 1;
  return 2 + (route - route / 10 - 1) % (vrfs - 1);
}

std::vector<IpGenPrefix> Workload::prefixes() const {
  if (prefixFile.empty()) return Tools::generatePrefixes(routes, 1);
  const auto file = LinuxPlatform::openInput(prefixFile);
  Tools::LineReader lines(prefixFile, file.get());
  auto list = Tools::readPrefixList(lines).prefixes;
  std::erase_if(list, [](const IpGenPrefix& prefix) { return !prefix.isV4(); });
  if (list.size() >= routesOfFirstVrf()) return list;
  throw RangeError(prefixFile + " has " + std::to_string(list.size()) + " IPv4 prefixes, fewer than the " +
                   std::to_string(routesOfFirstVrf()) + " routes of one VRF");
}

namespace {

// The vias first, then a route for each prefix.
class RibMaker {
 public:
  RibMaker(const Tools::NexthopSetOptions& options, std::size_t routes) {
    const Tools::NexthopSets sets(options);
    for (std::uint32_t set = 0; set < sets.size(); ++set) change_.vias.push_back(sets.via(set));
    change_.routes.reserve(routes);
  }
  void add(std::uint32_t piVrfId, const IpGenPrefix& prefix) {
    const auto via = change_.vias[change_.routes.size() % change_.vias.size()].key();
    change_.routes.emplace_back(Routing::Rib::RouteKey(piVrfId, prefix), via);
  }
  Tools::RibChange take() {
    std::ranges::sort(change_.routes, {}, &Routing::Rib::Route::key);
    return std::move(change_);
  }

 private:
  Tools::RibChange change_;
};

Tools::NexthopSetOptions nexthops(const Workload& workload) {
  const Tools::TunnelOptions tunnel{IntfId(Workload::tunnelInterface), 0, Vxlan::Vni(Workload::vni)};
  return {IpGenAddr(IpAddr(0x0a010001)), workload.vteps, workload.paths, workload.nexthopSets, tunnel};
}

}  // namespace

Tools::RibChange Workload::rib() const {
  const auto list = prefixes();
  RibMaker rib(nexthops(*this), routes);
  std::vector<std::uint32_t> taken(vrfs + 1);  // by each VRF
  for (std::uint32_t i = 0; i < routes; ++i) {
    const std::uint32_t vrf = vrfOf(i);
    const std::size_t from = prefixFile.empty() ? i : list.size() * (vrf - 1) / vrfs + taken[vrf]++;
    rib.add(vrf, list[from % list.size()]);
  }
  return rib.take();
}

Tools::RibChange Workload::ribOf(std::uint32_t piVrfId, std::uint32_t count, std::uint64_t seed) const {
  RibMaker rib(nexthops(*this), count);
  for (const IpGenPrefix& prefix : Tools::generatePrefixes(count, seed)) rib.add(piVrfId, prefix);
  return rib.take();
}

}  // namespace Bench
