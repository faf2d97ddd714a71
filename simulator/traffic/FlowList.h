// Traffic that was recorded: flows with their times, replayed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <unordered_map>
#include <vector>

#include "simulator/traffic/TrafficSource.h"

namespace Simulator {

// Flows in the order of their times, each sent as one burst at its time; of flows at one time the one added first goes
// first. 16 bytes per flow. Destinations are listed in the order in which they were added first.
class FlowList final : public TrafficSource {
 public:
  // Adds a flow: at a time of 0 or more seconds, of 1 packet or more. Only before the first pull().
  void flowIs(double time, const Destination& destination, std::uint32_t packets);

  // Gives every destination another hardware VRF id: the one that stands at its present one. Only before the first
  // pull().
  void hwVrfIdsAre(const std::vector<std::uint32_t>& hwVrfIds);

  const std::vector<Destination>& destinations() const override { return destinations_; }
  void pull(double until, std::vector<Burst>& bursts) override;
  bool exhausted() const override { return next_ == flows_.size(); }

 private:
  struct Flow {
    double time;
    Burst burst;
  };
  struct DestinationHash {
    std::size_t operator()(const Destination& destination) const {
      return static_cast<std::size_t>(Platform::hashMix(destination.hwVrfId, destination.addr.value()));
    }
  };

  std::vector<Destination> destinations_;
  std::unordered_map<Destination, std::uint32_t, DestinationHash> indexes_;  // until the first pull
  std::vector<Flow> flows_;                                                  // from the first pull on sorted by time
  bool started_ = false;
  std::size_t next_ = 0;
};

}  // namespace Simulator
