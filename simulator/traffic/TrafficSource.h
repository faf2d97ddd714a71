// Traffic for the forwarding plane: who sends how much to which destination, and when. The same settings give the same
// packets, on every machine.
#pragma once

#include <cstdint>
#include <vector>

#include "platform/values/Net.h"

namespace Simulator {

// Where packets go.
struct Destination {
  std::uint32_t hwVrfId = 0;
  IpAddr addr;
  bool operator==(const Destination&) const = default;
};

// Packets to one destination that count as sent at one moment.
struct Burst {
  std::uint32_t destination = 0;  // index into TrafficSource::destinations()
  std::uint32_t packets = 0;
};

// A stream of bursts in the order of time, pulled by whoever forwards them. Time is in seconds from the traffic's
// start.
class TrafficSource {
 public:
  virtual ~TrafficSource() = default;
  // Every destination that this traffic can have; does not change.
  virtual const std::vector<Destination>& destinations() const = 0;
  // Appends all that is sent before `until` and has not been pulled yet. How the time is cut into calls does not change
  // the packets, nor their order.
  virtual void pull(double until, std::vector<Burst>& bursts) = 0;
  // Nothing more will ever come (a flow list's end).
  virtual bool exhausted() const = 0;
};

}  // namespace Simulator
