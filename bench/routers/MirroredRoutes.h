// The mirror of published routes in the kernel, beside the same messages with nothing around them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "RouteCache/RouteCache.h"
#include "bench/harness/Tables.h"
#include "bench/routers/KernelWriter.h"

namespace Bench {

// An agent's tables with these routes, of one VRF, each by one of so many adjacencies of one next hop; and a mirror of
// them in this process's network namespace.
class MirroredRoutes {
 public:
  MirroredRoutes(const std::string& directory, const std::vector<RoutedPrefix>& routes, std::uint32_t adjacencies);
  ~MirroredRoutes();

  // A new mirror, in seconds of the processor: until the kernel has every route, or it has found that it has them.
  double start();
  // One adjacency gets another next hop: until the kernel has it.
  double changeAdjacency();
  std::uint64_t messagesSent() const;  // of the mirror that runs
  // The routes leave the kernel.
  void flush();

 private:
  struct Mirror;
  void adjacencyIs(std::uint32_t number, std::uint32_t vtep);
  double settled();

  const std::string directory_;
  Tables published_;
  std::shared_ptr<RouteCache::Ipv4RouteStatus> routes_;
  std::shared_ptr<RouteCache::Ipv4AdjacencyStatus> adjacencies_;
  std::unique_ptr<Mirror> mirror_;
};

// The seconds of the processor that as many messages take which say the same as the mirror's: routes to next-hop groups
// that stand, so many to a batch. They leave the kernel again.
double rawRoutes(const std::vector<RoutedPrefix>& routes, std::uint32_t adjacencies, std::size_t batch);

}  // namespace Bench
