#include "simulator/forwarding/SfePlane.h"

#include <vector>

#include "simulator/forwarding/PlaneTables.h"

namespace Simulator {

using RouteCache::Ipv4HitBitStatus;
using RouteCache::Ipv4ProgrammedRouteStatus;
using RouteCache::Ipv4RouteStatus;

SfePlane::SfePlane(Pondra::TableService& tables, Platform::TaskScheduler& scheduler, RouteIndex& index,
                   const SfeSettings& settings, const std::function<bool(RouteHandle)>& inHardware)
    : scheduler_(scheduler), index_(index), routes_(mountedToFollow<Ipv4RouteStatus>(tables, routePath)) {
  const auto capacity = static_cast<std::uint32_t>(routes_->capacity());
  programmed_ = mountedToWrite<Ipv4ProgrammedRouteStatus>(tables, programmedPath, capacity);
  hitBits_ = std::make_unique<HitBits>(mountedToWrite<Ipv4HitBitStatus>(tables, hitBitPath, capacity), index,
                                       settings.idleTime, scheduler.now());
  queue_ = std::make_unique<ProgrammingQueue>(
      scheduler, "sfeProgrammingTask", settings.routesPerSecond, [this] { return programmed_->hasRoom(); },
      [this](RouteHandle route) { program(route); });
  Pondra::follow(reactor_, *this, routes_, &SfePlane::handleRoute);
  takeOver(inHardware);
}

SfePlane::~SfePlane() = default;

void SfePlane::takeOver(const std::function<bool(RouteHandle)>& inHardware) {
  std::vector<RouteIndex::Key> strangers;
  for (const auto& entry : *programmed_) {
    const auto route = routes_->route(entry.key());
    if (route && !route->inHw()) {
      states_[index_.hold(entry.key(), Holder::sfe)].programmed = true;
    } else {
      strangers.push_back(entry.key());
    }
  }
  for (const auto& key : strangers) programmed_->routeDel(key);
  for (const auto& entry : *routes_) handleRoute(entry.key());

  strangers.clear();
  for (const auto& entry : hitBits_->table()) {
    const RouteHandle route = index_.find(entry.key());
    if (holds(route) && !inHardware(route)) {
      hitBits_->adopt(route, entry.hitbit(), scheduler_.now());
    } else {
      strangers.push_back(entry.key());
    }
  }
  for (const auto& key : strangers) hitBits_->discard(key);
}

void SfePlane::handleRoute(const RouteIndex::Key& key) {
  if (const auto entry = routes_->route(key)) {
    const RouteHandle route = index_.hold(key, Holder::sfe);
    if (entry->inHw()) {
      unprogram(route);
    } else if (!states_.at(route).programmed) {
      queue_->add(route);
    }
    return;
  }
  const RouteHandle route = index_.find(key);
  if (!holds(route)) return;
  unprogram(route);
  hitBits_->drop(route);
  index_.release(route, Holder::sfe);
}

void SfePlane::program(RouteHandle route) {
  states_[route].programmed = true;
  programmed_->routeIs(RouteCache::Ipv4ProgrammedRoute(index_.key(route)));
}

void SfePlane::unprogram(RouteHandle route) {
  queue_->remove(route);
  if (!states_.at(route).programmed) return;
  states_[route].programmed = false;
  programmed_->routeDel(index_.key(route));
  queue_->roomReturned();
}

}  // namespace Simulator
