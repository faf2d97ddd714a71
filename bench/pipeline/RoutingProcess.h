// The routing process of PipelineBench, which the benchmark's own process is: the one writer of the RIB.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "bench/harness/Tables.h"
#include "bench/pipeline/PipelineWorkload.h"
#include "simulator/routing/RibWriter.h"

namespace Bench {

class RoutingProcess {
 public:
  using Route = Routing::Rib::Route;
  using RouteKey = Routing::Rib::RouteKey;

  // Holds the tables, with room for a quarter more routes, from the first change on.
  RoutingProcess(const std::string& directory, const Tools::RibChange& rib);

  // From the first change on there is room for so many routes, and a quarter more, even if there are fewer.
  void roomIs(std::size_t routes) { room_ = routes; }

  // Each returns when the first entry of it was written (monotonicSeconds()).
  double load();
  double loadVias();
  // Every route takes the via behind the one that it has.
  double moveAll();
  // Every route whose number is `doomed`: they are counted in the order of their keys, from 0.
  double withdraw(const std::function<bool(std::size_t number)>& doomed);

  // One entry, of which others hear at the next flush.
  void write(const Route& route) { writer().routeIs(route); }
  void remove(const RouteKey& key) { writer().routeDel(key); }
  void flush() { tables_.service().flush(); }
  // What a process does about once a second, and when it has nothing else to do.
  void rest();

  const Tools::RibChange& rib() const { return rib_; }

 private:
  Routing::Rib::RouteConfig& writer();
  double apply(const Tools::RibChange& change);

  const Tools::RibChange& rib_;
  std::size_t room_ = 0;
  Tables tables_;
  Tools::RibWriter writer_;
};

}  // namespace Bench
