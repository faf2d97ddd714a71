// The routing process's side of the RIB tables: the one writer of the configured route-cache routes and their EVPN
// vias.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <vector>

#include "platform/tables/Rib.h"

namespace Tools {

// What is to be written: vias, and routes that name them or vias that stand already.
struct RibChange {
  std::vector<Routing::Rib::RouteCache::Evpn::Via> vias;
  std::vector<Routing::Rib::Route> routes;  // sorted by key, no key twice
  bool changesVias = true;                  // false: no via that stands may get other next hops by it
};

// What has been done to the tables.
struct RibCounts {
  std::size_t routesWritten = 0;
  std::size_t routesStood = 0;      // of those written: they were there already,
  std::size_t routesMoved = 0;      // and of these, with another via
  std::size_t routesRewritten = 0;  // with the value that they had, because the via they name has changed
  std::size_t routesRemoved = 0;
  std::size_t viasWritten = 0;
  std::size_t viasRemoved = 0;  // because no route names them any more
};

// Looks at the three tables as a reader until the first change, then holds them as their one writer until the table
// service goes. A via is written before the routes that name it and removed after them.
class RibWriter {
 public:
  using Route = Routing::Rib::Route;
  using RouteKey = Routing::Rib::RouteKey;
  using Via = Routing::Rib::RouteCache::Evpn::Via;
  using ViaNexthop = Routing::Rib::RouteCache::Evpn::ViaNexthop;
  using Nexthops = std::vector<ViaNexthop>;
  using ViaKey = Routing::Rib::ViaKey;
  // Told of every entry that is handled.
  using Progress = std::function<void()>;

  // The service outlives the writer. Throws TableError when there is another kind of table at one of the paths.
  RibWriter(Pondra::TableService& tables, Progress progress);

  // For each of these sets of next hops, all different, the key of a via that has exactly them; else a key that is
  // free, the lowest first.
  std::vector<ViaKey> viaKeysFor(const std::vector<Nexthops>& sets) const;

  // Writes the vias that differ from what stands; then, with the value they have, all other routes that name one of
  // those, so that who follows the routes hears of it; then the routes of the change, also those that stand already;
  // and removes the vias that lost their last route by it. `capacity` is that of the route tables; 0 takes what they
  // have, or more where the change needs it. Throws, with no entry written, RangeError when the change does not fit a
  // given capacity, TableError when another process is the writer, and std::runtime_error when one was meanwhile and
  // has taken a via's key.
  void apply(const RibChange& change, std::uint32_t capacity = 0);
  // Removes the routes that are `doomed`, and then all vias that no route names, also those that a writer left behind
  // that was killed before it wrote their routes.
  void remove(const std::function<bool(const RouteKey&)>& doomed);

  const RibCounts& counts() const { return counts_; }

 private:
  using RouteConfig = Routing::Rib::RouteConfig;
  using ViaConfig = Routing::Rib::RouteCache::Evpn::ViaConfig;

  RouteConfig& routesOf(const RouteKey& key) const { return key.prefix().isV4() ? *routes4_ : *routes6_; }
  void writerIs(const RibChange& change, std::uint32_t capacity);
  void checkViasKept(const std::vector<Via>& vias) const;
  void rewriteRoutes(RouteConfig& routes, const std::set<ViaKey>& changedVias, const RibChange& except);
  void removeReleasedVias();
  void changeEnds();

  Pondra::TableService& tables_;
  Progress progress_;
  std::shared_ptr<RouteConfig> routes4_;
  std::shared_ptr<RouteConfig> routes6_;
  std::shared_ptr<ViaConfig> vias_;
  std::set<ViaKey> releasedVias_;  // by some route; it may be named by others
  RibCounts counts_;
};

}  // namespace Tools
