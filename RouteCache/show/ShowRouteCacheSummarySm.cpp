// The summary command.
#include <algorithm>

#include "RouteCache/show/ShowRouteCacheSm.h"
#include "RouteCache/vrf/VrfSm.h"

namespace RouteCache {

// --- Counting --------------------------------------------------------------------------------------------------------

void ShowRouteCacheSummarySm::Counts::add(const Counts& other) {
  configured += other.configured;
  inSfe += other.inSfe;
  inHw += other.inHw;
  unprogrammed += other.unprogrammed;
}

namespace {

// Where a VRF's counts of one family stand.
template <class Family>
struct Fields {
  static constexpr auto configRoutes = byFamily<Family>(&VrfSummary::ipv4ConfigRoutes, &VrfSummary::ipv6ConfigRoutes);
  static constexpr auto sfeRoutes = byFamily<Family>(&VrfSummary::ipv4SfeRoutes, &VrfSummary::ipv6SfeRoutes);
  static constexpr auto hwRoutes = byFamily<Family>(&VrfSummary::ipv4HwRoutes, &VrfSummary::ipv6HwRoutes);
  static constexpr auto unprogrammed = byFamily<Family>(&VrfSummary::ipv4Unprogrammed, &VrfSummary::ipv6Unprogrammed);
};
template <class Family>
constexpr const char* dictName = byFamily<Family>("summary", "summaryIPv6");
template <class Family>
constexpr const char* familyName = byFamily<Family>("IPv4", "IPv6");

}  // namespace

ShowRouteCacheSummarySm::ShowRouteCacheSummarySm(const ShowRouteCacheInputs& inputs,
                                                 std::shared_ptr<const SwRouteSm> swRouteSm,
                                                 std::shared_ptr<const Vrf::VrfIdMap::NameToIdMap> piVrfIdMap,
                                                 std::string vrfName, std::shared_ptr<const HwRouteSm> hwRouteSm)
    : ShowRouteCacheSm(inputs),
      swRouteSm_(std::move(swRouteSm)),
      hwRouteSm_(std::move(hwRouteSm)),
      piVrfIdMap_(std::move(piVrfIdMap)),
      vrfName_(std::move(vrfName)) {}

std::shared_ptr<ShowRouteCacheSummarySm> showRouteCacheSummarySmFactory(
    const ShowRouteCacheInputs& inputs, std::shared_ptr<const SwRouteSm> swRouteSm,
    std::shared_ptr<const Vrf::VrfIdMap::NameToIdMap> piVrfIdMap, std::string vrfName,
    std::shared_ptr<const HwRouteSm> hwRouteSm) {
  return std::make_shared<ShowRouteCacheSummarySm>(inputs, std::move(swRouteSm), std::move(piVrfIdMap),
                                                   std::move(vrfName), std::move(hwRouteSm));
}

bool ShowRouteCacheSummarySm::print() {
  printRouteCacheSummary();
  return printed_;
}

void ShowRouteCacheSummarySm::printRouteCacheSummary() {
  if (!printerCreated()) {
    const bool oneVrf = vrfNameSpecified() && vrfName_ != allVrfs;
    if (oneVrf && !piVrfIdMap_->nameToId(vrfName_)) {
      printVrfNotFound(vrfName_);
      printed_ = true;
      return;
    }
    renderer().addFrills("%-20s %-8s %-14s %-11s %-10s %-12s\n",
                         {"VRF", "AF", "Config Routes", "Sfe Routes", "Hw Routes", "Unprogrammed"});
    printRuler(80);
    if (vrfNameSpecified()) setupSummaryDataStruct(vrfName_);
  }
  if (vrfNameSpecified()) {
    printRouteCacheVrfSummary();
  } else {
    printRouteCacheAllSummary();
  }
}

void ShowRouteCacheSummarySm::setupSummaryDataStruct(const std::string& vrfName) {
  if (vrfName != allVrfs) {
    const std::uint32_t piVrfId = piVrfIdMap_->nameToId(vrfName).value_or(missingPiVrfId);
    vrfNameToIdIs(vrfName, piVrfId);
    vrfSummaryIs(piVrfId);
    return;
  }
  for (const auto& [name, piVrfId] : piVrfIdMap_->nameToId()) {
    vrfNameToIdIs(name, piVrfId);
    vrfSummaryIs(piVrfId);
  }
}

void ShowRouteCacheSummarySm::printRouteCacheVrfSummary() {
  if (ipv6RouteConfigDone_) {
    doPrintRouteCacheVrfSummary();
  } else if (ipv4RouteConfigDone_) {
    getIpv6RouteCacheVrfSummary();
  } else {
    getIpv4RouteCacheVrfSummary();
  }
}

void ShowRouteCacheSummarySm::getIpv4RouteCacheVrfSummary() {
  ipv4RouteConfigDone_ = countRoutes<Ipv4Family>();
  if (ipv4RouteConfigDone_) getIpv6RouteCacheVrfSummary();
}

void ShowRouteCacheSummarySm::getIpv6RouteCacheVrfSummary() {
  ipv6RouteConfigDone_ = countRoutes<Ipv6Family>();
  if (ipv6RouteConfigDone_) doPrintRouteCacheVrfSummary();
}

// The configuration is ordered by VRF: what belongs to others is passed over without a look.
template <class Family>
bool ShowRouteCacheSummarySm::countRoutes() {
  const auto& config = swRouteSm_->configured<Family>();
  RouteKey& bookmark = bookmarks_.of<Family>();
  if (vrfSummary_.empty()) return true;
  const auto firstOf = [](const auto& vrf) { return RouteKey(vrf.first, IpGenPrefix()); };
  auto route = config.lowerBound(bookmark.isEmpty() ? firstOf(*vrfSummary_.begin()) : bookmark);
  bookmark = RouteKey();
  while (route != config.end()) {
    const auto vrf = vrfSummary_.lower_bound(route->key().vrfId());
    if (vrf == vrfSummary_.end()) break;
    if (vrf->first == route->key().vrfId()) {
      countRoute<Family>(route->key(), vrf->second);
      ++route;
    } else {
      route = config.lowerBound(firstOf(*vrf));
    }
    if (route != config.end() && shouldYield()) {
      bookmark = route->key();
      return false;
    }
  }
  return true;
}

template <class Family>
void ShowRouteCacheSummarySm::countRoute(const RouteKey& key, VrfSummary& summary) const {
  const VrfIdMap& ids = *swRouteSm_->vrfIdMap();
  ++(summary.*Fields<Family>::configRoutes);
  // Whoever configures routes may put one into the other family's table: it is never published from there.
  if (key.prefix().family() == Family::family && ids.globalVrfIdToHwVrfIdHas(key.vrfId())) {
    const BasicRouteVrfKey<Family> tableKey(Family::prefix(key.prefix()), ids.globalVrfIdToHwVrfId(key.vrfId()));
    if (const auto route = swRouteSm_->routeStatus<Family>()->route(tableKey)) {
      ++(summary.*(route->inHw() ? Fields<Family>::hwRoutes : Fields<Family>::sfeRoutes));
      return;
    }
  }
  ++(summary.*Fields<Family>::unprogrammed);
}

// --- Printing --------------------------------------------------------------------------------------------------------

void ShowRouteCacheSummarySm::doPrintRouteCacheVrfSummary() {
  if (!ipv4RowsPrinted_ && !printVrfRows<Ipv4Family>()) return;
  ipv4RowsPrinted_ = true;
  if (!printVrfRows<Ipv6Family>()) return;
  renderer().startDict("total");
  printTotal();
  renderer().endDict();
  printed_ = true;
}

template <class Family>
bool ShowRouteCacheSummarySm::printVrfRows() {
  if (!nextRow_) {
    renderer().startDict(dictName<Family>);
    nextRow_ = vrfNameToId_.begin();
  }
  auto& row = *nextRow_;
  while (row != vrfNameToId_.end()) {
    const VrfSummary& vrf = vrfSummary_.at(row->second);
    const Counts counts{vrf.*Fields<Family>::configRoutes, vrf.*Fields<Family>::sfeRoutes,
                        vrf.*Fields<Family>::hwRoutes, vrf.*Fields<Family>::unprogrammed};
    printRow(row->first, familyName<Family>, counts);
    total_.add(counts);
    ++row;
    if (row != vrfNameToId_.end() && shouldYield()) return false;
  }
  renderer().endDict();
  nextRow_.reset();
  return true;
}

void ShowRouteCacheSummarySm::printRouteCacheAllSummary() {
  printAllRow<Ipv4Family>();
  printAllRow<Ipv6Family>();
  renderer().startDict("total");
  renderer().startDictEntry(allVrfs);
  printTotal();
  renderer().endDictEntry();
  renderer().endDict();
  printed_ = true;
}

// The tables are not written at one instant: what one of them is ahead of another counts as nothing.
template <class Family>
void ShowRouteCacheSummarySm::printAllRow() {
  const auto less = [](std::uint64_t a, std::uint64_t b) { return a - std::min(a, b); };
  const std::uint64_t published = swRouteSm_->routeStatus<Family>()->size();
  Counts counts;
  counts.configured = swRouteSm_->configured<Family>().size();
  // Without caching in hardware what is published goes there; IPv6 routes do so in any case.
  const bool isCached = std::is_same_v<Family, Ipv4Family> && hwRouteSm_;
  counts.inHw = isCached ? hwRouteSm_->ipv4HwRouteStatus()->size() : published;
  counts.inSfe = less(published, counts.inHw);
  counts.unprogrammed = less(counts.configured, published);
  renderer().startDict(dictName<Family>);
  printRow(allVrfs, familyName<Family>, counts);
  renderer().endDict();
  total_.add(counts);
}

void ShowRouteCacheSummarySm::printRow(const std::string& name, const char* addressFamily, const Counts& counts) {
  renderer().startDictEntry(name);
  renderer().addAttributes("%-20s %-8s %-14d %-11d %-10d %-12d\n", {{"", name},
                                                                    {"", addressFamily},
                                                                    {"configuredRoutes", counts.configured},
                                                                    {"routesInSfe", counts.inSfe},
                                                                    {"routesInHw", counts.inHw},
                                                                    {"unprogrammedRoutes", counts.unprogrammed}});
  renderer().endDictEntry();
}

void ShowRouteCacheSummarySm::printTotal() {
  printRuler(80);
  renderer().addAttributes("%-29s %-14d %-11d %-10d %-12d\n", {{"", "Total"},
                                                               {"configuredRoutes", total_.configured},
                                                               {"routesInSfe", total_.inSfe},
                                                               {"routesInHw", total_.inHw},
                                                               {"unprogrammedRoutes", total_.unprogrammed}});
}

}  // namespace RouteCache
