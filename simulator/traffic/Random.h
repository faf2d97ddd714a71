// Random numbers that are the same on every machine: the standard library promises that for its engines, but not for
// its distributions.
#pragma once

#include <cstdint>

#include "platform/values/Hash.h"

namespace Simulator {

// A counter that is hashed: one 64-bit state, period 2^64. A value; a copy goes on with the same numbers.
class Random {
 public:
  // Streams of one seed have nothing to do with each other, so a consumer that draws more often disturbs nobody else.
  Random(std::uint64_t seed, std::uint64_t stream) : state_(Platform::hashMix(Platform::hashOf(seed), stream)) {}
  // Every 64-bit number is as likely as any other.
  std::uint64_t next() { return Platform::hashOf(state_ += 0x9e3779b97f4a7c15ULL); }
  // 0 to bound - 1; nought for a bound of 0. No number is favoured by more than bound / 2^32.
  std::uint32_t below(std::uint32_t bound) { return scaled(next(), bound); }
  // What below() makes of a number; only its upper half counts.
  static std::uint32_t scaled(std::uint64_t number, std::uint32_t bound) {
    return static_cast<std::uint32_t>((number >> 32) * bound >> 32);
  }

 private:
  std::uint64_t state_;
};

}  // namespace Simulator
