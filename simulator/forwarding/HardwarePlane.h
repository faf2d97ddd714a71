// The forwarding hardware: programs the routes of "routecache/route/hw/ipv4" that it has room for, and reports their
// hit bits in "hardware/routecache/status/ipv4".
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <unordered_map>

#include "RouteCache/RouteCache.h"
#include "platform/services/TaskScheduler.h"
#include "platform/tables/SharedTable.h"
#include "platform/tables/TableFollower.h"
#include "platform/values/Paths.h"
#include "simulator/forwarding/HitBits.h"
#include "simulator/forwarding/ProgrammingQueue.h"
#include "simulator/forwarding/RouteIndex.h"

namespace Simulator {

struct HardwareSettings {
  std::uint32_t capacity = 0;  // routes; 0: as many as the route table holds at the start
  double routesPerSecond = 0;  // how fast it programs; 0: no limit
};

// Since the start. A route that is there again within HardwarePlane::readmissionTime of its eviction counts among both
// the admissions and the readmissions. Routes that a predecessor had programmed are no admissions.
struct HardwareCounters {
  std::uint64_t admissions = 0;
  std::uint64_t evictions = 0;
  std::uint64_t readmissions = 0;
};

// Every entry of the table is wanted, whatever its inHw says. Wanted routes are programmed in the order in which they
// were heard of, at the hardware's rate, while there is room; those that find none wait until another goes. A route
// that leaves the table leaves the hardware at once, and its hit-bit entry with it.
//
// A start over tables that a predecessor left: a hit-bit entry shows that the hardware held its route. If the table
// still has that route it stays programmed and keeps the entry; other entries go.
//
// Invariants: at most capacity() routes are programmed; every entry of the hit-bit table is that of a programmed route.
class HardwarePlane {
 public:
  static constexpr const char* routePath = Paths::hwRoutes;
  static constexpr const char* hitBitPath = Paths::hwHitBits;
  static constexpr double readmissionTime = 300;  // seconds

  // Mounts both tables; the route table must exist. All arguments outlive the plane. Throws TableError when another
  // process writes the hit bits.
  HardwarePlane(Pondra::TableService& tables, Platform::TaskScheduler& scheduler, RouteIndex& index,
                const HardwareSettings& settings);
  HardwarePlane(const HardwarePlane&) = delete;
  HardwarePlane& operator=(const HardwarePlane&) = delete;
  ~HardwarePlane();

  // Called for each route that has been programmed from now on.
  void programmedIs(std::function<void(RouteHandle)> hook) { programmedHook_ = std::move(hook); }
  bool programmed(RouteHandle route) const { return states_.at(route).programmed; }
  // A packet for a programmed route.
  void hit(RouteHandle route, double now) { hitBits_->hit(route, now); }
  void age(double now) { hitBits_->age(now); }

  std::uint32_t capacity() const { return capacity_; }
  std::uint32_t programmedRoutes() const { return programmedRoutes_; }
  std::size_t waitingRoutes() const { return queue_->size(); }
  const HardwareCounters& counters() const { return counters_; }

 private:
  struct State {
    bool programmed = false;
  };
  struct Eviction {
    RouteIndex::Key key;
    double time = 0;
  };

  void takeOver();
  void handleRoute(const RouteIndex::Key& key);
  void program(RouteHandle route);
  void unprogram(RouteHandle route);
  void noteEviction(const RouteIndex::Key& key);

  Platform::TaskScheduler& scheduler_;
  RouteIndex& index_;
  std::shared_ptr<const RouteCache::Ipv4RouteStatus> routes_;
  std::uint32_t capacity_ = 0;
  std::unique_ptr<HitBits> hitBits_;
  std::unique_ptr<ProgrammingQueue> queue_;
  PerRoute<State> states_;
  std::uint32_t programmedRoutes_ = 0;
  HardwareCounters counters_;
  // The evictions of the last readmissionTime seconds, in the order of time, and when each key last went.
  std::deque<Eviction> recentEvictions_;
  std::unordered_map<RouteIndex::Key, double, Platform::Hasher> evictedAt_;
  std::function<void(RouteHandle)> programmedHook_;
  std::unique_ptr<Pondra::TableFollower<RouteCache::Ipv4RouteStatus, HardwarePlane>> reactor_;
};

}  // namespace Simulator
