// A walk over the configured routes, of all VRFs or of some, that queues each route for processing. It is recorded when
// it is asked for and done in steps by the route-processing task, so that asking costs nothing.
#pragma once

#include <optional>
#include <set>

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
  // Puts the next so many routes into the queue, and tells met(route, belongs) of each as it stands now. One that does
  // not belong lies in the other family's table, which decides nothing about it.
  template <class Met>
  void step(RouteQueue& queue, std::size_t most, Met&& met);

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

template <class Met>
void RouteConfigWalk::step(RouteQueue& queue, std::size_t most, Met&& met) {
  if (!current_ && !beginNext()) return;
  std::size_t count = 0;
  const Routing::Rib::RouteConfig& config = *configs_[current_->family];
  auto route = current_->from ? config.lowerBound(*current_->from) : config.begin();
  for (; route != config.end() && count < most; ++route, ++count) {
    if (current_->vrf && route->key().vrfId() != *current_->vrf) break;
    queue.routeToProcessAdd(route->key(), current_->flags);
    met(*route, route->key().prefix().isV4() == (current_->family == 0));
  }
  if (route != config.end() && count == most) {
    current_->from = route->key();
  } else if (current_->family == 0) {
    current_->family = 1;
    current_->from = current_->vrf ? std::optional(RouteKey(*current_->vrf, IpGenPrefix())) : std::nullopt;
  } else {
    current_.reset();
  }
}

}  // namespace RouteCache
