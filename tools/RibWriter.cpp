#include "tools/RibWriter.h"

#include <algorithm>

#include "tools/TableWriting.h"

namespace Tools {

RibWriter::RibWriter(Pondra::TableService& tables, Progress progress)
    : tables_(tables),
      progress_(std::move(progress)),
      routes4_(mountToRead<RouteConfig>(tables, ipv4RoutePath)),
      routes6_(mountToRead<RouteConfig>(tables, ipv6RoutePath)),
      vias_(mountToRead<ViaConfig>(tables, viaPath)) {}

RibWriter::ViaKey RibWriter::viaKeyFor(const std::vector<ViaNexthop>& nexthops) const {
  ViaKey free = 1;  // 0 names no via
  for (const Via& via : *vias_) {
    if (via.nexthops() == nexthops) return via.key();
    if (via.key() == free) ++free;
  }
  return free;
}

void RibWriter::writerIs(const RibChange& change, std::uint32_t capacity) {
  std::vector<RouteKey> keys4;
  std::vector<RouteKey> keys6;
  for (const Route& route : change.routes) (route.key().prefix().isV4() ? keys4 : keys6).push_back(route.key());
  std::vector<ViaKey> viaKeys;
  for (const Via& via : change.vias) viaKeys.push_back(via.key());
  // All three before the first is touched: a change that does not fit must leave everything as it is.
  const std::uint32_t capacity4 = capacityFor(*routes4_, keys4, capacity, ipv4RoutePath);
  const std::uint32_t capacity6 = capacityFor(*routes6_, keys6, capacity, ipv6RoutePath);
  const std::uint32_t viaCapacity = capacityFor(*vias_, viaKeys, 0, viaPath);
  mountToWrite(tables_, viaPath, vias_, viaCapacity);
  mountToWrite(tables_, ipv4RoutePath, routes4_, capacity4);
  mountToWrite(tables_, ipv6RoutePath, routes6_, capacity6);
}

void RibWriter::apply(const RibChange& change, std::uint32_t capacity) {
  writerIs(change, capacity);
  std::set<ViaKey> changedVias;
  for (const Via& via : change.vias) {
    progress_();
    if (vias_->via(via.key()) == via) continue;
    vias_->viaIs(via);
    changedVias.insert(via.key());
    ++counts_.viasWritten;
  }
  if (!changedVias.empty()) {
    rewriteRoutes(*routes4_, changedVias, change);
    rewriteRoutes(*routes6_, changedVias, change);
  }
  for (const Route& route : change.routes) {
    progress_();
    RouteConfig& routes = routesOf(route.key());
    const auto before = routes.route(route.key());
    routes.routeIs(route);
    ++counts_.routesWritten;
    if (before && before->viaKey() != route.viaKey()) releasedVias_.insert(before->viaKey());
  }
  removeReleasedVias();
}

void RibWriter::rewriteRoutes(RouteConfig& routes, const std::set<ViaKey>& changedVias, const RibChange& except) {
  for (const Route& route : routes) {
    if (!changedVias.contains(route.viaKey())) continue;
    if (std::ranges::binary_search(except.routes, route.key(), {}, &Route::key)) continue;
    progress_();
    routes.routeIs(route);
    ++counts_.routesRewritten;
  }
}

void RibWriter::remove(const std::function<bool(const RouteKey&)>& doomed) {
  writerIs({}, 0);
  for (const auto& routes : {routes4_, routes6_}) {
    for (const Route& route : *routes) {
      if (!doomed(route.key())) continue;
      progress_();
      releasedVias_.insert(route.viaKey());
      routes->routeDel(route.key());
      ++counts_.routesRemoved;
    }
  }
  removeReleasedVias();
}

void RibWriter::removeReleasedVias() {
  for (const auto& routes : {routes4_, routes6_}) {
    if (releasedVias_.empty()) return;
    for (const Route& route : *routes) releasedVias_.erase(route.viaKey());
  }
  for (const ViaKey key : releasedVias_) {
    if (!vias_->has(key)) continue;
    vias_->viaDel(key);
    ++counts_.viasRemoved;
  }
  releasedVias_.clear();
}

}  // namespace Tools
