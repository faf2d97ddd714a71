// The start's look at what a predecessor has left of one family: its adjacencies are adopted, then its routes noted as
// inherited. In slices, which go on where the last one stopped.
//
// Invariant: until it is done, an adjacency of the table is adopted, dropped as nobody's, or ahead of the bookmark, and
// a route noted or ahead of the second.
#pragma once

#include <array>
#include <optional>

#include "RouteCache/queues/FlatTable.h"
#include "RouteCache/queues/ReadAhead.h"
#include "RouteCache/sw/Adjacencies.h"

namespace RouteCache {

template <class Family>
class AdjacencySync {
 public:
  using Routes = RouteStatus<Family>;
  using Key = typename Routes::Key;

  bool done() const { return done_; }
  std::optional<AdjId> bookmark() const { return bookmark_; }

  // True at the end of both tables; false: to be continued in the task's next run.
  bool run(DeferredTask& task, Adjacencies& adjacencies, const Routes& routes, FlatSet<Key>& inherited) {
    adjacenciesDone_ = adjacenciesDone_ || adopt(task, adjacencies);
    done_ = adjacenciesDone_ && note(task, adjacencies.ids(), routes, inherited);
    return done_;
  }

 private:
  bool adopt(DeferredTask& task, Adjacencies& adjacencies) {
    const AdjacencyStatus<Family>& table = adjacencies.table<Family>();
    std::uint64_t handled = 0;
    const auto next = visitUntilYield(task, resumeFrom(table, bookmark_), table.end(), handled,
                                      [&](const BasicVia<Family>& via) { adjacencies.adopt(via); });
    bookmark_ = bookmarkOf(next, table.end());
    task.report(handled, 0);
    return !bookmark_;
  }

  // An identifier that such a route names is in use, also without an adjacency (its table was full): it is cleaned up
  // like any other that nobody takes.
  bool note(DeferredTask& task, AdjacencyIds& ids, const Routes& routes, FlatSet<Key>& inherited) {
    if (!routeBookmark_) inherited.reserve(routes.size());
    std::uint64_t handled = 0;
    std::array<Key, readAheadGroup> expected;  // so that one insertion does not wait for the other
    std::size_t count = 0;
    const auto insertExpected = [&] {
      for (std::size_t i = 0; i < count; ++i) inherited.insert(expected[i]);
      count = 0;
    };
    const auto next = visitUntilYield(task, resumeFrom(routes, routeBookmark_), routes.end(), handled,
                                      [&](const BasicRoute<Family>& route) {
                                        inherited.expect(route.key());
                                        expected[count++] = route.key();
                                        if (count == expected.size()) insertExpected();
                                        const AdjId adjId = route.adjId();
                                        if (!isAdjacency(adjId) || !isWellFormed(adjId)) return;
                                        if (!ids.numberInUse(adjId)) ids.adjIdRefCountIs(adjId, 0);
                                      });
    insertExpected();
    routeBookmark_ = bookmarkOf(next, routes.end());
    return !routeBookmark_;
  }

  std::optional<AdjId> bookmark_;
  std::optional<Key> routeBookmark_;
  bool adjacenciesDone_ = false;
  bool done_ = false;
};

}  // namespace RouteCache
