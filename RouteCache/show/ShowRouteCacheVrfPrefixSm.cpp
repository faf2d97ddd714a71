// The command that lists routes.
#include <algorithm>

#include "RouteCache/show/ShowRouteCacheSm.h"

namespace RouteCache {

ShowRouteCacheVrfPrefixSm::ShowRouteCacheVrfPrefixSm(const ShowRouteCacheInputs& inputs,
                                                     std::shared_ptr<const SwRouteSm> swRouteSm, std::string vrfName,
                                                     const IpGenPrefix& prefix,
                                                     std::shared_ptr<const Vrf::VrfIdMap::NameToIdMap> piVrfIdMap,
                                                     bool isIpv6)
    : ShowRouteCacheSm(inputs),
      swRouteSm_(std::move(swRouteSm)),
      vrfName_(std::move(vrfName)),
      prefix_(prefix),
      piVrfIdMap_(std::move(piVrfIdMap)),
      isIpv6_(isIpv6) {}

std::shared_ptr<ShowRouteCacheVrfPrefixSm> showRouteCacheVrfPrefixSmFactory(
    const ShowRouteCacheInputs& inputs, std::shared_ptr<const SwRouteSm> swRouteSm, std::string vrfName,
    const IpGenPrefix& prefix, std::shared_ptr<const Vrf::VrfIdMap::NameToIdMap> piVrfIdMap, bool isIpv6) {
  return std::make_shared<ShowRouteCacheVrfPrefixSm>(inputs, std::move(swRouteSm), std::move(vrfName), prefix,
                                                     std::move(piVrfIdMap), isIpv6);
}

template <class Family>
void ShowRouteCacheVrfPrefixSm::Listing<Family>::routeIs(const Key& key, bool collected) {
  const auto at = std::lower_bound(route.begin(), route.end(), key);
  const bool has = at != route.end() && *at == key;
  if (collected && !has) route.insert(at, key);
  if (!collected && has) route.erase(at);
}

// --- The reply -------------------------------------------------------------------------------------------------------

bool ShowRouteCacheVrfPrefixSm::print() {
  printRouteCacheVrfPrefix();
  return isPrinted();
}

void ShowRouteCacheVrfPrefixSm::printRouteCacheVrfPrefix() {
  if (!printerCreated()) {
    const auto piVrfId = piVrfIdMap_->nameToId(vrfName_);
    if (!piVrfId) {
      printVrfNotFound(vrfName_);
      return;
    }
    const auto ids = swRouteSm_->vrfIdMap();
    if (ids->globalVrfIdToHwVrfIdHas(*piVrfId)) hwVrfId_ = ids->globalVrfIdToHwVrfId(*piVrfId);
    printHeader();
  }
  if (hwVrfId_) {
    if (prefix_.isEmpty()) {
      isIpv6_ ? printRouteCacheV6AllPrefix() : printRouteCacheAllPrefix();
    } else {
      isIpv6_ ? printRouteCacheV6Prefix() : printRouteCachePrefix();
    }
  }
  if (!isPrinted()) return;
  renderer().endDict();
  renderer().endDictEntry();
  renderer().endDict();
}

void ShowRouteCacheVrfPrefixSm::printHeader() {
  renderer().startDict("vrfs");
  renderer().startDictEntry(vrfName_);
  renderer().addFrills(
      "%-18s %-4s %-10s %-8s %-7s %-15s %-4s %-17s %-11s\n",
      {"Prefix", "InHw", "NextHopId", "VxlanId", "Vni", "MacAddress", "Vlan", "RemoteVtep", "UnderlayFEC"});
  printRuler(102);
  renderer().startDict("routes");
}

void ShowRouteCacheVrfPrefixSm::printRouteCachePrefix() {
  printRoute<Ipv4Family>(Ipv4RouteVrfKey(prefix_.v4(), *hwVrfId_));
}

void ShowRouteCacheVrfPrefixSm::printRouteCacheV6Prefix() {
  printRoute<Ipv6Family>(Ipv6RouteVrfKey(prefix_.v6(), *hwVrfId_));
}

// --- Walking the table -----------------------------------------------------------------------------------------------

void ShowRouteCacheVrfPrefixSm::printRouteCacheAllPrefix() {
  printAllPrefix<Ipv4Family>();
}

void ShowRouteCacheVrfPrefixSm::printRouteCacheV6AllPrefix() {
  printAllPrefix<Ipv6Family>();
}

// Collects a windowful and prints it, by turns.
template <class Family>
void ShowRouteCacheVrfPrefixSm::printAllPrefix() {
  auto& listing = listings_.of<Family>();
  for (;;) {
    if (!printState_ && !collectRoutes<Family>()) return;
    printState_ = true;
    while (!listing.route.empty()) {
      const BasicRouteVrfKey<Family> key = listing.route.front();
      listing.routeIs(key, false);
      printRoute<Family>(key);
      if (yieldAt<Family>(listing.route.empty() ? listing.next : listing.route.front())) return;
    }
    if (!listing.next) break;
    printState_ = false;
  }
  listing.bookmark = {};
}

template <class Family>
bool ShowRouteCacheVrfPrefixSm::collectRoutes() {
  auto& listing = listings_.of<Family>();
  const auto table = swRouteSm_->routeStatus<Family>();
  auto at = table->lowerBound(*listing.next);
  while (at != table->end() && listing.route.size() < windowSize) {
    if (at->key().vrfId() == *hwVrfId_) listing.routeIs(at->key(), true);
    ++at;
    listing.next = at == table->end() ? std::nullopt : std::optional(at->key());
    if (yieldAt<Family>(listing.next)) return false;
  }
  if (at == table->end()) listing.next = std::nullopt;
  return true;
}

// Ends the call at this key, the next one to handle, if it should end. The empty key is no bookmark: the call takes one
// more entry then. Nothing more to handle needs no other call.
template <class Family>
bool ShowRouteCacheVrfPrefixSm::yieldAt(const std::optional<BasicRouteVrfKey<Family>>& next) {
  if (!next || *next == BasicRouteVrfKey<Family>() || !shouldYield()) return false;
  listings_.of<Family>().bookmark = *next;
  return true;
}

// --- One route -------------------------------------------------------------------------------------------------------

template <class Family>
void ShowRouteCacheVrfPrefixSm::printRoute(const BasicRouteVrfKey<Family>& key) {
  const auto route = swRouteSm_->routeStatus<Family>()->route(key);
  if (!route) return;
  const std::string prefix = Platform::toText(key.prefix());
  const std::uint32_t id = route->adjId().value();
  const char* const inHw = route->inHw() ? "True" : "False";
  renderer().startDictEntry(prefix);
  if (renderer().outputFormat() == Platform::OutputFormat::json) {
    renderer().addAttributes("%-18s %-4s %-10d ", {{"prefix", prefix}, {"inHw", inHw}, {"nextHopId", id}});
  } else {
    renderer().addAttributes("%-18s %-4s %-10s ",
                             {{"prefix", prefix}, {"inHw", inHw}, {"nextHopId", Platform::formatted("0x%x", {id})}});
  }
  printRouteCacheAdjacency(route->adjId());
  renderer().endDictEntry();
}

// A mixed identifier stands in both tables.
void ShowRouteCacheVrfPrefixSm::printRouteCacheAdjacency(AdjId adjId) {
  renderer().startDict("nextHopInfo");
  unsigned printed = 0;
  const auto printVias = [&](const auto& via) {
    if (!via) return;
    for (const auto& adjacency : via->viaKey()) printVia(adjacency, printed++);
  };
  if (adjId.isAdjacencyV4()) printVias(swRouteSm_->ipv4AdjStatus()->adj(adjId));
  if (adjId.isAdjacencyV6()) printVias(swRouteSm_->ipv6AdjStatus()->adj(adjId));
  if (printed == 0) renderer().addFrills("%35s\n", {"no adjacency"});
  renderer().endDict();
}

template <class Adjacency>
void ShowRouteCacheVrfPrefixSm::printVia(const Adjacency& adjacency, unsigned index) {
  // The first one completes the route's line.
  if (index > 0) renderer().addFrills("%-18s %-4s %-10s ", {"", "", ""});
  const bool json = renderer().outputFormat() == Platform::OutputFormat::json;
  const std::uint64_t fecId = adjacency.underlayFecId().value();
  const std::string fecText = Platform::formatted("0x%llx", {fecId});
  renderer().startDictEntry(std::to_string(index));
  renderer().addAttributes(json ? "%-8s %-7d %-15s %-4d %-17s %-11d\n" : "%-8s %-7d %-15s %-4d %-17s %-11s\n",
                           {{"", adjacency.vti().name()},
                            {"vxlanId", vniOf(adjacency.vti(), adjacency.extendedVlanId())},
                            {"macAddress", Platform::toText(adjacency.routerMac())},
                            {"vlanId", adjacency.extendedVlanId()},
                            {"remoteVtep", Platform::toText(adjacency.remoteVtepIp())},
                            {"underlayFecId", json ? Platform::FormatValue(fecId) : Platform::FormatValue(fecText)}});
  renderer().endDictEntry();
}

// 0: the interface has none for the VLAN.
std::uint32_t ShowRouteCacheVrfPrefixSm::vniOf(IntfId vti, Bridging::ExtendedVlanId vlan) const {
  const auto status = swRouteSm_->swRouteVtiStatusColl(vti);
  const Vxlan::Vni vni = status ? status->extendedVlanToVniMap(vlan) : Vxlan::Vni();
  return vni.isPresent() ? vni.value() : 0;
}

}  // namespace RouteCache
