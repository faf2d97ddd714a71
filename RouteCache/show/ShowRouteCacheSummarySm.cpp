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

struct ShowRouteCacheSummarySm::V4 {
  using Key = Ipv4RouteVrfKey;
  static constexpr const char* dict = "summary";
  static constexpr const char* name = "IPv4";
  static constexpr auto configRoutes = &VrfSummary::ipv4ConfigRoutes;
  static constexpr auto sfeRoutes = &VrfSummary::ipv4SfeRoutes;
  static constexpr auto hwRoutes = &VrfSummary::ipv4HwRoutes;
  static constexpr auto unprogrammed = &VrfSummary::ipv4Unprogrammed;
  static constexpr auto bookmark = &ShowRouteCacheSummarySm::bookmark_;
  static bool isOfFamily(const RouteKey& key) { return key.prefix().isV4(); }
  static Prefix prefix(const RouteKey& key) { return key.prefix().v4(); }
  static auto config(const SwRouteSm& sm) { return sm.routeConfig(); }
  static auto published(const SwRouteSm& sm) { return sm.ipv4RouteStatus(); }
  static std::size_t inHw(const ShowRouteCacheSummarySm& sm) {
    return sm.hwRouteSm_ ? sm.hwRouteSm_->ipv4HwRouteStatus()->size() : published(*sm.swRouteSm_)->size();
  }
};

struct ShowRouteCacheSummarySm::V6 {
  using Key = Ipv6RouteVrfKey;
  static constexpr const char* dict = "summaryIPv6";
  static constexpr const char* name = "IPv6";
  static constexpr auto configRoutes = &VrfSummary::ipv6ConfigRoutes;
  static constexpr auto sfeRoutes = &VrfSummary::ipv6SfeRoutes;
  static constexpr auto hwRoutes = &VrfSummary::ipv6HwRoutes;
  static constexpr auto unprogrammed = &VrfSummary::ipv6Unprogrammed;
  static constexpr auto bookmark = &ShowRouteCacheSummarySm::bookmark6_;
  static bool isOfFamily(const RouteKey& key) { return key.prefix().isV6(); }
  static Ip6Prefix prefix(const RouteKey& key) { return key.prefix().v6(); }
  static auto config(const SwRouteSm& sm) { return sm.route6Config(); }
  static auto published(const SwRouteSm& sm) { return sm.ipv6RouteStatus(); }
  // What is published goes to the hardware, in either arrangement.
  static std::size_t inHw(const ShowRouteCacheSummarySm& sm) { return published(*sm.swRouteSm_)->size(); }
};

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
  ipv4RouteConfigDone_ = countRoutes<V4>();
  if (ipv4RouteConfigDone_) getIpv6RouteCacheVrfSummary();
}

void ShowRouteCacheSummarySm::getIpv6RouteCacheVrfSummary() {
  ipv6RouteConfigDone_ = countRoutes<V6>();
  if (ipv6RouteConfigDone_) doPrintRouteCacheVrfSummary();
}

// The configuration is ordered by VRF: what belongs to others is passed over without a look.
template <class F>
bool ShowRouteCacheSummarySm::countRoutes() {
  const auto config = F::config(*swRouteSm_);
  RouteKey& bookmark = this->*F::bookmark;
  if (vrfSummary_.empty()) return true;
  const auto firstOf = [](const auto& vrf) { return RouteKey(vrf.first, IpGenPrefix()); };
  auto route = config->lowerBound(bookmark.isEmpty() ? firstOf(*vrfSummary_.begin()) : bookmark);
  bookmark = RouteKey();
  while (route != config->end()) {
    const auto vrf = vrfSummary_.lower_bound(route->key().vrfId());
    if (vrf == vrfSummary_.end()) break;
    if (vrf->first == route->key().vrfId()) {
      countRoute<F>(route->key(), vrf->second);
      ++route;
    } else {
      route = config->lowerBound(firstOf(*vrf));
    }
    if (route != config->end() && shouldYield()) {
      bookmark = route->key();
      return false;
    }
  }
  return true;
}

template <class F>
void ShowRouteCacheSummarySm::countRoute(const RouteKey& key, VrfSummary& summary) const {
  const VrfIdMap& ids = *swRouteSm_->vrfIdMap();
  ++(summary.*F::configRoutes);
  // Whoever configures routes may put one into the other family's table: it is never published from there.
  if (F::isOfFamily(key) && ids.globalVrfIdToHwVrfIdHas(key.vrfId())) {
    const typename F::Key tableKey(F::prefix(key), ids.globalVrfIdToHwVrfId(key.vrfId()));
    if (const auto route = F::published(*swRouteSm_)->route(tableKey)) {
      ++(summary.*(route->inHw() ? F::hwRoutes : F::sfeRoutes));
      return;
    }
  }
  ++(summary.*F::unprogrammed);
}

// --- Printing --------------------------------------------------------------------------------------------------------

void ShowRouteCacheSummarySm::doPrintRouteCacheVrfSummary() {
  if (!ipv4RowsPrinted_ && !printVrfRows<V4>()) return;
  ipv4RowsPrinted_ = true;
  if (!printVrfRows<V6>()) return;
  renderer().startDict("total");
  printTotal();
  renderer().endDict();
  printed_ = true;
}

template <class F>
bool ShowRouteCacheSummarySm::printVrfRows() {
  if (!nextRow_) {
    renderer().startDict(F::dict);
    nextRow_ = vrfNameToId_.begin();
  }
  auto& row = *nextRow_;
  while (row != vrfNameToId_.end()) {
    const VrfSummary& vrf = vrfSummary_.at(row->second);
    const Counts counts{vrf.*F::configRoutes, vrf.*F::sfeRoutes, vrf.*F::hwRoutes, vrf.*F::unprogrammed};
    printRow(row->first, F::name, counts);
    total_.add(counts);
    ++row;
    if (row != vrfNameToId_.end() && shouldYield()) return false;
  }
  renderer().endDict();
  nextRow_.reset();
  return true;
}

void ShowRouteCacheSummarySm::printRouteCacheAllSummary() {
  printAllRow<V4>();
  printAllRow<V6>();
  renderer().startDict("total");
  renderer().startDictEntry(allVrfs);
  printTotal();
  renderer().endDictEntry();
  renderer().endDict();
  printed_ = true;
}

// The tables are not written at one instant: what one of them is ahead of another counts as nothing.
template <class F>
void ShowRouteCacheSummarySm::printAllRow() {
  const auto less = [](std::uint64_t a, std::uint64_t b) { return a - std::min(a, b); };
  const std::uint64_t published = F::published(*swRouteSm_)->size();
  Counts counts;
  counts.configured = F::config(*swRouteSm_)->size();
  counts.inHw = F::inHw(*this);
  counts.inSfe = less(published, counts.inHw);
  counts.unprogrammed = less(counts.configured, published);
  renderer().startDict(F::dict);
  printRow(allVrfs, F::name, counts);
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
