#include "simulator/forwarding/ProgrammingQueue.h"

#include <algorithm>
#include <utility>

namespace Simulator {

namespace {
constexpr double burst = 0.1;   // seconds' worth of tokens that can be saved up
constexpr double pause = 0.02;  // seconds between two runs that wait for tokens
}  // namespace

ProgrammingQueue::ProgrammingQueue(Platform::TaskScheduler& scheduler, const std::string& taskName,
                                   double routesPerSecond, std::function<bool()> hasRoom,
                                   std::function<void(RouteHandle)> program)
    : scheduler_(scheduler),
      rate_(routesPerSecond),
      hasRoom_(std::move(hasRoom)),
      program_(std::move(program)),
      task_(scheduler.taskIs(taskName, Platform::TaskPriority::processing, [this] { work(); })),
      refilled_(scheduler.now()) {}

void ProgrammingQueue::add(RouteHandle route) {
  std::uint64_t& place = places_[route];
  if (place != 0) return;
  place = ++lastPlace_;
  queue_.push_back({route, place});
  ++size_;
  roomReturned();
}

void ProgrammingQueue::remove(RouteHandle route) {
  if (!has(route)) return;
  places_[route] = 0;
  --size_;
}

void ProgrammingQueue::roomReturned() {
  if (size_ > 0 && hasRoom_()) task_->scheduleWithin(0);
}

void ProgrammingQueue::refill() {
  const double now = scheduler_.now();
  tokens_ = std::min(tokens_ + (now - refilled_) * rate_, std::max(1.0, rate_ * burst));
  refilled_ = now;
}

// Takes the first place off the queue; false when it was nobody's any more.
bool ProgrammingQueue::programNext() {
  const Place place = queue_.front();
  queue_.pop_front();
  if (places_.at(place.route) != place.number) return false;
  places_[place.route] = 0;
  --size_;
  program_(place.route);
  return true;
}

void ProgrammingQueue::work() {
  const bool limited = rate_ > 0;
  refill();
  std::uint64_t handled = 0;
  while (size_ > 0 && hasRoom_() && (!limited || tokens_ >= 1)) {
    if (programNext()) {
      tokens_ -= limited ? 1 : 0;
      ++handled;
    }
    if (task_->shouldYield()) break;
  }
  if (size_ == 0) queue_.clear();
  task_->workCountIs(handled);
  task_->workPendingIs(size_);
  if (size_ == 0 || !hasRoom_()) return;
  task_->scheduleWithin(limited && tokens_ < 1 ? std::max(pause, (1 - tokens_) / rate_) : 0);
}

}  // namespace Simulator
