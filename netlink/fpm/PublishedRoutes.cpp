#include "netlink/fpm/PublishedRoutes.h"

#include <algorithm>

#include "RouteCache/FlatTable.h"
#include "platform/values/Paths.h"

namespace Netlink {

using RouteCache::AdjId;

template <class Table>
class PublishedRoutes::Routes final : public Table::Reactor {
 public:
  Routes(Pondra::TableService& tables, const char* path, Listener& listener)
      : Table::Reactor((tables.mountWhenReadable(path, Table::typeName), tables.get<Table>(path))),
        table_(tables.get<Table>(path)),
        listener_(listener) {}
  void handleEntry(const typename Table::Key& key) override { listener_.handlePublished(key.vrfId(), key.prefix()); }
  void handleMountStatus() override { listener_.handleAllPublished(); }
  void handleWriter() override { listener_.handleAllPublished(); }

  // Nothing: it is not there.
  std::optional<AdjId> adjacencyOf(const typename Table::Key& key) const {
    const auto route = table_->mounted() ? table_->route(key) : std::nullopt;
    return route ? std::optional(route->adjId()) : std::nullopt;
  }
  bool isReconciled() const { return table_->mounted() && table_->reconciled(); }

 private:
  const std::shared_ptr<const Table> table_;
  Listener& listener_;
};

// Knows which adjacencies lead somewhere: those that begin or cease to are rare, and concern any number of routes.
template <class Table>
class PublishedRoutes::Adjacencies final : public Table::Reactor {
 public:
  Adjacencies(Pondra::TableService& tables, const char* path, Listener& listener)
      : Table::Reactor((tables.mountWhenReadable(path, Table::typeName), tables.get<Table>(path))),
        table_(tables.get<Table>(path)),
        listener_(listener) {
    takeStock();
  }
  void handleEntry(const AdjId& adjId) override {
    const bool leadsNow = leads(adjId);
    const bool hasChanged = leadsNow ? leading_.insert(adjId).second : leading_.erase(adjId);
    if (hasChanged) listener_.handleAllPublished();
  }
  void handleMountStatus() override {
    takeStock();
    listener_.handleAllPublished();
  }

  bool leads(AdjId adjId) const {
    const auto entry = table_->mounted() ? table_->adj(adjId) : std::nullopt;
    return entry &&
           std::ranges::any_of(entry->viaKey(), [](const auto& via) { return !via.underlayFecId().isEmpty(); });
  }

 private:
  void takeStock() {
    leading_ = RouteCache::FlatSet<AdjId>();
    if (!table_->mounted()) return;
    for (const auto& entry : *table_) {
      if (leads(entry.key())) leading_.insert(entry.key());
    }
  }

  const std::shared_ptr<const Table> table_;
  Listener& listener_;
  RouteCache::FlatSet<AdjId> leading_;
};

PublishedRoutes::PublishedRoutes(Pondra::TableService& tables, Listener& listener) {
  adjacencies4_ = std::make_unique<Adjacencies<RouteCache::Ipv4AdjacencyStatus>>(tables, Paths::adjacencies, listener);
  adjacencies6_ = std::make_unique<Adjacencies<RouteCache::Ipv6AdjacencyStatus>>(tables, Paths::adjacencies6, listener);
  hardware_ = std::make_unique<Routes<RouteCache::Ipv4RouteStatus>>(tables, Paths::hwRoutes, listener);
  software_ = std::make_unique<Routes<RouteCache::Ipv4RouteStatus>>(tables, Paths::sfeRoutes, listener);
  hardware6_ = std::make_unique<Routes<RouteCache::Ipv6RouteStatus>>(tables, Paths::hw6Routes, listener);
}

PublishedRoutes::~PublishedRoutes() = default;

bool PublishedRoutes::leads(AdjId adjId) const {
  return adjacencies4_->leads(adjId) || adjacencies6_->leads(adjId);
}

bool PublishedRoutes::forwards(std::uint32_t hwVrfId, const IpGenPrefix& prefix) const {
  const auto isLed = [this](const std::optional<AdjId>& adjId) { return adjId && leads(*adjId); };
  if (prefix.isV6()) return isLed(hardware6_->adjacencyOf(RouteCache::Ipv6RouteVrfKey(prefix.v6(), hwVrfId)));
  const RouteCache::Ipv4RouteVrfKey key(prefix.v4(), hwVrfId);
  return isLed(hardware_->adjacencyOf(key)) || isLed(software_->adjacencyOf(key));
}

bool PublishedRoutes::isReconciled() const {
  return hardware_->isReconciled() && hardware6_->isReconciled();
}

}  // namespace Netlink
