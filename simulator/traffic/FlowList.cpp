#include "simulator/traffic/FlowList.h"

#include <algorithm>
#include <limits>

#include "platform/values/Assert.h"

namespace Simulator {

void FlowList::flowIs(double time, const Destination& destination, std::uint32_t packets) {
  PLATFORM_ASSERT(!started_);
  PLATFORM_ASSERT(time >= 0 && packets >= 1);
  PLATFORM_ASSERT(destinations_.size() < std::numeric_limits<std::uint32_t>::max());
  const auto [entry, isNew] = indexes_.try_emplace(destination, static_cast<std::uint32_t>(destinations_.size()));
  if (isNew) destinations_.push_back(destination);
  flows_.push_back({time, {entry->second, packets}});
}

void FlowList::hwVrfIdsAre(const std::vector<std::uint32_t>& hwVrfIds) {
  PLATFORM_ASSERT(!started_);
  indexes_.clear();
  for (std::uint32_t i = 0; i < destinations_.size(); ++i) {
    destinations_[i].hwVrfId = hwVrfIds.at(destinations_[i].hwVrfId);
    indexes_.emplace(destinations_[i], i);
  }
}

void FlowList::pull(double until, std::vector<Burst>& bursts) {
  if (!started_) {
    started_ = true;
    indexes_ = {};
    // Most lists are sorted already; sorting takes as much memory again.
    if (!std::ranges::is_sorted(flows_, {}, &Flow::time)) std::ranges::stable_sort(flows_, {}, &Flow::time);
  }
  for (; next_ < flows_.size() && flows_[next_].time < until; ++next_) bursts.push_back(flows_[next_].burst);
}

}  // namespace Simulator
