#include "RouteCache/queues/DeferredTask.h"

#include <cmath>

#include "platform/values/Text.h"

namespace RouteCache {

std::string intervalFault(std::initializer_list<Interval> intervals) {
  for (const Interval& interval : intervals) {
    if (std::isfinite(interval.seconds) && interval.seconds >= interval.least) continue;
    return std::string(interval.name) + " is a finite number of seconds, at least " + Platform::toText(interval.least);
  }
  return {};
}

}  // namespace RouteCache
