#include "bench/pipeline/PublishedTables.h"

#include <stdexcept>
#include <vector>

#include "platform/values/Paths.h"

namespace Bench {

namespace {

template <class Table>
class ChangeCounter final : public Table::Reactor {
 public:
  explicit ChangeCounter(std::shared_ptr<const Table> table) : Table::Reactor(std::move(table)) {}
  void handleEntry(const typename Table::Key&) override { ++changes; }
  std::uint64_t changes = 0;
};

}  // namespace

class PublishedTables::Changes {
 public:
  explicit Changes(const PublishedTables& tables)
      : adjacencies_(tables.adjacencies_), kernelRoutes_(tables.kernelRoutes_), hwRoutes_(tables.hwRoutes_) {
    if (tables.sfeRoutes_) sfeRoutes_.emplace(tables.sfeRoutes_);
  }
  std::uint64_t count() const {
    return adjacencies_.changes + kernelRoutes_.changes + hwRoutes_.changes + (sfeRoutes_ ? sfeRoutes_->changes : 0);
  }

 private:
  ChangeCounter<RouteCache::Ipv4AdjacencyStatus> adjacencies_;
  ChangeCounter<Routing::Rib::RouteConfig> kernelRoutes_;
  ChangeCounter<RouteCache::Ipv4RouteStatus> hwRoutes_;
  std::optional<ChangeCounter<RouteCache::Ipv4RouteStatus>> sfeRoutes_;
};

PublishedTables::PublishedTables(const std::string& directory, const Workload& workload)
    : tables_(directory),
      adjacencies_(tables_.follower<RouteCache::Ipv4AdjacencyStatus>(Paths::adjacencies)),
      kernelRoutes_(tables_.follower<Routing::Rib::RouteConfig>(Paths::kernelRoutes)),
      hwRoutes_(tables_.follower<RouteCache::Ipv4RouteStatus>(Paths::hwRoutes)),
      sfeRoutes_(workload.caching ? tables_.follower<RouteCache::Ipv4RouteStatus>(Paths::sfeRoutes) : nullptr),
      changes_(std::make_unique<Changes>(*this)) {}

PublishedTables::~PublishedTables() = default;

std::uint64_t PublishedTables::takeChanges() {
  const std::uint64_t before = changes_->count();
  tables_.service().pendingChanges();
  while (!tables_.service().deliverChanges([] { return false; })) {
  }
  return changes_->count() - before;
}

void PublishedTables::check(std::size_t routes) const {
  std::vector<const RouteCache::Ipv4RouteStatus*> tables{hwRoutes_.get()};
  if (sfeRoutes_) tables.push_back(sfeRoutes_.get());
  for (const auto* table : tables) {
    std::size_t found = 0;
    for (const auto& route : *table) {
      ++found;
      const auto via = adjacencies_->adj(route.adjId());
      if (!via) throw std::runtime_error("a published route has no adjacency");
      for (const auto& slot : via->viaKey()) {
        if (slot.underlayFecId().isEmpty()) throw std::runtime_error("an adjacency is not resolved");
      }
    }
    if (found == routes && kernelRoutes_->size() == routes) continue;
    throw std::runtime_error(std::to_string(found) + " routes, and " + std::to_string(kernelRoutes_->size()) +
                             " for the kernel, are published");
  }
}

}  // namespace Bench
