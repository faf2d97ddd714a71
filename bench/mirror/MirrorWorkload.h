// What MirrorBench is about: routes of ten VRFs, configured and published, in none of which a cached FIB prefix covers
// them; so the kernel is to have all of them, and each VRF's cached prefix besides.
#pragma once

#include <cstdint>
#include <vector>

#include "RouteCache/RouteCache.h"
#include "bench/pipeline/PipelineWorkload.h"
#include "platform/tables/Rib.h"

namespace Bench {

struct MirrorWorkload {
  static constexpr std::uint32_t vrfs = 10;  // pi VRF ids 1 to this
  static constexpr std::uint32_t firstVrf = 1;

  std::uint32_t routes = 1'000'000;

  std::uint32_t routesOfFirstVrf() const { return (routes + vrfs - 1) / vrfs; }
  std::uint32_t capacity() const { return routes + routes / 8; }

  // Sorted by key.
  std::vector<Routing::Rib::Route> configured() const {
    Workload pipeline;
    pipeline.routes = routes;
    pipeline.vrfs = vrfs;
    return pipeline.rib().routes;
  }
  // As it is published.
  static RouteCache::Ipv4Route published(const Routing::Rib::Route& route) {
    const auto adjId = static_cast<std::uint32_t>(route.viaKey());
    return {{route.key().prefix().v4(), Workload::hwVrfId(route.key().vrfId())}, RouteCache::AdjId(adjId), true};
  }

  // Of every VRF, from the start.
  static Prefix cachedPrefix() { return {IpAddr(10U << 24), 8}; }
  // Two that come and go in the first VRF; the second is in the midst of the routes.
  static Prefix cachedDefaultRoute() { return {}; }
  static Prefix flappingPrefix() { return {IpAddr(0x80000001), 32}; }
  std::uint32_t flaps() const { return routes / 10; }
};

}  // namespace Bench
