#include "RouteCache/sw/UnprogrammedRecord.h"

namespace RouteCache {

void UnprogrammedRecord::routeIs(const Route& route) {
  const auto recorded = table_->route(route.key());
  if (recorded && *recorded == route) return;
  if (recorded || table_->hasRoom()) {
    table_->routeIs(route);
    return;
  }
  if (!full_) trace_(2, "unprogrammed route table full, not recorded: ", route.key());
  full_ = true;
  ++refusals_;
  (route.key().prefix().isV4() ? walk_ : walk6_).allIs();
}

void UnprogrammedRecord::routeDel(const RouteKey& key) {
  if (table_->size() == 0 || !table_->has(key)) return;
  table_->routeDel(key);
  full_ = false;
}

}  // namespace RouteCache
