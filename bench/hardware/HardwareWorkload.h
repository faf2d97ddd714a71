// What HardwareBench is about: host routes of one VRF under one cached prefix, and a hardware table that they fill to
// 80 percent.
#pragma once

#include <algorithm>
#include <cstdint>

#include "RouteCache/RouteCache.h"

namespace Bench {

struct HardwareWorkload {
  using Key = RouteCache::Ipv4RouteVrfKey;
  static constexpr std::uint32_t hwVrfId = 1001;
  static constexpr std::uint32_t largest = 1'900'000;  // with the samples, 2^21 addresses, 8 apart, fill 10.0.0.0/8

  std::uint32_t routes = 1'000'000;

  std::uint32_t capacity() const { return routes + routes / 4; }
  // Routes beyond those, for each of the two measurements of latency: too few to move the utilisation by a percent.
  std::uint32_t samples() const { return std::min(2000U, routes / 250); }
  std::uint32_t sfeRoutes() const { return routes + 2 * samples(); }
  static Prefix cachedPrefix() { return {IpAddr(10U << 24), 8}; }
  // In the order of the tables' keys.
  static Key key(std::uint32_t index) { return {Prefix(IpAddr((10U << 24) + 8 * index), 32), hwVrfId}; }
  static constexpr std::uint32_t adjacencies = 20'000;  // numbered from 1
  static RouteCache::Ipv4Route route(std::uint32_t index) {
    return {key(index), RouteCache::AdjId(1 + index % adjacencies), false};
  }
  // More cached prefixes of the VRF, which cover none of the routes.
  std::uint32_t otherPrefixes() const { return routes / 10; }
  static Prefix otherPrefix(std::uint32_t index) { return {IpAddr((11U << 24) + 256 * index), 24}; }
};

}  // namespace Bench
