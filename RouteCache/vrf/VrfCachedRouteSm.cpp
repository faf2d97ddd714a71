#include "RouteCache/vrf/VrfCachedRouteSm.h"

#include <algorithm>
#include <type_traits>
#include <utility>

namespace RouteCache {

// Follows one FIB table.
template <class FibTable>
class VrfCachedRouteSm::FibReactor final : public FibTable::Reactor {
 public:
  FibReactor(VrfCachedRouteSm& sm, std::shared_ptr<const FibTable> table)
      : FibTable::Reactor(std::move(table)), sm_(sm) {}
  void handleEntry(const typename FibTable::Key& prefix) override { sm_.handlePrefix(prefix); }
  // What a table holds that has become readable is not told. The IPv6 trie gets what changes only.
  void handleMountStatus() override {
    if constexpr (std::is_same_v<FibTable, Pondra::Fib::RouteStatus>) sm_.handleFibRoute();
  }

 private:
  VrfCachedRouteSm& sm_;
};

VrfCachedRouteSm::VrfCachedRouteSm(std::shared_ptr<const Pondra::Fib::RouteStatus> routeStatus,
                                   std::shared_ptr<const Pondra::Fib6::RouteStatus> route6Status, std::uint32_t hwVrfId,
                                   std::shared_ptr<Routing::Trie> vrfTrie, std::shared_ptr<Routing6::Trie> vrfTrie6,
                                   Platform::TaskScheduler& scheduler, Platform::TraceFacility& trace)
    : scheduler_(scheduler), trace_(trace, "RouteCacheVrfSm"), hwVrfId_(hwVrfId) {
  const auto familyIs = [this](auto& family, auto table, auto trie) {
    family.routeStatus = std::move(table);
    family.vrfTrie = std::move(trie);
    using Reactor = typename decltype(family.reactor)::element_type;
    if (family.routeStatus) family.reactor = std::make_unique<Reactor>(*this, family.routeStatus);
  };
  familyIs(ipv4_, std::move(routeStatus), std::move(vrfTrie));
  familyIs(ipv6_, std::move(route6Status), std::move(vrfTrie6));
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
  bringInLine(ipv4_, prefix);
}

void VrfCachedRouteSm::handleFibRoute6(const Ip6Prefix& prefix) {
  trace_(9, __PRETTY_FUNCTION__, " ", prefix);
  bringInLine(ipv6_, prefix);
}

template <class FamilyType, class PrefixType>
void VrfCachedRouteSm::bringInLine(FamilyType& family, const PrefixType& prefix) {
  if (!family.routeStatus) return;
  const auto route = family.routeStatus->route(prefix);
  using RouteType = decltype(route->routeType());  // each family numbers its own
  if (route && route->routeType() == RouteType::routeCache_) {
    trace_(7, "adding prefix: ", prefix);
    family.vrfTrie->routeIs(prefix, true);
  } else if (family.vrfTrie->has(prefix)) {
    trace_(7, "deleting prefix: ", prefix);
    family.vrfTrie->routeDel(prefix);
  }
}

// --- The sweep -------------------------------------------------------------------------------------------------------

void VrfCachedRouteSm::handleFibRoute() {
  trace_(9, __PRETTY_FUNCTION__);
  startSweep(ipv4_, "fibSweepTask");
}

void VrfCachedRouteSm::handleFibRoute6() {
  trace_(9, __PRETTY_FUNCTION__);
  startSweep(ipv6_, "fib6SweepTask");
}

template <class FamilyType>
void VrfCachedRouteSm::startSweep(FamilyType& family, const char* taskName) {
  if (!family.routeStatus) return;
  family.sweepBookmark.reset();
  family.swept = 0;
  // Ahead of the tasks that decide routes: until its prefix is in the trie, a route passes for one that is not cached.
  family.sweepTask = std::make_unique<DeferredTask>(scheduler_, trace_, taskName, Platform::TaskPriority::delivery,
                                                    [this, &family] { handleFibSweep(family); });
  handleFibSweep(family);
}

// Where an entry is damaged the table tells the corruption handler and the walk goes to the next key that can be read;
// keys only ever rise, so a table in whatever state comes to its end.
template <class FamilyType>
void VrfCachedRouteSm::handleFibSweep(FamilyType& family) {
  const auto& table = *family.routeStatus;
  auto route = family.sweepBookmark ? table.lowerBound(*family.sweepBookmark) : table.begin();
  std::uint64_t handled = 0;
  while (route != table.end()) {
    handlePrefix(route->key());
    ++route;
    ++handled;
    if (family.sweepTask->shouldYield()) break;
  }
  if (route == table.end()) {
    family.sweepTask.reset();
    return;
  }
  family.sweepBookmark = route->key();
  family.swept += handled;
  family.sweepTask->report(handled, std::max<std::uint64_t>(table.size(), family.swept) - family.swept);
  family.sweepTask->schedule(0);
}

}  // namespace RouteCache
