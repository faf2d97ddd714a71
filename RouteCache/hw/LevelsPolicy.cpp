#include "RouteCache/hw/LevelsPolicy.h"

#include <algorithm>

#include "platform/values/Assert.h"

namespace RouteCache {

bool LevelsPolicy::isScarce() const {
  return static_cast<std::uint8_t>(state_.percentUsed()) >= state_.low.hwUtilPercentage;
}

bool LevelsPolicy::admits(const Ipv4Route& sfeRoute, std::uint32_t sfeHitbit) const {
  if (sfeHitbit != 0) return true;
  if (isScarce()) return false;
  const AdjId* const aged = agedOut_.find(sfeRoute.key());
  return aged == nullptr || *aged != sfeRoute.adjId();
}

std::optional<AgeingPlan> LevelsPolicy::ageingPlan(std::uint32_t pending) {
  if (!isScarce()) return std::nullopt;
  const std::uint32_t perc = state_.percentUsed();
  const std::uint32_t excess = perc - state_.low.hwUtilPercentage;
  const auto tooMany = static_cast<std::uint32_t>(std::uint64_t{excess} * state_.capacity / 100);
  AgeingPlan plan{std::max(tooMany, pending), state_.low.idleTimeSlice};
  // With no route waiting, only what has been idle for the low level's time goes.
  if (pending > 0 && perc >= state_.high.hwUtilPercentage) {
    plan.top = state_.high.idleTimeSlice;
  } else if (pending > 0 && perc >= state_.medium.hwUtilPercentage) {
    plan.top = state_.medium.idleTimeSlice;
  }
  return plan;
}

void LevelsPolicy::handleLeftOut(const Ipv4Route& sfeRoute, std::uint32_t sfeHitbit) {
  const AdjId* const aged = agedOut_.find(sfeRoute.key());
  if (aged != nullptr && (sfeHitbit != 0 || *aged != sfeRoute.adjId())) agedOut_.noteDel(sfeRoute.key());
}

void LevelsPolicy::handleAged(const Ipv4Route& hwRoute) {
  agedOut_.noteIs(hwRoute.key(), hwRoute.adjId());
  if (agedOut_.size() > state_.capacity) agedOut_.noteDel(*agedOut_.oldestKey());
}

void LevelsPolicy::checkInvariants(const Ipv4RouteStatus& hwRoutes) const {
  PLATFORM_ASSERT_TEXT(agedOut_.size() <= state_.capacity, "no more is remembered than the capacity");
  agedOut_.forEach([&hwRoutes](const Key& key, AdjId) {
    PLATFORM_ASSERT_TEXT(!hwRoutes.has(key), "what ageing has taken out is not in the hardware table");
  });
}

}  // namespace RouteCache
