// What traffic there is to be: made up or recorded.
#pragma once

#include <memory>
#include <optional>
#include <vector>

#include "simulator/input/RecordedFlows.h"
#include "simulator/traffic/TrafficSource.h"
#include "simulator/traffic/ZipfTraffic.h"

namespace Tools {

// As far as it can be told without a switch.
struct TrafficPlan {
  Simulator::ZipfSettings zipf;        // with the crowds and the scan put in
  std::optional<RecordedFlows> flows;  // instead
};

// What a traffic source has to know of the switch.
struct TrafficInputs {
  std::vector<Simulator::Destination> destinations;  // for made-up traffic, in order
  HwVrfIdOf hwVrfIdOf;                               // for flows
};
// Once. Throws BadText or RangeError for a plan that makes no traffic on this switch.
std::unique_ptr<Simulator::TrafficSource> trafficFrom(TrafficPlan& plan, TrafficInputs inputs);

}  // namespace Tools
