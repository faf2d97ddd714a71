// The options by which a simulation is told what traffic there is.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "simulator/Traffic.h"
#include "simulator/ZipfTraffic.h"
#include "tools/FlowFile.h"

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

// The settings with the crowds and the scan put in. Throws BadText for texts that are none.
Simulator::ZipfSettings zipfSettings(const TrafficOptions& options);

// What a traffic source has to know of the switch.
struct TrafficInputs {
  std::vector<Simulator::Destination> destinations;  // for made-up traffic, in order
  HwVrfIdOf hwVrfIdOf;                               // for flows
};
// Throws BadText or RangeError for options that make no traffic.
std::unique_ptr<Simulator::TrafficSource> trafficFrom(const TrafficOptions& options, TrafficInputs inputs);

}  // namespace Tools
