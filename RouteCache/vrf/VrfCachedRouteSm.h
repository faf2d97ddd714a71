// The cached-route state machine of one VRF: keeps the VRF's two cached-route tries equal to those routes of its FIB
// that have the route-cache type.
//
// The two families differ in one thing: at creation the IPv4 trie is filled with what the FIB holds, the IPv6 trie is
// not; it gets the routes that change from then on. A table tells its reactors of changes made after they registered,
// so what stood there before is the sweep's to bring; so is a table that could not be read before. A sweep goes through
// the table in its order, a time slice at a time; what changes meanwhile is brought at once, by its own reaction,
// wherever the sweep stands.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "RouteCache/model/Sides.h"
#include "RouteCache/queues/DeferredTask.h"
#include "platform/services/TaskScheduler.h"
#include "platform/tables/Fib.h"
#include "platform/trace/Trace.h"

namespace RouteCache {

// Made by VrfSm, one for each hardware VRF id in use. The tries are in other hands too, and stay as they are when this
// goes.
class VrfCachedRouteSm {
 public:
  // A FIB table that could not be mounted is null: its trie then stays empty. The scheduler outlives this.
  VrfCachedRouteSm(std::shared_ptr<const Pondra::Fib::RouteStatus> routeStatus,
                   std::shared_ptr<const Pondra::Fib6::RouteStatus> route6Status, std::uint32_t hwVrfId,
                   std::shared_ptr<Routing::Trie> vrfTrie, std::shared_ptr<Routing6::Trie> vrfTrie6,
                   Platform::TaskScheduler& scheduler, Platform::TraceFacility& trace);
  VrfCachedRouteSm(const VrfCachedRouteSm&) = delete;
  VrfCachedRouteSm& operator=(const VrfCachedRouteSm&) = delete;
  ~VrfCachedRouteSm();

  const auto& routeStatus() const { return sides_.v4.routeStatus; }
  const auto& route6Status() const { return sides_.v6.routeStatus; }
  std::uint32_t hwVrfId() const { return hwVrfId_; }
  const auto& vrfTrie() const { return sides_.v4.vrfTrie; }
  const auto& vrfTrie6() const { return sides_.v6.vrfTrie; }

  // Starts the IPv4 sweep.
  void handleInitialized();
  // Sweeps the whole table: the first time slice of it before this returns, the rest in runs of "fibSweepTask" (IPv6:
  // "fib6SweepTask"), which exists until the sweep is done. A sweep under way starts afresh.
  void handleFibRoute();
  void handleFibRoute6();
  // Brings one prefix of the trie in line with the FIB.
  void handleFibRoute(const Prefix& prefix);
  void handleFibRoute6(const Ip6Prefix& prefix);

 private:
  template <class Family>
  using FibTable = ByFamily<Family, Pondra::Fib::RouteStatus, Pondra::Fib6::RouteStatus>;
  template <class Family>
  class FibReactor;

  // What one family works with.
  template <class Family>
  struct Side {
    std::shared_ptr<const FibTable<Family>> routeStatus;
    std::shared_ptr<CachedTrie<Family>> vrfTrie;
    std::unique_ptr<FibReactor<Family>> reactor;
    std::unique_ptr<DeferredTask> sweepTask;  // null: no sweep under way
    // Where the sweep goes on, or at the next key if that has gone; nothing: at the beginning.
    std::optional<typename Family::Prefix> sweepBookmark;
    std::uint64_t swept = 0;  // entries, by the sweep under way
  };

  template <class Family>
  void startSweep(const char* taskName);
  template <class Family>
  void handleFibSweep();
  template <class Family>
  void bringInLine(const typename Family::Prefix& prefix);
  // The reaction of the prefix's family, by overload.
  void handlePrefix(const Prefix& prefix) { handleFibRoute(prefix); }
  void handlePrefix(const Ip6Prefix& prefix) { handleFibRoute6(prefix); }

  Platform::TaskScheduler& scheduler_;
  Platform::TraceHandle trace_;
  std::uint32_t hwVrfId_;
  Sides<Side> sides_;
};

// Makes the state machine; its first time slice of the IPv4 sweep is done when this returns.
std::shared_ptr<VrfCachedRouteSm> VrfCachedRouteSmIs(std::shared_ptr<const Pondra::Fib::RouteStatus> routeStatus,
                                                     std::shared_ptr<const Pondra::Fib6::RouteStatus> route6Status,
                                                     std::uint32_t hwVrfId, std::shared_ptr<Routing::Trie> vrfTrie,
                                                     std::shared_ptr<Routing6::Trie> vrfTrie6,
                                                     Platform::TaskScheduler& scheduler,
                                                     Platform::TraceFacility& trace);

}  // namespace RouteCache
