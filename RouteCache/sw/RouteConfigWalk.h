// A walk over the configured routes, of all VRFs or of some, that queues each route for processing. It is recorded when
// it is asked for and done in steps by the route-processing task, so that asking costs nothing.
#pragma once

#include <optional>
#include <set>
#include <span>

#include "RouteCache/sw/RouteQueue.h"
#include "platform/tables/Rib.h"

namespace RouteCache {

class RouteConfigWalk {
 public:
  using RouteKey = Routing::Rib::RouteKey;

  // IPv4 routes first, then IPv6.
  RouteConfigWalk(const Routing::Rib::RouteConfig& config, const Routing::Rib::RouteConfig& config6)
      : configs_{&config, &config6} {}

  // Asks for a walk over every route with these flags. While one is under way, another follows it; several requests
  // for that next one are one, with the flags of all.
  void allIs(std::uint8_t flags);
  // Asks for a walk over one VRF's routes, with the VTEP flag. A walk over all that is still to come takes it in.
  void vrfIs(std::uint32_t piVrfId);
  bool pending() const { return current_ || nextAll_ || !nextVrfs_.empty(); }
  // True when a walk that is still to come, or the rest of the one under way, will meet this key.
  bool willMeet(const RouteKey& key) const;
  // Puts the next routes into the queue, as many as there is room for in `met`, which gets them as they stand now; how
  // many.
  std::size_t step(RouteQueue& queue, std::span<Routing::Rib::Route> met);

 private:
  struct Walk {
    std::uint8_t flags = 0;
    std::optional<std::uint32_t> vrf;  // nothing: all
    unsigned family = 0;               // index into configs_
    std::optional<RouteKey> from;      // the next key not below this one; nothing: the beginning
  };
  bool beginNext();

  const Routing::Rib::RouteConfig* configs_[2];
  std::optional<Walk> current_;
  std::optional<std::uint8_t> nextAll_;
  std::set<std::uint32_t> nextVrfs_;
};

}  // namespace RouteCache
