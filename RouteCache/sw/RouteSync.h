// The walk over one family's published routes that finds those to be withdrawn: no longer configured, or under a
// hardware VRF id that is not their VRF's any more. In slices; once begun it goes on without a pause, taking turns with
// route processing.
//
// Invariant: a route that had to go when the walk was asked for has been handed out, is ahead of the bookmark, or is
// met by the walk that follows.
#pragma once

#include <array>
#include <optional>
#include <span>
#include <utility>

#include "RouteCache/model/Sides.h"
#include "RouteCache/model/VrfIdMap.h"
#include "RouteCache/queues/DeferredTask.h"
#include "RouteCache/queues/ReadAhead.h"
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
                                      [&](const BasicRoute<Family>& route) { visit(route.key(), withdraw); });
    withdrawUnconfigured(withdraw);
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
  template <class Withdraw>
  void visit(const Key& key, Withdraw&& withdraw) {
    if (hasLeftItsId(key.vrfId())) return withdraw(key);
    asked_[count_] = RouteKey(vrfIdMap_.hwVrfIdToGlobalVrfId(key.vrfId()), key.prefix());
    visited_[count_++] = key;
    if (count_ == visited_.size()) withdrawUnconfigured(withdraw);
  }

  bool hasLeftItsId(std::uint32_t hwVrfId) const {
    const std::uint32_t piVrfId = vrfIdMap_.hwVrfIdToGlobalVrfId(hwVrfId);
    // Mapped back and forward again, the VRF must still have this hardware id.
    if (vrfIdMap_.hwVrfIdToGlobalVrfIdHas(hwVrfId) && vrfIdMap_.globalVrfIdToHwVrfIdHas(piVrfId) &&
        vrfIdMap_.globalVrfIdToHwVrfId(piVrfId) == hwVrfId) {
      return false;
    }
    trace_(5, "key has gone away. Deleting vrfId: ", hwVrfId);
    return true;
  }

  // Of those that have been visited; looked up together, so that none waits for memory by itself.
  template <class Withdraw>
  void withdrawUnconfigured(Withdraw&& withdraw) {
    const std::size_t count = std::exchange(count_, 0);
    config_.encodedEntries(std::span<const RouteKey>(asked_).first(count), [&](std::size_t i, const auto& found) {
      if (found) {
        trace_(9, asked_[i], " still in pondra");
      } else {
        trace_(5, asked_[i], " has gone away. Deleting ");
        withdraw(visited_[i]);
      }
    });
  }

  const RouteStatus<Family>& routes_;
  const Routing::Rib::RouteConfig& config_;
  const VrfIdMap& vrfIdMap_;
  const Platform::TraceHandle& trace_;
  std::optional<Key> bookmark_;  // set: a walk is under way
  bool again_ = false;
  bool endedOnce_ = false;
  // Visited in this run and not looked up yet.
  std::array<Key, readAheadGroup> visited_;
  std::array<RouteKey, readAheadGroup> asked_;
  std::size_t count_ = 0;
};

}  // namespace RouteCache
