#pragma once

#include <set>

#include "RouteCache/model/Values.h"

namespace RouteCache {

// The adjacency identifiers that use one remote tunnel end point. Shared by pointer.
class AdjIdColl {
 public:
  const std::set<AdjId>& adjIdColl() const { return ids_; }
  void adjIdCollIs(AdjId adjId) { ids_.insert(adjId); }
  void adjIdCollDel(AdjId adjId) { ids_.erase(adjId); }
  void adjIdCollDelAll() { ids_.clear(); }
  bool empty() const { return ids_.empty(); }

 private:
  std::set<AdjId> ids_;
};

}  // namespace RouteCache
