// routecache rib: the routing process's side. It writes the configured routes and their vias, and leaves.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <limits>
#include <nlohmann/json.hpp>
#include <numeric>
#include <optional>
#include <set>

#include "host/Progress.h"
#include "host/TableTypes.h"
#include "linux/tables/SharedTableService.h"
#include "simulator/input/PrefixList.h"
#include "simulator/routing/NexthopSets.h"
#include "simulator/routing/RibWriter.h"
#include "tools/commandline/Commands.h"
#include "tools/commandline/Common.h"
#include "tools/commandline/OptionChecks.h"
#include "tools/commandline/PrefixSource.h"

namespace Tools {

namespace {

using Platform::BadText;
using Routing::Rib::Route;
using Routing::Rib::RouteKey;
using Routing::Rib::RouteCache::Evpn::Via;
using Routing::Rib::RouteCache::Evpn::ViaNexthop;

// Options as they are written; they become values when the command runs, so that all bad ones are told alike.
struct TunnelText {
  std::string vti = "Vxlan1";
  std::string vlan;
  std::string vni;
};

struct RibOptions {
  std::string runDir;
  bool json = false;
  // load
  PrefixSource source;
  std::string vrfs = "1";
  std::string vtepBase = "10.255.0.1";
  std::uint32_t vteps = 1;
  std::uint32_t paths = 1;
  std::uint32_t sets = 0;
  std::uint32_t capacity = 0;
  std::optional<std::uint64_t> viaBase;
  TunnelText tunnel;
  // add, del
  std::vector<std::string> prefixes;
  std::optional<std::uint32_t> vrf;
  std::vector<std::string> vtepList;
  std::optional<std::uint64_t> viaKey;
  bool all = false;
};

constexpr std::uint32_t maxVrfId = Routing::Rib::noVrfId - 1;

std::uint32_t checkedVrfId(const char* option, std::uint32_t vrfId) {
  if (vrfId <= maxVrfId) return vrfId;
  throw BadText(std::string(option) + ": a VRF id is at most " + std::to_string(maxVrfId));
}

// "1-64", "7", "1,5,10-12": ascending, each once.
std::vector<std::uint32_t> vrfIds(const std::string& text) {
  std::vector<std::uint32_t> ids;
  for (std::size_t begin = 0; begin <= text.size();) {
    const std::size_t end = std::min(text.find(',', begin), text.size());
    const std::string_view item = std::string_view(text).substr(begin, end - begin);
    const std::size_t dash = item.find('-');
    const auto first = checkedVrfId("--vrfs", optionValue<std::uint32_t>("--vrfs", item.substr(0, dash)));
    const auto last = dash == std::string_view::npos
                          ? first
                          : checkedVrfId("--vrfs", optionValue<std::uint32_t>("--vrfs", item.substr(dash + 1)));
    if (last < first) throw BadText("--vrfs: the range '" + std::string(item) + "' is empty");
    for (std::uint32_t id = first; id <= last; ++id) ids.push_back(id);
    begin = end + 1;
  }
  std::ranges::sort(ids);
  ids.erase(std::unique(ids.begin(), ids.end()), ids.end());
  return ids;
}

TunnelOptions tunnelOptions(const TunnelText& text) {
  TunnelOptions tunnel;
  tunnel.vti = optionValue<IntfId>("--vti", text.vti);
  if (tunnel.vti.isEmpty()) throw BadText("--vti: no interface");
  if (!text.vni.empty()) tunnel.vni = optionValue<Vxlan::Vni>("--vni", text.vni);
  if (!text.vlan.empty()) tunnel.extendedVlanId = optionValue<Bridging::ExtendedVlanId>("--vlan", text.vlan);
  if (tunnel.extendedVlanId == 0 && !tunnel.vni.isPresent()) tunnel.extendedVlanId = 1;
  return tunnel;
}

// Opens the tables of the run directory, does the work on them and tells what it came to.
template <class Work>
RibCounts withRib(const RibOptions& options, Work&& work) {
  const Platform::TableTypes types = allTableTypes();
  LinuxPlatform::SharedTableService tables(options.runDir, types);
  Progress progress("entries written");
  RibWriter rib(tables, [&progress] { progress.step(); });
  work(rib);
  return rib.counts();
}

// What a change did beyond what was asked for, as the rest of a sentence.
std::string sideEffects(const RibCounts& counts) {
  std::string text;
  if (counts.routesStood != 0) {
    text += "; " + std::to_string(counts.routesStood) + " of the routes stood already, " +
            std::to_string(counts.routesMoved) + " of them with another via";
  }
  if (counts.routesRewritten != 0) text += "; rewrote " + counted(counts.routesRewritten, "other route");
  if (counts.viasRemoved != 0) text += "; removed " + counted(counts.viasRemoved, "unused via");
  return text;
}

// --- load ------------------------------------------------------------------------------------------------------------

// The n-th prefix goes to the n-th VRF and takes the n-th via, both in turn. The vias shift by one each time the two
// turns come out even, so that every VRF meets every via.
std::vector<Route> spread(const std::vector<IpGenPrefix>& prefixes, const std::vector<std::uint32_t>& vrfs,
                          const std::vector<Via>& vias) {
  std::vector<Route> routes;
  const std::size_t period = std::lcm(vrfs.size(), std::max<std::size_t>(vias.size(), 1));
  routes.reserve(prefixes.size());
  for (std::size_t i = 0; i < prefixes.size(); ++i) {
    const std::size_t via = (i + i / period) % vias.size();
    routes.emplace_back(RouteKey(vrfs[i % vrfs.size()], prefixes[i]), vias[via].key());
  }
  std::ranges::sort(routes, {}, &Route::key);
  return routes;
}

// The first sets, as many as are needed, as vias: under the keys that --via-base names, whatever stands there; else
// under keys that change no via that other routes name.
std::vector<Via> viasFor(const NexthopSets& sets, std::size_t needed, const std::optional<std::uint64_t>& base,
                         const RibWriter& rib) {
  std::vector<RibWriter::Nexthops> nexthops;
  for (std::uint32_t set = 0; set < std::min<std::size_t>(sets.size(), needed); ++set) {
    nexthops.push_back(sets.via(set).nexthops());
  }
  const auto keys = base ? std::vector<std::uint64_t>() : rib.viaKeysFor(nexthops);
  std::vector<Via> vias;
  for (std::size_t i = 0; i < nexthops.size(); ++i) vias.emplace_back(base ? *base + i : keys[i], nexthops[i]);
  return vias;
}

void checkViaBase(const std::optional<std::uint64_t>& base, const NexthopSets& sets) {
  if (base && *base > std::numeric_limits<std::uint64_t>::max() - sets.size()) {
    throw BadText("--via-base: " + counted(sets.size(), "key") + " from " + std::to_string(*base) + " are too many");
  }
}

void load(const RibOptions& options) {
  checkPrefixSource(options.source);
  const auto vrfs = vrfIds(options.vrfs);
  const NexthopSets sets({optionValue<IpGenAddr>("--vtep-base", options.vtepBase), options.vteps, options.paths,
                          options.sets, tunnelOptions(options.tunnel)});
  checkViaBase(options.viaBase, sets);
  const PrefixList list = prefixesFrom(options.source);
  RibChange change;
  const auto counts = withRib(options, [&](RibWriter& rib) {
    change.changesVias = options.viaBase.has_value();
    change.vias = viasFor(sets, list.prefixes.size(), options.viaBase, rib);
    change.routes = spread(list.prefixes, vrfs, change.vias);
    rib.apply(change, options.capacity);
  });
  const auto ipv4 = static_cast<std::size_t>(std::ranges::count_if(list.prefixes, &IpGenPrefix::isV4));
  std::string text = "loaded " + counted(counts.routesWritten, "route") + " (" + std::to_string(ipv4) + " IPv4, " +
                     std::to_string(list.prefixes.size() - ipv4) + " IPv6) over " +
                     counted(std::min(vrfs.size(), list.prefixes.size()), "VRF") + " and " +
                     counted(change.vias.size(), "via") + ", " + std::to_string(counts.viasWritten) +
                     " of them new or changed" + sideEffects(counts);
  if (list.duplicates != 0) text += "; " + counted(list.duplicates, "duplicate prefix line") + ", the last one counts";
  tell(options.json,
       {{"routes", counts.routesWritten},
        {"routesStood", counts.routesStood},
        {"routesMoved", counts.routesMoved},
        {"ipv4Routes", ipv4},
        {"ipv6Routes", list.prefixes.size() - ipv4},
        {"vias", change.vias.size()},
        {"viasWritten", counts.viasWritten},
        {"viasRemoved", counts.viasRemoved},
        {"routesRewritten", counts.routesRewritten},
        {"duplicates", list.duplicates}},
       text);
}

// --- add -------------------------------------------------------------------------------------------------------------

void add(const RibOptions& options) {
  const std::uint32_t vrfId = options.vrf.value();
  const auto prefixes = prefixesOf(options.prefixes);
  const TunnelOptions tunnel = tunnelOptions(options.tunnel);
  std::vector<ViaNexthop> nexthops;
  for (const std::string& vtep : options.vtepList) {
    nexthops.push_back(nexthopTo(optionValue<IpGenAddr>("--vtep", vtep), tunnel));
    if (nexthops.back().remoteVtep.isEmpty()) throw BadText("--vtep: no address");
  }
  if (nexthops.size() > Via::maxNexthops) {
    throw BadText("--vtep: a via has at most 32 next hops");
  }
  const auto counts = withRib(options, [&](RibWriter& rib) {
    RibChange change;
    change.changesVias = options.viaKey.has_value();
    const auto viaKey = options.viaKey ? *options.viaKey : rib.viaKeysFor({nexthops}).front();
    change.vias.emplace_back(viaKey, nexthops);
    for (const IpGenPrefix& prefix : prefixes) change.routes.emplace_back(RouteKey(vrfId, prefix), viaKey);
    std::ranges::sort(change.routes, {}, &Route::key);
    const auto sameKey = [](const Route& a, const Route& b) { return a.key() == b.key(); };
    change.routes.erase(std::unique(change.routes.begin(), change.routes.end(), sameKey), change.routes.end());
    rib.apply(change, options.capacity);
  });
  tell(options.json,
       {{"routes", counts.routesWritten},
        {"routesStood", counts.routesStood},
        {"routesMoved", counts.routesMoved},
        {"viasWritten", counts.viasWritten},
        {"viasRemoved", counts.viasRemoved},
        {"routesRewritten", counts.routesRewritten}},
       "added " + counted(counts.routesWritten, "route") + sideEffects(counts));
}

// --- del -------------------------------------------------------------------------------------------------------------

void del(const RibOptions& options) {
  if (options.all && (options.vrf || !options.prefixes.empty())) throw BadText("--all leaves nothing to choose");
  if (!options.all && !options.vrf) throw BadText("rib del takes --vrf or --all");
  std::set<RouteKey> named;
  for (const IpGenPrefix& prefix : prefixesOf(options.prefixes)) named.insert(RouteKey(*options.vrf, prefix));

  std::set<RouteKey> missing = named;
  const auto counts = withRib(options, [&](RibWriter& rib) {
    rib.remove([&](const RouteKey& key) {
      if (named.empty()) return options.all || key.vrfId() == *options.vrf;
      missing.erase(key);
      return named.contains(key);
    });
  });
  tell(options.json, {{"routesRemoved", counts.routesRemoved}, {"viasRemoved", counts.viasRemoved}},
       "removed " + counted(counts.routesRemoved, "route") + sideEffects(counts));
  checkNoneMissing(missing);
}

// --- The command line ------------------------------------------------------------------------------------------------

void addCommonOptions(CLI::App& command, RibOptions& options) {
  addRunDirOption(command, options.runDir);
  command.add_flag("--json", options.json, "Print the summary as JSON");
}

void addWriteOptions(CLI::App& command, RibOptions& options) {
  command.add_option("--vti", options.tunnel.vti, "Tunnel interface of the next hops")->capture_default_str();
  command.add_option("--vlan", options.tunnel.vlan, "Extended VLAN id of the next hops (default 1 without --vni)");
  command.add_option("--vni", options.tunnel.vni, "VNI of the next hops");
  command
      .add_option("--capacity", options.capacity,
                  "Entries of the route tables (default: what they have, or more where the routes need it)")
      ->check(wholeNumber(1, Pondra::maxCapacity));
}

void addLoad(CLI::App& rib, const std::shared_ptr<RibOptions>& shared) {
  RibOptions& options = *shared;
  CLI::App* command = rib.add_subcommand("load", "Write a list of prefixes as routes, spread over VRFs and VTEPs");
  addPrefixSource(*command, options.source);
  command->add_option("--vrfs", options.vrfs, "VRF ids to take in turn, such as 1-64 or 1,5,7")->capture_default_str();
  command->add_option("--vtep-base", options.vtepBase, "Address of the first VTEP")->capture_default_str();
  command->add_option("--vteps", options.vteps, "Number of VTEPs, address by address")
      ->check(wholeNumber(1, std::numeric_limits<std::uint32_t>::max()))
      ->capture_default_str();
  command->add_option("--paths", options.paths, "Next hops of each via")
      ->check(wholeNumber(1, Via::maxNexthops))
      ->capture_default_str();
  command->add_option("--nexthop-sets", options.sets, "Different vias (default: one for each VTEP)")
      ->check(wholeNumber(1, std::numeric_limits<std::uint32_t>::max()));
  command
      ->add_option("--via-base", options.viaBase,
                   "Key of the first via, the others follow it; vias that stand there change under their routes "
                   "(default: vias that are equal, or new ones)")
      ->check(wholeNumber(1));
  addWriteOptions(*command, options);
  addCommonOptions(*command, options);
  command->footer("Example: routecache rib load prefixes.txt.gz --vrfs 1-4 --vteps 200 --paths 2 --vni 10010");
  command->callback([shared] { load(*shared); });
}

void addAdd(CLI::App& rib, const std::shared_ptr<RibOptions>& shared) {
  RibOptions& options = *shared;
  CLI::App* command = rib.add_subcommand("add", "Write routes that share one via");
  command->add_option("PREFIX", options.prefixes, "Prefixes of either family")->required();
  command->add_option("--vrf", options.vrf, "VRF id")->required()->check(wholeNumber(0, maxVrfId));
  command->add_option("--vtep", options.vtepList, "VTEP addresses, A or A,B,...")->delimiter(',')->required();
  command->add_option("--via", options.viaKey, "Key of the via (default: one that is equal, or a new one)")
      ->check(wholeNumber(1));
  addWriteOptions(*command, options);
  addCommonOptions(*command, options);
  command->footer("Example: routecache rib add 10.1.0.0/16 --vrf 2 --vtep 10.255.0.1,10.255.0.2 --vni 10010");
  command->callback([shared] { add(*shared); });
}

void addDel(CLI::App& rib, const std::shared_ptr<RibOptions>& shared) {
  RibOptions& options = *shared;
  CLI::App* command = rib.add_subcommand("del", "Remove routes, and the vias that nothing names any more");
  command->add_option("PREFIX", options.prefixes, "Prefixes; none: all of the VRF");
  command->add_option("--vrf", options.vrf, "VRF id")->check(wholeNumber(0, maxVrfId));
  command->add_flag("--all", options.all, "All routes of all VRFs");
  addCommonOptions(*command, options);
  command->footer("Example: routecache rib del 10.1.0.0/16 --vrf 2");
  command->callback([shared] { del(*shared); });
}

}  // namespace

void addRibCommand(CLI::App& app, ToolContext& /*context*/) {
  CLI::App* rib = app.add_subcommand("rib", "Write the RIB tables: configured routes and their vias");
  rib->require_subcommand(1);
  rib->footer("Example: routecache rib load --generate 100000 --vrfs 1-4 --vteps 200 --vni 10010");
  const auto options = std::make_shared<RibOptions>();
  addLoad(*rib, options);
  addAdd(*rib, options);
  addDel(*rib, options);
}

}  // namespace Tools
