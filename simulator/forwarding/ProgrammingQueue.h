// Routes that wait to be programmed into a forwarding plane, which takes its time over it.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>

#include "platform/services/TaskScheduler.h"
#include "simulator/forwarding/RouteIndex.h"

namespace Simulator {

// First come, first served, at most `routesPerSecond` (0: as fast as the task gets its turn), while there is room.
// Works in a task of its own. A plane that has been idle makes up for a tenth of a second at most.
class ProgrammingQueue {
 public:
  // `hasRoom` is asked before each route; `program` is told the route, which has left the queue by then.
  ProgrammingQueue(Platform::TaskScheduler& scheduler, const std::string& taskName, double routesPerSecond,
                   std::function<bool()> hasRoom, std::function<void(RouteHandle)> program);

  // Behind the others, unless it waits already.
  void add(RouteHandle route);
  // Nothing happens when it does not wait.
  void remove(RouteHandle route);
  bool has(RouteHandle route) const { return places_.at(route) != 0; }
  // There may be room again.
  void roomReturned();
  std::size_t size() const { return size_; }

 private:
  // A place is valid while it is the route's own: one that left and came back stands behind.
  struct Place {
    RouteHandle route = noRoute;
    std::uint64_t number = 0;
  };

  void work();
  void refill();
  bool programNext();

  Platform::TaskScheduler& scheduler_;
  double rate_;
  std::function<bool()> hasRoom_;
  std::function<void(RouteHandle)> program_;
  std::unique_ptr<Platform::Task> task_;
  std::deque<Place> queue_;
  PerRoute<std::uint64_t> places_;  // 0: does not wait
  std::uint64_t lastPlace_ = 0;
  std::size_t size_ = 0;
  double tokens_ = 0;  // routes that may be programmed now
  double refilled_;    // when tokens were last added
};

}  // namespace Simulator
