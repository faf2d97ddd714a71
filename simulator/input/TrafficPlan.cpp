#include "simulator/input/TrafficPlan.h"

#include <utility>

namespace Tools {

std::unique_ptr<Simulator::TrafficSource> trafficFrom(TrafficPlan& plan, TrafficInputs inputs) {
  if (plan.flows) return plan.flows->on(inputs.hwVrfIdOf);
  return std::make_unique<Simulator::ZipfTraffic>(std::move(inputs.destinations), plan.zipf);
}

}  // namespace Tools
