// The software forwarding engine: holds every route of "routecache/route/sfe/ipv4" and forwards what the hardware does
// not. Reports in "sfe/routecache/status/ipv4" the routes that its traffic hits, and in
// "sfe/routecache/programmed/ipv4" those it has programmed to take over from the hardware.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "RouteCache/RouteCache.h"
#include "platform/services/TaskScheduler.h"
#include "platform/tables/SharedTable.h"
#include "platform/tables/TableFollower.h"
#include "platform/values/Paths.h"
#include "simulator/forwarding/HitBits.h"
#include "simulator/forwarding/ProgrammingQueue.h"
#include "simulator/forwarding/RouteIndex.h"

namespace Simulator {

struct SfeSettings {
  double routesPerSecond = 0;  // how fast it programs; 0: no limit
  double idleTime = 60;        // seconds without a hit after which a hit-bit entry goes
};

// A route can forward as soon as it stands in the table. Those whose inHw is false are programmed as well, in the order
// in which they were heard of, at the engine's rate: the programmed table holds exactly these, and loses one when its
// inHw becomes true or the route goes.
//
// A hit in software gives a route a hit-bit entry, which counts down as the hardware's does; it goes when the hardware
// has programmed the route, when the route goes, and after the idle time.
//
// A start over tables that a predecessor left keeps the entries that belong there and removes the others.
//
// Invariants: every entry of the programmed table is that of a route in the table with inHw false, as last heard of;
// every entry of the hit-bit table is that of a route in the table.
class SfePlane {
 public:
  static constexpr const char* routePath = Paths::sfeRoutes;
  static constexpr const char* hitBitPath = Paths::sfeHitBits;
  static constexpr const char* programmedPath = Paths::sfeProgrammed;

  // Mounts the three tables; the route table must exist. `inHardware` tells whether the hardware has programmed a
  // route. All arguments outlive the plane. Throws TableError when another process writes one of the two.
  SfePlane(Pondra::TableService& tables, Platform::TaskScheduler& scheduler, RouteIndex& index,
           const SfeSettings& settings, const std::function<bool(RouteHandle)>& inHardware);
  SfePlane(const SfePlane&) = delete;
  SfePlane& operator=(const SfePlane&) = delete;
  ~SfePlane();

  bool holds(RouteHandle route) const { return index_.held(route, Holder::sfe); }
  // A packet for a route that it holds and the hardware does not.
  void hit(RouteHandle route, double now) { hitBits_->hit(route, now); }
  // The hardware has the route now.
  void handleProgrammedInHardware(RouteHandle route) { hitBits_->drop(route); }
  void age(double now) { hitBits_->age(now); }

  std::size_t hitRoutes() const { return hitBits_->size(); }

 private:
  struct State {
    bool programmed = false;
  };

  void takeOver(const std::function<bool(RouteHandle)>& inHardware);
  void handleRoute(const RouteIndex::Key& key);
  void program(RouteHandle route);
  void unprogram(RouteHandle route);

  Platform::TaskScheduler& scheduler_;
  RouteIndex& index_;
  std::shared_ptr<const RouteCache::Ipv4RouteStatus> routes_;
  std::shared_ptr<RouteCache::Ipv4ProgrammedRouteStatus> programmed_;
  std::unique_ptr<HitBits> hitBits_;
  std::unique_ptr<ProgrammingQueue> queue_;
  PerRoute<State> states_;
  std::unique_ptr<Pondra::TableFollower<RouteCache::Ipv4RouteStatus, SfePlane>> reactor_;
};

}  // namespace Simulator
