// What the published adjacencies say, in the kernel's terms.
#pragma once

#include <functional>
#include <memory>
#include <optional>

#include "RouteCache/RouteCache.h"
#include "netlink/kernel/KernelNexthops.h"
#include "platform/tables/SharedTable.h"

namespace Netlink {

// Follows both tables; hands the key of each change on.
class AdjacencyReader {
 public:
  // Who knows what the tables do not say. Nothing: not known now.
  struct Surroundings {
    std::function<std::optional<std::uint32_t>(IntfId, Bridging::ExtendedVlanId)> vniOf;
    std::function<std::optional<std::uint32_t>(IntfId)> deviceOf;  // the number of one that is up
  };
  AdjacencyReader(Pondra::TableService& tables, Surroundings surroundings,
                  std::function<void(RouteCache::AdjId)> changed, std::function<void()> comparisonWanted);
  ~AdjacencyReader();

  enum class State : std::uint8_t {
    whole,
    undecided,  // something is not known, or not yet
    gone,
  };
  // `content` is set when it is whole.
  State read(RouteCache::AdjId adjId, KernelNexthops::Content& content) const;
  // Hands on every key, from where it stopped, until shouldYield says stop. True: that was all.
  bool walk(const std::function<bool()>& shouldYield);

 private:
  template <class Table>
  class Side;

  Surroundings surroundings_;
  std::function<void(RouteCache::AdjId)> changed_;
  std::function<void()> comparisonWanted_;
  std::unique_ptr<Side<RouteCache::Ipv4AdjacencyStatus>> v4_;
  std::unique_ptr<Side<RouteCache::Ipv6AdjacencyStatus>> v6_;
};

}  // namespace Netlink
