#include "simulator/forwarding/HardwarePlane.h"

#include <algorithm>
#include <limits>
#include <vector>

#include "simulator/forwarding/PlaneTables.h"

namespace Simulator {

using RouteCache::Ipv4HitBitStatus;
using RouteCache::Ipv4RouteStatus;

HardwarePlane::HardwarePlane(Pondra::TableService& tables, Platform::TaskScheduler& scheduler, RouteIndex& index,
                             const HardwareSettings& settings)
    : scheduler_(scheduler), index_(index), routes_(mountedToFollow<Ipv4RouteStatus>(tables, routePath)) {
  const auto tableCapacity = static_cast<std::uint32_t>(routes_->capacity());
  capacity_ = settings.capacity != 0 ? settings.capacity : tableCapacity;
  auto hitBits = mountedToWrite<Ipv4HitBitStatus>(tables, hitBitPath, std::max(capacity_, tableCapacity));
  hitBits_ =
      std::make_unique<HitBits>(std::move(hitBits), index, std::numeric_limits<double>::infinity(), scheduler.now());
  queue_ = std::make_unique<ProgrammingQueue>(
      scheduler, "hwProgrammingTask", settings.routesPerSecond, [this] { return programmedRoutes_ < capacity_; },
      [this](RouteHandle route) { program(route); });
  Pondra::follow(reactor_, *this, routes_, &HardwarePlane::handleRoute);
  takeOver();
}

HardwarePlane::~HardwarePlane() = default;

void HardwarePlane::takeOver() {
  std::vector<RouteIndex::Key> strangers;
  for (const auto& entry : hitBits_->table()) {
    if (programmedRoutes_ == capacity_ || !routes_->has(entry.key())) {
      strangers.push_back(entry.key());
      continue;
    }
    const RouteHandle route = index_.hold(entry.key(), Holder::hardware);
    states_[route].programmed = true;
    ++programmedRoutes_;
    hitBits_->adopt(route, entry.hitbit(), scheduler_.now());
  }
  for (const auto& key : strangers) hitBits_->discard(key);
  for (const auto& entry : *routes_) handleRoute(entry.key());
}

void HardwarePlane::handleRoute(const RouteIndex::Key& key) {
  if (routes_->has(key)) {
    const RouteHandle known = index_.find(key);
    if (index_.held(known, Holder::hardware)) return;
    queue_->add(index_.hold(key, Holder::hardware));
    return;
  }
  const RouteHandle route = index_.find(key);
  if (!index_.held(route, Holder::hardware)) return;
  queue_->remove(route);
  unprogram(route);
  index_.release(route, Holder::hardware);
}

void HardwarePlane::program(RouteHandle route) {
  states_[route].programmed = true;
  ++programmedRoutes_;
  ++counters_.admissions;
  const auto evicted = evictedAt_.find(index_.key(route));
  if (evicted != evictedAt_.end() && scheduler_.now() - evicted->second <= readmissionTime) ++counters_.readmissions;
  if (programmedHook_) programmedHook_(route);
}

void HardwarePlane::unprogram(RouteHandle route) {
  State& state = states_[route];
  if (!state.programmed) return;
  state.programmed = false;
  --programmedRoutes_;
  ++counters_.evictions;
  noteEviction(index_.key(route));
  hitBits_->drop(route);
  queue_->roomReturned();
}

void HardwarePlane::noteEviction(const RouteIndex::Key& key) {
  const double now = scheduler_.now();
  while (!recentEvictions_.empty() && now - recentEvictions_.front().time > readmissionTime) {
    const auto old = evictedAt_.find(recentEvictions_.front().key);
    if (old != evictedAt_.end() && old->second == recentEvictions_.front().time) evictedAt_.erase(old);
    recentEvictions_.pop_front();
  }
  recentEvictions_.push_back({key, now});
  evictedAt_[key] = now;
}

}  // namespace Simulator
