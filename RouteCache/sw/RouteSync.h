// The walk over one family's published routes that finds those to be withdrawn: no longer configured, or under a
// hardware VRF id that is not their VRF's any more. In slices; once begun it goes on without a pause, taking turns with
// route processing.
//
// Invariant: a route that had to go when the walk was asked for has been handed out, is ahead of the bookmark, or is
// met by the walk that follows.
#pragma once

#include <optional>
#include <utility>

#include "RouteCache/model/Sides.h"
#include "RouteCache/model/VrfIdMap.h"
#include "RouteCache/queues/DeferredTask.h"
#include "platform/tables/Rib.h"

namespace RouteCache {

template <class Family>
class RouteSync {
 public:
  using Key = BasicRouteVrfKey<Family>;
  using RouteKey = Routing::Rib::RouteKey;

  RouteSync(const RouteStatus<Family>& routes, const Routing::Rib::RouteConfig& config, const VrfIdMap& vrfIdMap,
            const Platform::TraceHandle& trace)
      : routes_(routes), config_(config), vrfIdMap_(vrfIdMap), trace_(trace) {}

  std::optional<Key> bookmark() const { return bookmark_; }
  bool endedOnce() const { return endedOnce_; }

  // Something has changed that a walk under way may have passed: another one follows it.
  void againIs() { again_ = again_ || bookmark_.has_value(); }
  // Goes on, and calls withdraw(key) for each route that has to go. False: to be continued, or begun again, in the
  // task's next run.
  template <class Withdraw>
  bool run(DeferredTask& task, std::string_view name, Withdraw&& withdraw) {
    std::uint64_t handled = 0;
    const auto next = visitUntilYield(task, resumeFrom(routes_, bookmark_), routes_.end(), handled,
                                      [&](const BasicRoute<Family>& route) {
                                        if (hasGone(route.key())) withdraw(route.key());
                                      });
    bookmark_ = bookmarkOf(next, routes_.end());
    task.report(handled, 0);
    if (bookmark_) {
      trace_(5, name, " rescheduled with ", "Bookmark ", *bookmark_);
      return false;
    }
    trace_(5, name, " ended with ", handled);
    endedOnce_ = true;
    return !std::exchange(again_, false);
  }

 private:
  bool hasGone(const Key& key) const {
    const std::uint32_t piVrfId = vrfIdMap_.hwVrfIdToGlobalVrfId(key.vrfId());
    // Mapped back and forward again, the VRF must still have this hardware id.
    if (!vrfIdMap_.hwVrfIdToGlobalVrfIdHas(key.vrfId()) || !vrfIdMap_.globalVrfIdToHwVrfIdHas(piVrfId) ||
        vrfIdMap_.globalVrfIdToHwVrfId(piVrfId) != key.vrfId()) {
      trace_(5, "key has gone away. Deleting vrfId: ", key.vrfId());
      return true;
    }
    const RouteKey routeKey(piVrfId, key.prefix());
    if (config_.has(routeKey)) {
      trace_(9, routeKey, " still in pondra");
      return false;
    }
    trace_(5, routeKey, " has gone away. Deleting ");
    return true;
  }

  const RouteStatus<Family>& routes_;
  const Routing::Rib::RouteConfig& config_;
  const VrfIdMap& vrfIdMap_;
  const Platform::TraceHandle& trace_;
  std::optional<Key> bookmark_;  // set: a walk is under way
  bool again_ = false;
  bool endedOnce_ = false;
};

}  // namespace RouteCache
