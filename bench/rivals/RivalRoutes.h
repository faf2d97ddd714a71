// What TableRivalsBench stores and looks for.
#pragma once

#include <cstdint>
#include <vector>

#include "RouteCache/RouteCache.h"

namespace Bench {

// Routes, the same in every process: five in six are prefixes with the length mix of the Internet's table, the others
// hosts, a hundred or more to a subnet; at random in one of 16 VRFs.
struct RivalRoutes {
  using Route = RouteCache::Ipv4Route;
  using Key = Route::Key;
  static constexpr std::uint32_t most = 3'000'000;

  explicit RivalRoutes(std::uint32_t count);

  std::vector<Route> ordered;
  std::vector<Route> shuffled;
  std::vector<Route> changed;  // other values, in another random order
  std::vector<Key> keys;       // in the order of `changed`
  std::vector<Key> absent;     // as many, and near them, but of no route
};

}  // namespace Bench
