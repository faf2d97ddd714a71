// The types and members of SwRouteSm that serve each address family: private to its sources.
#pragma once

#include "RouteCache/sw/SwRouteSm.h"

namespace RouteCache {

// Number 0 stands for no adjacency, whatever its class bits: a route that carries it holds nothing.
inline bool isAdjacency(AdjId adjId) {
  return (adjId.value() & AdjId::adjacencyIdMask) != AdjId::adjacencyInvalid;
}

// Class bits and number, and nothing between them.
inline bool isWellFormed(AdjId adjId) {
  return (adjId.value() & ~(AdjId::adjacencyMixedConst | AdjId::adjacencyIdMask)) == 0;
}

// Family of a route's key. The next hops of a route are independent of it: an IPv4 route may leave over IPv6 tunnels.
struct SwRouteSm::V4 {
  static constexpr AddressFamily family = AddressFamily::ipv4;
  using Key = Ipv4RouteVrfKey;
  using Route = Ipv4Route;
  using Via = Ipv4Via;
  using NexthopRef = Ipv4NexthopRef;
  using Nexthop = Ipv4Nexthop;
  using Addr = IpAddr;
  static Prefix prefix(const IpGenPrefix& prefix) { return prefix.v4(); }
  static const std::shared_ptr<Ipv4RouteStatus>& routes(const SwRouteSm& sm) { return sm.in_.ipv4RouteStatus; }
  static const std::shared_ptr<Ipv4AdjacencyStatus>& adjacencies(const SwRouteSm& sm) { return sm.in_.ipv4AdjStatus; }
  static const Routing::Rib::RouteConfig& config(const SwRouteSm& sm) { return *sm.in_.routeConfig; }
  static auto& inherited(SwRouteSm& sm) { return sm.inherited4_; }
  static const auto& inherited(const SwRouteSm& sm) { return sm.inherited4_; }
  static auto& vteps(SwRouteSm& sm) { return sm.vteps4_; }
  static const auto& vteps(const SwRouteSm& sm) { return sm.vteps4_; }
  static auto& sync(SwRouteSm& sm) { return sm.ipv4Sync_; }
  static auto& adjSync(SwRouteSm& sm) { return sm.ipv4AdjSync_; }
  static DeferredTask& syncTask(SwRouteSm& sm) { return sm.routeSyncTask_; }
  static DeferredTask& adjSyncTask(SwRouteSm& sm) { return sm.ipv4AdjSyncTask_; }
  static const std::shared_ptr<Ipv4NexthopRef>& part(const IpMixedNexthopRef& ref) { return ref.v4nh(); }
  static RoomEpisode& routeRoom(SwRouteSm& sm) { return sm.routeRoom4_; }
  static RoomEpisode& adjRoom(SwRouteSm& sm) { return sm.adjRoom4_; }
  static bool hasClass(AdjId adjId) { return adjId.isAdjacencyV4(); }
};

struct SwRouteSm::V6 {
  static constexpr AddressFamily family = AddressFamily::ipv6;
  using Key = Ipv6RouteVrfKey;
  using Route = Ipv6Route;
  using Via = Ipv6Via;
  using NexthopRef = Ipv6NexthopRef;
  using Nexthop = Ipv6Nexthop;
  using Addr = Ip6Addr;
  static Ip6Prefix prefix(const IpGenPrefix& prefix) { return prefix.v6(); }
  static const std::shared_ptr<Ipv6RouteStatus>& routes(const SwRouteSm& sm) { return sm.in_.ipv6RouteStatus; }
  static const std::shared_ptr<Ipv6AdjacencyStatus>& adjacencies(const SwRouteSm& sm) { return sm.in_.ipv6AdjStatus; }
  static const Routing::Rib::RouteConfig& config(const SwRouteSm& sm) { return *sm.in_.route6Config; }
  static auto& inherited(SwRouteSm& sm) { return sm.inherited6_; }
  static const auto& inherited(const SwRouteSm& sm) { return sm.inherited6_; }
  static auto& vteps(SwRouteSm& sm) { return sm.vteps6_; }
  static const auto& vteps(const SwRouteSm& sm) { return sm.vteps6_; }
  static auto& sync(SwRouteSm& sm) { return sm.ipv6Sync_; }
  static auto& adjSync(SwRouteSm& sm) { return sm.ipv6AdjSync_; }
  static DeferredTask& syncTask(SwRouteSm& sm) { return sm.route6SyncTask_; }
  static DeferredTask& adjSyncTask(SwRouteSm& sm) { return sm.ipv6AdjSyncTask_; }
  static const std::shared_ptr<Ipv6NexthopRef>& part(const IpMixedNexthopRef& ref) { return ref.v6nh(); }
  static RoomEpisode& routeRoom(SwRouteSm& sm) { return sm.routeRoom6_; }
  static RoomEpisode& adjRoom(SwRouteSm& sm) { return sm.adjRoom6_; }
  static bool hasClass(AdjId adjId) { return adjId.isAdjacencyV6(); }
};

template <class F>
std::optional<typename F::Key> SwRouteSm::tableKey(const RouteKey& key) const {
  if (!in_.vrfIdMap->globalVrfIdToHwVrfIdHas(key.vrfId())) return std::nullopt;
  return typename F::Key(F::prefix(key.prefix()), in_.vrfIdMap->globalVrfIdToHwVrfId(key.vrfId()));
}

}  // namespace RouteCache
