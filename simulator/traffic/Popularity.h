// Which destination holds which rank of popularity, and how that drifts.
#pragma once

#include <cstdint>
#include <vector>

#include "simulator/traffic/Random.h"

namespace Simulator {

// A permutation of the destinations 0 to size - 1, by rank; rank 0 is the most popular. The same for the same seed and
// number of trades on every machine; 8 bytes per destination.
class Popularity {
 public:
  Popularity(std::uint32_t size, std::uint64_t seed);

  // Index: rank. Value: destination.
  const std::vector<std::uint32_t>& byRank() const { return byRank_; }
  // Two random ranks swap their destinations. None of them has traded since the last call of roundIs(), which is due
  // after size / 2 trades at the latest.
  void trade();
  void roundIs() { traded_ = 0; }

 private:
  Random random_;
  std::vector<std::uint32_t> byRank_;
  std::vector<std::uint32_t> ranks_;  // all of them; the first traded_ have traded in this round
  std::uint32_t traded_ = 0;
};

}  // namespace Simulator
