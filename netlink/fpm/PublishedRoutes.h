// Whether somebody forwards a route, as far as the agent publishes it: hardware or software, by a next hop that the
// underlay leads to.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "RouteCache/RouteCache.h"
#include "platform/tables/SharedTable.h"

namespace Netlink {

class PublishedRoutes {
 public:
  // What it tells of; outlives it.
  class Listener {
   public:
    virtual ~Listener() = default;
    virtual void handlePublished(std::uint32_t hwVrfId, const IpGenPrefix& prefix) = 0;
    virtual void handleAllPublished() = 0;  // any route may be forwarded now that was not, or the other way about
  };
  PublishedRoutes(Pondra::TableService& tables, Listener& listener);
  ~PublishedRoutes();

  bool forwards(std::uint32_t hwVrfId, const IpGenPrefix& prefix) const;
  // The agent has published all that it had to when it began.
  bool isReconciled() const;

 private:
  template <class Table>
  class Routes;
  template <class Table>
  class Adjacencies;
  bool leads(RouteCache::AdjId adjId) const;

  std::unique_ptr<Adjacencies<RouteCache::Ipv4AdjacencyStatus>> adjacencies4_;
  std::unique_ptr<Adjacencies<RouteCache::Ipv6AdjacencyStatus>> adjacencies6_;
  std::unique_ptr<Routes<RouteCache::Ipv4RouteStatus>> hardware_;
  std::unique_ptr<Routes<RouteCache::Ipv4RouteStatus>> software_;
  std::unique_ptr<Routes<RouteCache::Ipv6RouteStatus>> hardware6_;
};

}  // namespace Netlink
