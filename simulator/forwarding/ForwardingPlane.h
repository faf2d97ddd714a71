// The forwarding plane of a switch: hardware and software forwarding engine together, and the traffic that meets them.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "platform/services/TaskScheduler.h"
#include "platform/tables/SharedTable.h"
#include "simulator/forwarding/HardwarePlane.h"
#include "simulator/forwarding/RouteIndex.h"
#include "simulator/forwarding/SfePlane.h"
#include "simulator/traffic/TrafficSource.h"

namespace Simulator {

struct ForwardingSettings {
  HardwareSettings hardware;
  SfeSettings sfe;
  double tick = 0.02;  // seconds of traffic that are forwarded in one go
};

// Packets since the start, by who forwarded them.
struct PacketCounters {
  std::uint64_t hardware = 0;
  std::uint64_t sfe = 0;
  std::uint64_t unroutable = 0;  // no route, or one that neither of the two can forward by
  std::uint64_t all() const { return hardware + sfe + unroutable; }
};

// Pulls a traffic source tick by tick. A packet goes by the longest route that covers its destination among those that
// are published (in the SFE's table or the hardware's): through the hardware if it has programmed that route, else
// through the SFE if that holds it, else nowhere. The packets of a tick count as sent at its end.
//
// What was found for a destination is remembered until a route that covers it comes or goes.
class ForwardingPlane {
 public:
  // Whether the agent's two route tables exist; mounts them.
  static bool tablesExist(Pondra::TableService& tables);

  // The tables must exist. All arguments outlive the plane. The traffic's time begins now. Throws TableError when
  // another process plays the forwarding plane on these tables.
  ForwardingPlane(Pondra::TableService& tables, Platform::TaskScheduler& scheduler, TrafficSource& traffic,
                  const ForwardingSettings& settings);
  ForwardingPlane(const ForwardingPlane&) = delete;
  ForwardingPlane& operator=(const ForwardingPlane&) = delete;

  // Called at the end of each tick.
  void afterTickIs(std::function<void()> hook) { afterTick_ = std::move(hook); }

  // No further ticks: there is no traffic any more, and hit bits stay as they are. The planes go on programming.
  void stop() { stopped_ = true; }

  // Seconds since the start, at the last tick.
  double time() const { return time_; }
  double tick() const { return settings_.tick; }
  // The traffic of the last tick.
  const std::vector<Burst>& bursts() const { return bursts_; }
  const PacketCounters& packets() const { return packets_; }
  const HardwarePlane& hardware() const { return hardware_; }
  const SfePlane& sfe() const { return sfe_; }

 private:
  // Not a route number: the destination has to be looked up.
  static constexpr RouteHandle unknownRoute = noRoute - 1;

  void sortDestinations();
  void forgetDestinations(const RouteIndex::Key& key);
  void scheduleTick();
  void handleTick();
  void forward(const Burst& burst, double now);

  Platform::TaskScheduler& scheduler_;
  TrafficSource& traffic_;
  ForwardingSettings settings_;
  RouteIndex index_;
  HardwarePlane hardware_;
  SfePlane sfe_;

  std::vector<RouteHandle> routeOf_;               // by destination
  std::vector<std::uint32_t> sortedDestinations_;  // by VRF, then address
  std::vector<Burst> bursts_;                      // of the last tick
  PacketCounters packets_;
  double start_;
  double time_ = 0;
  std::uint64_t ticks_ = 0;
  bool stopped_ = false;
  std::function<void()> afterTick_;
  std::unique_ptr<Platform::Task> tickTask_;
};

}  // namespace Simulator
