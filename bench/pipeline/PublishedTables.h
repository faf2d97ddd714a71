// What the agent of PipelineBench publishes, as a process reads it that follows it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "RouteCache/RouteCache.h"
#include "bench/harness/Tables.h"
#include "bench/pipeline/PipelineWorkload.h"
#include "platform/tables/Rib.h"

namespace Bench {

class PublishedTables {
 public:
  PublishedTables(const std::string& directory, const Workload& workload);
  PublishedTables(const PublishedTables&) = delete;
  PublishedTables& operator=(const PublishedTables&) = delete;
  ~PublishedTables();

  // Entries that have changed, in any table, since this was last asked, or since the object was made.
  std::uint64_t takeChanges();
  // Throws unless so many routes are published everywhere, and each names a resolved adjacency.
  void check(std::size_t routes) const;

 private:
  class Changes;

  Tables tables_;
  std::shared_ptr<RouteCache::Ipv4AdjacencyStatus> adjacencies_;
  std::shared_ptr<Routing::Rib::RouteConfig> kernelRoutes_;
  std::shared_ptr<RouteCache::Ipv4RouteStatus> hwRoutes_;
  std::shared_ptr<RouteCache::Ipv4RouteStatus> sfeRoutes_;  // null without caching
  std::unique_ptr<Changes> changes_;
};

}  // namespace Bench
