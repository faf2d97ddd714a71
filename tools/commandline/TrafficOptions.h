// The options by which a simulation is told what traffic there is.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "simulator/input/RecordedFlows.h"
#include "simulator/traffic/Traffic.h"
#include "simulator/traffic/ZipfTraffic.h"

namespace CLI {
class App;
}  // namespace CLI

namespace Tools {

// As the command line gives it.
struct TrafficOptions {
  Simulator::ZipfSettings zipf;
  std::vector<std::string> crowds;  // START:DURATION:SHARE:DESTINATIONS
  std::string scan;                 // START:RATE or START:RATE:DURATION
  std::string flows;                // a file of flows, instead of all the others
};

// Adds --exponent, --shift, --seed, --rate, --drift, --hot-share, --flash-crowd, --scan-attack and --flows.
void addTrafficOptions(CLI::App& command, TrafficOptions& options);

// What the options come to, as far as that can be told without a switch.
struct TrafficPlan {
  Simulator::ZipfSettings zipf;        // with the crowds and the scan put in
  std::optional<RecordedFlows> flows;  // instead
};
// Reads the flows. Throws BadText or RangeError for options that make no traffic on any switch.
TrafficPlan trafficPlan(const TrafficOptions& options);

// What a traffic source has to know of the switch.
struct TrafficInputs {
  std::vector<Simulator::Destination> destinations;  // for made-up traffic, in order
  HwVrfIdOf hwVrfIdOf;                               // for flows
};
// Once. Throws BadText or RangeError for a plan that makes no traffic on this switch.
std::unique_ptr<Simulator::TrafficSource> trafficFrom(TrafficPlan& plan, TrafficInputs inputs);

}  // namespace Tools
