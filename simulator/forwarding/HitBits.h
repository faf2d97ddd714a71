// The hit bits of one forwarding plane: which routes traffic has met, and how long ago, published in a hit-bit table.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <vector>

#include "RouteCache/RouteCache.h"
#include "simulator/forwarding/RouteIndex.h"

namespace Simulator {

// A hit gives a route the value 255; each 20 idle seconds take one off, down to 0. A route that was never hit has no
// entry. After `idleTime` seconds without a hit the entry goes (never, when that is infinite).
//
// The table is written when a value differs from what stands there, not when a packet passes: a hit on a route whose
// value is 255 costs one store. An entry is looked at when its next step would be due if nothing hit it, so at most
// once in 20 seconds; steps come late by up to a quarter of a second and the pause between two calls of age().
class HitBits {
 public:
  static constexpr int maxValue = 255;
  static constexpr double step = 20;  // seconds

  // The table is this object's to write; the index outlives it. `now` is the time of the scheduler that all others are
  // of.
  HitBits(std::shared_ptr<RouteCache::Ipv4HitBitStatus> table, const RouteIndex& index, double idleTime, double now);

  // An entry that finds no room in the table is tried again at the route's next hit.
  void hit(RouteHandle route, double now) {
    Entry& entry = entries_[route];
    entry.lastHit = now;
    if (entry.value != maxValue) renew(route, entry, now);
  }
  // Takes over the entry that stands in the table: the route has been idle for as long as its value says.
  void adopt(RouteHandle route, std::uint32_t value, double now);
  // Removes the route's entry, if it has one.
  void drop(RouteHandle route);
  // Removes from the table an entry that was never adopted.
  void discard(const RouteIndex::Key& key) { table_->routeHitBitDel(key); }
  bool has(RouteHandle route) const { return entries_.at(route).value != noEntry; }
  // Takes off what the time since the last hits demands. Call it often.
  void age(double now);

  // Routes with an entry.
  std::size_t size() const { return size_; }
  const RouteCache::Ipv4HitBitStatus& table() const { return *table_; }

 private:
  static constexpr std::int16_t noEntry = -1;
  static constexpr double slotWidth = 0.25;   // seconds
  static constexpr std::int64_t slots = 128;  // more than `step` is long
  static_assert(slots * slotWidth > step + 1);

  struct Entry {
    double lastHit = 0;
    std::int16_t value = noEntry;  // as it stands in the table
    bool awaited = false;          // stands in a slot of the ring, whether it still has an entry or not
  };

  void renew(RouteHandle route, Entry& entry, double now);
  void write(RouteHandle route, Entry& entry, int value);
  void await(RouteHandle route, Entry& entry, double now);
  void look(RouteHandle route, double now);

  std::shared_ptr<RouteCache::Ipv4HitBitStatus> table_;
  const RouteIndex& index_;
  double idleTime_;
  PerRoute<Entry> entries_;
  std::size_t size_ = 0;
  // Who is to be looked at, by time: slot n % slots holds those due in ((n - 1) * slotWidth, n * slotWidth].
  std::array<std::vector<RouteHandle>, slots> ring_;
  std::int64_t agedSlot_;  // the last slot that has been emptied
};

}  // namespace Simulator
