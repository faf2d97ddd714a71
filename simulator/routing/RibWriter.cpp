#include "simulator/routing/RibWriter.h"

#include <algorithm>
#include <array>
#include <stdexcept>
#include <string>
#include <unordered_map>

#include "platform/values/Paths.h"
#include "simulator/routing/TableWriting.h"

namespace Tools {

namespace {

std::string bytesOf(const RibWriter::Via& via) {
  std::array<std::byte, Pondra::TableTraits<RibWriter::Via>::maxValueSize> bytes;  // NOLINT: filled by encode
  const std::size_t size = Pondra::TableTraits<RibWriter::Via>::encode(via, bytes.data());
  return {reinterpret_cast<const char*>(bytes.data()), size};
}

}  // namespace

RibWriter::RibWriter(Pondra::TableService& tables, Progress progress)
    : tables_(tables),
      progress_(std::move(progress)),
      routes4_(mountToRead<RouteConfig>(tables, Paths::ribRoutes)),
      routes6_(mountToRead<RouteConfig>(tables, Paths::rib6Routes)),
      vias_(mountToRead<ViaConfig>(tables, Paths::ribVias)) {}

std::vector<RibWriter::ViaKey> RibWriter::viaKeysFor(const std::vector<Nexthops>& sets) const {
  std::unordered_map<std::string, std::size_t> wanted;  // next hops as the table has them -> index of the set
  for (std::size_t i = 0; i < sets.size(); ++i) wanted.emplace(bytesOf(Via(0, sets[i])), i);
  std::vector<ViaKey> keys(sets.size(), 0);  // 0 names no via
  std::vector<ViaKey> taken;
  for (const Via& via : *vias_) {
    taken.push_back(via.key());
    const auto found = wanted.find(bytesOf(via));
    if (found != wanted.end() && keys[found->second] == 0) keys[found->second] = via.key();
  }
  ViaKey free = 1;
  auto next = taken.begin();
  for (ViaKey& key : keys) {
    if (key != 0) continue;
    for (; next != taken.end() && *next <= free; ++next) free = *next + 1;
    key = free++;
  }
  return keys;
}

void RibWriter::writerIs(const RibChange& change, std::uint32_t capacity) {
  std::vector<RouteKey> keys4;
  std::vector<RouteKey> keys6;
  for (const Route& route : change.routes) (route.key().prefix().isV4() ? keys4 : keys6).push_back(route.key());
  std::vector<ViaKey> viaKeys;
  for (const Via& via : change.vias) viaKeys.push_back(via.key());
  // All three before the first is touched: a change that does not fit must leave everything as it is.
  const std::uint32_t capacity4 = capacityFor(*routes4_, keys4, capacity, Paths::ribRoutes);
  const std::uint32_t capacity6 = capacityFor(*routes6_, keys6, capacity, Paths::rib6Routes);
  const std::uint32_t viaCapacity = capacityFor(*vias_, viaKeys, 0, Paths::ribVias);
  mountToWrite(tables_, Paths::ribVias, vias_, viaCapacity);
  mountToWrite(tables_, Paths::ribRoutes, routes4_, capacity4);
  mountToWrite(tables_, Paths::rib6Routes, routes6_, capacity6);
}

// The keys were chosen while another process could still write.
void RibWriter::checkViasKept(const std::vector<Via>& vias) const {
  for (const Via& via : vias) {
    const auto standing = vias_->via(via.key());
    if (!standing || *standing == via) continue;
    throw std::runtime_error(std::string(Paths::ribVias) + ": another process has taken the via " +
                             std::to_string(via.key()) + " meanwhile; nothing is written, try again");
  }
}

void RibWriter::apply(const RibChange& change, std::uint32_t capacity) {
  writerIs(change, capacity);
  if (!change.changesVias) checkViasKept(change.vias);
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
    if (!before) continue;
    ++counts_.routesStood;
    if (before->viaKey() == route.viaKey()) continue;
    ++counts_.routesMoved;
    releasedVias_.insert(before->viaKey());
  }
  changeEnds();
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
      routes->routeDel(route.key());
      ++counts_.routesRemoved;
    }
  }
  for (const Via& via : *vias_) releasedVias_.insert(via.key());
  changeEnds();
}

void RibWriter::changeEnds() {
  removeReleasedVias();
  reconcile(*vias_);
  reconcile(*routes4_);
  reconcile(*routes6_);
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
