#include "RouteCache/vrf/VrfCachedRouteSm.h"

#include <algorithm>
#include <type_traits>
#include <utility>

namespace RouteCache {

// Follows one FIB table.
template <class Family>
class VrfCachedRouteSm::FibReactor final : public FibTable<Family>::Reactor {
 public:
  FibReactor(VrfCachedRouteSm& sm, std::shared_ptr<const FibTable<Family>> table)
      : FibTable<Family>::Reactor(std::move(table)), sm_(sm) {}
  void handleEntry(const typename Family::Prefix& prefix) override { sm_.handlePrefix(prefix); }
  // What a table holds that has become readable is not told. The IPv6 trie gets what changes only.
  void handleMountStatus() override {
    if constexpr (std::is_same_v<Family, Ipv4Family>) sm_.handleFibRoute();
  }

 private:
  VrfCachedRouteSm& sm_;
};

VrfCachedRouteSm::VrfCachedRouteSm(std::shared_ptr<const Pondra::Fib::RouteStatus> routeStatus,
                                   std::shared_ptr<const Pondra::Fib6::RouteStatus> route6Status, std::uint32_t hwVrfId,
                                   std::shared_ptr<Routing::Trie> vrfTrie, std::shared_ptr<Routing6::Trie> vrfTrie6,
                                   Platform::TaskScheduler& scheduler, Platform::TraceFacility& trace)
    : scheduler_(scheduler), trace_(trace, "RouteCacheVrfSm"), hwVrfId_(hwVrfId) {
  const auto sideIs = [this]<class Family>(Side<Family>& side, auto table, auto trie) {
    side.routeStatus = std::move(table);
    side.vrfTrie = std::move(trie);
    if (side.routeStatus) side.reactor = std::make_unique<FibReactor<Family>>(*this, side.routeStatus);
  };
  sideIs.operator()<Ipv4Family>(sides_.v4, std::move(routeStatus), std::move(vrfTrie));
  sideIs.operator()<Ipv6Family>(sides_.v6, std::move(route6Status), std::move(vrfTrie6));
  handleInitialized();
}

VrfCachedRouteSm::~VrfCachedRouteSm() = default;

std::shared_ptr<VrfCachedRouteSm> VrfCachedRouteSmIs(std::shared_ptr<const Pondra::Fib::RouteStatus> routeStatus,
                                                     std::shared_ptr<const Pondra::Fib6::RouteStatus> route6Status,
                                                     std::uint32_t hwVrfId, std::shared_ptr<Routing::Trie> vrfTrie,
                                                     std::shared_ptr<Routing6::Trie> vrfTrie6,
                                                     Platform::TaskScheduler& scheduler,
                                                     Platform::TraceFacility& trace) {
  return std::make_shared<VrfCachedRouteSm>(std::move(routeStatus), std::move(route6Status), hwVrfId,
                                            std::move(vrfTrie), std::move(vrfTrie6), scheduler, trace);
}

// The IPv4 sweep only: the IPv6 trie begins empty.
void VrfCachedRouteSm::handleInitialized() {
  trace_(9, __PRETTY_FUNCTION__, " hwVrfId: ", hwVrfId_);
  handleFibRoute();
}

// --- One prefix ------------------------------------------------------------------------------------------------------

void VrfCachedRouteSm::handleFibRoute(const Prefix& prefix) {
  trace_(9, __PRETTY_FUNCTION__, " ", prefix);
  bringInLine<Ipv4Family>(prefix);
}

void VrfCachedRouteSm::handleFibRoute6(const Ip6Prefix& prefix) {
  trace_(9, __PRETTY_FUNCTION__, " ", prefix);
  bringInLine<Ipv6Family>(prefix);
}

template <class Family>
void VrfCachedRouteSm::bringInLine(const typename Family::Prefix& prefix) {
  auto& side = sides_.of<Family>();
  if (!side.routeStatus) return;
  const auto route = side.routeStatus->route(prefix);
  using RouteType = decltype(route->routeType());  // each family numbers its own
  if (route && route->routeType() == RouteType::routeCache_) {
    trace_(7, "adding prefix: ", prefix);
    side.vrfTrie->routeIs(prefix, true);
  } else if (side.vrfTrie->has(prefix)) {
    trace_(7, "deleting prefix: ", prefix);
    side.vrfTrie->routeDel(prefix);
  }
}

// --- The sweep -------------------------------------------------------------------------------------------------------

void VrfCachedRouteSm::handleFibRoute() {
  trace_(9, __PRETTY_FUNCTION__);
  startSweep<Ipv4Family>("fibSweepTask");
}

void VrfCachedRouteSm::handleFibRoute6() {
  trace_(9, __PRETTY_FUNCTION__);
  startSweep<Ipv6Family>("fib6SweepTask");
}

template <class Family>
void VrfCachedRouteSm::startSweep(const char* taskName) {
  auto& side = sides_.of<Family>();
  if (!side.routeStatus) return;
  side.sweepBookmark.reset();
  side.swept = 0;
  // Ahead of the tasks that decide routes: until its prefix is in the trie, a route passes for one that is not cached.
  side.sweepTask = std::make_unique<DeferredTask>(scheduler_, trace_, taskName, Platform::TaskPriority::delivery,
                                                  [this] { handleFibSweep<Family>(); });
  handleFibSweep<Family>();
}

// Where an entry is damaged the table tells the corruption handler and the walk goes to the next key that can be read;
// keys only ever rise, so a table in whatever state comes to its end.
template <class Family>
void VrfCachedRouteSm::handleFibSweep() {
  auto& side = sides_.of<Family>();
  const auto& table = *side.routeStatus;
  auto route = side.sweepBookmark ? table.lowerBound(*side.sweepBookmark) : table.begin();
  std::uint64_t handled = 0;
  while (route != table.end()) {
    handlePrefix(route->key());
    ++route;
    ++handled;
    if (side.sweepTask->shouldYield()) break;
  }
  if (route == table.end()) {
    side.sweepTask.reset();
    return;
  }
  side.sweepBookmark = route->key();
  side.swept += handled;
  side.sweepTask->report(handled, std::max<std::uint64_t>(table.size(), side.swept) - side.swept);
  side.sweepTask->schedule(0);
}

}  // namespace RouteCache
