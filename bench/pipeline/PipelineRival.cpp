#include "bench/pipeline/PipelineRival.h"

#include <map>
#include <optional>
#include <string>

#include "RouteCache/RouteCache.h"
#include "bench/harness/BenchDirectory.h"
#include "bench/harness/EncodedValue.h"
#include "bench/harness/LmdbStore.h"
#include "platform/tables/Rib.h"

namespace Bench {

namespace {

using RibVia = Routing::Rib::RouteCache::Evpn::Via;
using Bytes = LmdbStore::Bytes;

// The published side.
class Publisher {
 public:
  explicit Publisher(LmdbStore& store)
      : store_(store), routes_(store.database("routes")), adjacencies_(store.database("adjacencies")) {}

  void publish(const Routing::Rib::Route& route, Bytes viaBytes) {
    const std::string nexthops(reinterpret_cast<const char*>(viaBytes.data()), viaBytes.size());
    const auto [entry, isNew] = adjIds_.try_emplace(nexthops, static_cast<std::uint32_t>(adjIds_.size() + 1));
    const ::RouteCache::AdjId adjId(entry->second);
    if (isNew) {
      const auto via = Pondra::TableTraits<RibVia>::decode(route.viaKey(), viaBytes);
      store_.putValue(adjacencies_, adjacency(adjId, via.value()));
    }
    store_.putValue(routes_, ::RouteCache::Ipv4Route({route.key().prefix().v4(), route.key().vrfId()}, adjId, true));
    ++routeCount_;
  }
  std::size_t routes() const { return routeCount_; }
  std::size_t adjacencies() const { return adjIds_.size(); }

 private:
  static ::RouteCache::Ipv4Via adjacency(::RouteCache::AdjId adjId, const RibVia& via) {
    ::RouteCache::Ipv4Via adjacency(adjId);
    std::uint16_t slot = 0;
    for (const auto& nexthop : via.nexthops()) {
      adjacency.viaKeyIs(::RouteCache::ViaIndex(slot++), {Fib::FecId(1), nexthop.extendedVlanId, nexthop.routerMac,
                                                          nexthop.vti, nexthop.remoteVtep.v4()});
    }
    return adjacency;
  }

  LmdbStore& store_;
  MDB_dbi routes_;
  MDB_dbi adjacencies_;
  std::map<std::string, std::uint32_t> adjIds_;
  std::size_t routeCount_ = 0;
};

}  // namespace

RivalFigures runPipelineRival(const std::string& directory, const Tools::RibChange& change) {
  const std::size_t mapSize = (change.routes.size() + change.vias.size()) * 1024 + (std::size_t{64} << 20);
  const BenchDirectory ribDirectory(directory);
  const BenchDirectory publishedDirectory(directory);
  LmdbStore rib(ribDirectory.path(), mapSize);
  LmdbStore published(publishedDirectory.path(), mapSize);
  const MDB_dbi ribRoutes = rib.database("routes");
  const MDB_dbi ribVias = rib.database("vias");
  for (const auto& via : change.vias) rib.putValue(ribVias, via);
  for (const auto& route : change.routes) rib.putValue(ribRoutes, route);
  rib.commit();

  const Stopwatch stopwatch;
  Publisher publisher(published);
  rib.walk(ribRoutes, [&](Bytes key, Bytes bytes) {
    using RouteTraits = Pondra::TableTraits<Routing::Rib::Route>;
    const std::optional<RouteTraits::Key> routeKey = RouteTraits::decodeKey(key.data());
    const auto route = RouteTraits::decode(*routeKey, bytes).value();
    const Bytes via = rib.get(ribVias, encodedKey<RibVia>(route.viaKey())).value();
    publisher.publish(route, via);
  });
  published.commit();
  return {stopwatch.cpuSeconds(), publisher.routes(), publisher.adjacencies()};
}

}  // namespace Bench
