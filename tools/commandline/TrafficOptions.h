// The options by which a simulation is told what traffic there is.
#pragma once

#include <string>
#include <vector>

#include "simulator/input/TrafficPlan.h"

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

// Reads the flows. Throws BadText or RangeError for options that make no traffic on any switch.
TrafficPlan trafficPlan(const TrafficOptions& options);

}  // namespace Tools
