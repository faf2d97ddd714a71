#include "simulator/forwarding/ForwardingPlane.h"

#include <algorithm>
#include <cmath>
#include <numeric>
#include <utility>

#include "simulator/forwarding/PlaneTables.h"

namespace Simulator {

namespace {

// Destinations in the order of VRF and address, as one number.
std::uint64_t rank(const Destination& destination) {
  return std::uint64_t{destination.hwVrfId} << 32 | destination.addr.value();
}

}  // namespace

bool ForwardingPlane::tablesExist(Pondra::TableService& tables) {
  const auto hardware = mountedToFollow<RouteCache::Ipv4RouteStatus>(tables, HardwarePlane::routePath);
  const auto sfe = mountedToFollow<RouteCache::Ipv4RouteStatus>(tables, SfePlane::routePath);
  return hardware->mounted() && sfe->mounted();
}

ForwardingPlane::ForwardingPlane(Pondra::TableService& tables, Platform::TaskScheduler& scheduler,
                                 TrafficSource& traffic, const ForwardingSettings& settings)
    : scheduler_(scheduler),
      traffic_(traffic),
      settings_(settings),
      hardware_(tables, scheduler, index_, settings.hardware),
      sfe_(tables, scheduler, index_, settings.sfe, [this](RouteHandle route) { return hardware_.programmed(route); }),
      routeOf_(traffic.destinations().size(), unknownRoute),
      start_(scheduler.now()),
      tickTask_(scheduler.taskIs("forwardingTask", Platform::TaskPriority::processing, [this] { handleTick(); })) {
  sortDestinations();
  index_.changedIs([this](const RouteIndex::Key& key) { forgetDestinations(key); });
  hardware_.programmedIs([this](RouteHandle route) { sfe_.handleProgrammedInHardware(route); });
  scheduleTick();
}

void ForwardingPlane::sortDestinations() {
  sortedDestinations_.resize(routeOf_.size());
  std::iota(sortedDestinations_.begin(), sortedDestinations_.end(), 0U);
  const auto& destinations = traffic_.destinations();
  std::ranges::sort(sortedDestinations_, {}, [&](std::uint32_t index) { return rank(destinations[index]); });
}

void ForwardingPlane::forgetDestinations(const RouteIndex::Key& key) {
  const auto& destinations = traffic_.destinations();
  const auto byRank = [&](std::uint32_t index) { return rank(destinations[index]); };
  const auto last = rank({key.vrfId(), key.prefix().last()});
  auto covered = std::ranges::lower_bound(sortedDestinations_, rank({key.vrfId(), key.prefix().addr()}), {}, byRank);
  for (; covered != sortedDestinations_.end() && byRank(*covered) <= last; ++covered) routeOf_[*covered] = unknownRoute;
}

// Ticks keep to the grid of their start: a late one does not delay those behind it, and those missed are made up for by
// the next.
void ForwardingPlane::scheduleTick() {
  const double elapsed = scheduler_.now() - start_;
  ticks_ = std::max(ticks_, static_cast<std::uint64_t>(elapsed / settings_.tick)) + 1;
  tickTask_->scheduleWithin(start_ + static_cast<double>(ticks_) * settings_.tick - scheduler_.now());
}

void ForwardingPlane::handleTick() {
  const double now = scheduler_.now();
  time_ = now - start_;
  hardware_.age(now);
  sfe_.age(now);
  bursts_.clear();
  traffic_.pull(time_, bursts_);
  for (const Burst& burst : bursts_) forward(burst, now);
  tickTask_->workCountIs(bursts_.size());
  if (afterTick_) afterTick_();
  if (!stopped_) scheduleTick();
}

void ForwardingPlane::forward(const Burst& burst, double now) {
  RouteHandle& route = routeOf_[burst.destination];
  if (route == unknownRoute) route = index_.longestMatch(traffic_.destinations()[burst.destination]);
  if (hardware_.programmed(route)) {
    packets_.hardware += burst.packets;
    hardware_.hit(route, now);
  } else if (sfe_.holds(route)) {
    packets_.sfe += burst.packets;
    sfe_.hit(route, now);
  } else {
    packets_.unroutable += burst.packets;
  }
}

}  // namespace Simulator
