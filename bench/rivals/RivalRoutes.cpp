#include "bench/rivals/RivalRoutes.h"

#include <algorithm>
#include <random>

#include "simulator/input/PrefixList.h"

namespace Bench {

namespace {

constexpr std::uint32_t vrfs = 16;
constexpr std::uint32_t hostSubnets = 2000;

Prefix hostPrefix(std::uint32_t number) {
  return {IpAddr(0x0a000000 + (number % hostSubnets << 8) + 1 + number / hostSubnets), Prefix::maxLength};
}

// The network beside the key's, or the same in another VRF.
RivalRoutes::Key neighbour(const RivalRoutes::Key& key, std::mt19937_64& random) {
  const Prefix& prefix = key.prefix();
  const auto step = static_cast<std::uint32_t>(random() % 16) << (Prefix::maxLength - prefix.length());
  return {Prefix(IpAddr(prefix.addr().value() ^ step), prefix.length()),
          1 + static_cast<std::uint32_t>(random() % vrfs)};
}

}  // namespace

RivalRoutes::RivalRoutes(std::uint32_t count) {
  std::mt19937_64 random(1);
  const std::uint32_t hosts = count / 6;
  const auto add = [&](const Prefix& prefix) {
    const RouteCache::AdjId adjId(1 + static_cast<std::uint32_t>(random() % 20'000));
    ordered.emplace_back(Key(prefix, 1 + static_cast<std::uint32_t>(random() % vrfs)), adjId, random() % 2 == 0);
  };
  for (const IpGenPrefix& prefix : Tools::generatePrefixes(count - hosts, 1)) add(prefix.v4());
  for (std::uint32_t i = 0; i < hosts; ++i) add(hostPrefix(i));
  std::ranges::sort(ordered, {}, &Route::key);
  shuffled = ordered;
  std::ranges::shuffle(shuffled, random);
  changed = ordered;
  std::ranges::shuffle(changed, random);
  for (Route& route : changed) {
    keys.push_back(route.key());
    route.adjIdIs(RouteCache::AdjId(route.adjId().value() + 1));
  }
  for (std::size_t i = 0; absent.size() < count; i = (i + 1) % count) {
    const Key key = neighbour(keys[i], random);
    if (!std::ranges::binary_search(ordered, key, {}, &Route::key)) absent.push_back(key);
  }
}

}  // namespace Bench
