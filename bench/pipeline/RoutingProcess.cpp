#include "bench/pipeline/RoutingProcess.h"

#include <algorithm>

#include "bench/harness/BenchDirectory.h"
#include "platform/values/Paths.h"

namespace Bench {

RoutingProcess::RoutingProcess(const std::string& directory, const Tools::RibChange& rib)
    : rib_(rib), tables_(directory), writer_(tables_.service(), [] {}) {}

double RoutingProcess::apply(const Tools::RibChange& change) {
  constexpr std::uint32_t leastRoom = 1024;
  const auto routes = static_cast<std::uint32_t>(std::max(room_, rib_.routes.size()));
  const double start = monotonicSeconds();
  writer_.apply(change, routes + routes / 4 + leastRoom);
  flush();
  return start;
}

double RoutingProcess::load() {
  return apply(rib_);
}

double RoutingProcess::loadVias() {
  return apply({.vias = rib_.vias, .routes = {}});
}

double RoutingProcess::moveAll() {
  Tools::RibChange change;
  change.routes.reserve(rib_.routes.size());
  const auto count = static_cast<Routing::Rib::ViaKey>(rib_.vias.size());
  for (const Route& route : rib_.routes) change.routes.emplace_back(route.key(), route.viaKey() % count + 1);
  return apply(change);
}

double RoutingProcess::withdraw(const std::function<bool(std::size_t)>& doomed) {
  const double start = monotonicSeconds();
  writer_.remove([&doomed, number = std::size_t{0}](const RouteKey&) mutable { return doomed(number++); });
  flush();
  return start;
}

void RoutingProcess::rest() {
  tables_.service().pendingChanges();
  tables_.service().deliverChanges([] { return false; });
  tables_.service().giveMemoryBack([] { return false; });
  flush();
}

Routing::Rib::RouteConfig& RoutingProcess::writer() {
  return *tables_.service().get<Routing::Rib::RouteConfig>(Paths::ribRoutes);
}

}  // namespace Bench
