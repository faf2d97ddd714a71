// Made-up traffic: destinations drawn by a Zipf-Mandelbrot law whose ranks drift, with flash crowds and a scan attack.
#pragma once

#include <cstdint>
#include <limits>
#include <optional>
#include <vector>

#include "simulator/traffic/Popularity.h"
#include "simulator/traffic/Random.h"
#include "simulator/traffic/TrafficSource.h"
#include "simulator/traffic/ZipfMandelbrot.h"

namespace Simulator {

// From `start`, for `duration` seconds, a share of the packets goes to a few destinations that were cold until then,
// drawn at random when the crowd forms; each of them gets as much as any other. The rest of the packets keep to the
// law.
struct FlashCrowd {
  double start = 0;
  double duration = 0;             // seconds, over 0
  double share = 0;                // 0 to 1
  std::uint32_t destinations = 0;  // 1 to as many as are cold
};

// From `start`, on top of all other traffic, one packet to each destination that is cold then, in the order of the
// list of destinations. Ends after `duration` seconds or when every one had its packet.
struct ScanAttack {
  double start = 0;
  double duration = std::numeric_limits<double>::infinity();  // seconds, over 0
  double rate = 1000;                                         // packets per second, over 0
};

// Times are seconds from the traffic's start.
struct ZipfSettings {
  double exponent = 1.0;  // 0 to 10; 0 asks for all destinations alike
  double shift = 0.0;     // 0 to 1e9; the larger, the more alike are the first ranks
  std::uint64_t seed = 1;
  double rate = 10'000;  // packets per second, over 0 to 1e9, evenly spaced; the first one at time 0
  // The share of ranks, 0 to 1, that get another destination in every minute, spread evenly over it.
  double drift = 0.0;
  // The share of ranks from the top, 0 to 1, whose destinations are never cold.
  double hotShare = 0.1;
  std::vector<FlashCrowd> crowds;  // must not overlap
  std::optional<ScanAttack> scan;
};

// The settings with their crowds in the order of time. Throws RangeError with one line for one outside its range, as
// far as that can be told without the destinations, and for overlapping crowds.
ZipfSettings checked(ZipfSettings settings);

// Never ends. About 20 bytes per destination. Ranks, drift, crowds and packets have random numbers of their own: with a
// scan or a crowd added, all other packets stay the same but for those that the crowd takes.
class ZipfTraffic final : public TrafficSource {
 public:
  // Throws RangeError with one line for a setting outside its range, overlapping crowds or no destinations.
  ZipfTraffic(std::vector<Destination> destinations, const ZipfSettings& settings);

  const std::vector<Destination>& destinations() const override { return destinations_; }
  // One burst for each packet. `until` is finite and at most 2^53 packets away from the start.
  void pull(double until, std::vector<Burst>& bursts) override;
  bool exhausted() const override { return false; }

  // The destinations as popular as they were when the last pulled packet was sent: index rank, value destination.
  const std::vector<std::uint32_t>& byRank() const { return popularity_.byRank(); }

 private:
  // What happens between packets; never is an infinite time. Of what happens at one time a trade comes first, then a
  // crowd's beginning or end, then the scan's packet, then the law's.
  double tradeAt() const;
  double crowdChangeAt() const;
  double scanAt() const;
  void handleTrade();
  void handleCrowdChange();
  void handleScan(std::vector<Burst>& bursts);

  void send(double until, std::vector<Burst>& bursts);
  std::uint32_t drawDestination();
  std::uint32_t hotRanks() const;
  std::uint32_t coldRanks() const;

  ZipfSettings settings_;
  std::vector<Destination> destinations_;
  ZipfMandelbrot law_;
  Popularity popularity_;
  Random packetRandom_;
  std::uint64_t sent_ = 0;  // packets of the law and the crowds

  std::uint64_t tradesPerMinute_ = 0;
  std::uint64_t trades_ = 0;

  Random crowdRandom_;
  std::size_t crowd_ = 0;                         // index of the crowd that is there or comes next
  std::vector<std::uint32_t> crowdDestinations_;  // empty when there is none
  std::uint64_t crowdShare_ = 0;                  // of 2^32

  std::uint64_t scanned_ = 0;
  std::uint64_t scanSize_ = 0;
  std::vector<std::uint32_t> scanDestinations_;  // while it goes on
};

}  // namespace Simulator
