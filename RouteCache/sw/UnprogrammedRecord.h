// The record of configured routes that hardware does not hold: a table for other processes, smaller than what it may
// have to hold. A route that finds no room in it is left out, and a walk over the configuration is owed that puts it
// in when another one goes. While the record is full, or nobody was left out, that costs nothing.
//
// Invariant: a route that was left out since it last stood in the record is met by a walk that is owed.
#pragma once

#include <memory>
#include <optional>

#include "RouteCache/queues/RouteStatusWalk.h"
#include "platform/tables/Rib.h"
#include "platform/trace/Trace.h"

namespace RouteCache {

class UnprogrammedRecord {
 public:
  using Table = Routing::Rib::RouteConfig;
  using Route = Routing::Rib::Route;
  using RouteKey = Routing::Rib::RouteKey;

  // The configurations, of IPv4 and IPv6 routes, and the trace handle outlive the record.
  UnprogrammedRecord(std::shared_ptr<Table> table, const Table& config, const Table& config6,
                     const Platform::TraceHandle& trace)
      : table_(std::move(table)), walk_(config), walk6_(config6), trace_(trace) {}

  const Table& table() const { return *table_; }
  // Writes the route where it differs from what is recorded; leaves it out when there is no room.
  void routeIs(const Route& route);
  void routeDel(const RouteKey& key);

  // There is room, and somebody who was left out may want it.
  bool walkOwed() const { return table_->hasRoom() && (walk_.pending() || walk6_.pending()); }
  // Goes on by one route of the walk that is owed: a key that may be missing from the record, or nothing.
  std::optional<RouteKey> walkStep() { return walk_.pending() ? walk_.step() : walk6_.step(); }
  bool willMeet(const RouteKey& key) const { return walkOf(key).willMeet(key); }

  // How often a route was left out.
  std::uint64_t refusals() const { return refusals_; }

 private:
  using Walk = RouteStatusWalk<Table>;
  const Walk& walkOf(const RouteKey& key) const { return key.prefix().isV4() ? walk_ : walk6_; }

  std::shared_ptr<Table> table_;
  Walk walk_;
  Walk walk6_;
  const Platform::TraceHandle& trace_;
  bool full_ = false;  // traced already
  std::uint64_t refusals_ = 0;
};

}  // namespace RouteCache
