#include "simulator/forwarding/HitBits.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace Simulator {

HitBits::HitBits(std::shared_ptr<RouteCache::Ipv4HitBitStatus> table, const RouteIndex& index, double idleTime,
                 double now)
    : table_(std::move(table)),
      index_(index),
      idleTime_(idleTime),
      agedSlot_(static_cast<std::int64_t>(std::floor(now / slotWidth))) {}

void HitBits::renew(RouteHandle route, Entry& entry, double now) {
  if (entry.value == noEntry) {
    if (!table_->hasRoom()) return;
    ++size_;
  }
  write(route, entry, maxValue);
  if (!entry.awaited) await(route, entry, now);
}

void HitBits::write(RouteHandle route, Entry& entry, int value) {
  entry.value = static_cast<std::int16_t>(value);
  table_->routeHitBitIs({index_.key(route), static_cast<std::uint32_t>(value)});
}

void HitBits::adopt(RouteHandle route, std::uint32_t value, double now) {
  const int known = static_cast<int>(std::min<std::uint32_t>(value, maxValue));
  Entry& entry = entries_[route];
  if (entry.value == noEntry) ++size_;
  entry.value = static_cast<std::int16_t>(known);
  entry.lastHit = now - step * (maxValue - known);
  if (!entry.awaited) await(route, entry, now);
}

void HitBits::drop(RouteHandle route) {
  if (!has(route)) return;
  entries_[route].value = noEntry;
  --size_;
  table_->routeHitBitDel(index_.key(route));
}

// Into the slot of the next moment at which something can be due.
void HitBits::await(RouteHandle route, Entry& entry, double now) {
  const double stepsDone = std::floor((now - entry.lastHit) / step);
  double due = entry.lastHit + step * (stepsDone + 1);
  if (entry.lastHit + idleTime_ > now) due = std::min(due, entry.lastHit + idleTime_);
  const auto slot = static_cast<std::int64_t>(std::ceil(due / slotWidth));
  entry.awaited = true;
  ring_[static_cast<std::size_t>(std::clamp(slot, agedSlot_ + 1, agedSlot_ + slots - 1) % slots)].push_back(route);
}

void HitBits::look(RouteHandle route, double now) {
  Entry& entry = entries_[route];
  entry.awaited = false;
  if (entry.value == noEntry) return;
  const double idle = now - entry.lastHit;
  if (idle >= idleTime_) {
    drop(route);
    return;
  }
  const int value = maxValue - static_cast<int>(std::min<double>(idle / step, maxValue));
  if (value != entry.value) write(route, entry, value);
  // Nothing more happens to a 0 that stays.
  if (value > 0 || std::isfinite(idleTime_)) await(route, entry, now);
}

void HitBits::age(double now) {
  const auto until = static_cast<std::int64_t>(std::floor(now / slotWidth));
  // After a long pause every slot is due, each once.
  agedSlot_ = std::max(agedSlot_, until - slots);
  std::vector<RouteHandle> due;
  while (agedSlot_ < until) {
    ++agedSlot_;
    due.clear();
    std::swap(due, ring_[static_cast<std::size_t>(agedSlot_ % slots)]);
    for (const RouteHandle route : due) look(route, now);
  }
}

}  // namespace Simulator
