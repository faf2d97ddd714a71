// The published routes of one family, as routes of a kernel.
#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <unordered_map>
#include <vector>

#include "RouteCache/FlatTable.h"
#include "RouteCache/RouteCache.h"
#include "netlink/kernel/KernelBatch.h"
#include "netlink/kernel/KernelNexthops.h"
#include "netlink/kernel/MirrorSettings.h"
#include "netlink/kernel/Refusals.h"
#include "platform/services/TaskScheduler.h"
#include "platform/tables/SharedTable.h"

namespace Netlink {

// Follows the route table, and knows of each route that the kernel has which adjacency it leads to. Changes are queued
// as they are heard of, and become messages in the batch one by one. A route of which not all is known, its VRF's table
// or its adjacency, waits, and what the kernel has of it stays; so does one that is gone from a table whose writer has
// not said that it is complete.
//
// Invariants: a key is queued once; each route that the kernel has is counted with the group that it refers to.
template <class Family>
class RouteMirror {
 public:
  using Key = RouteCache::BasicRouteVrfKey<Family>;
  using Table = std::conditional_t<Family::family == AddressFamily::ipv4, RouteCache::Ipv4RouteStatus,
                                   RouteCache::Ipv6RouteStatus>;

  // What it works with; all outlive it.
  struct Context {
    const MirrorSettings& settings;
    KernelBatch& batch;
    KernelNexthops& nexthops;
    std::function<void()> wake;                              // there is something to do
    std::function<void()> comparisonWanted;                  // more may have changed than is told
    std::function<void(RouteCache::AdjId)> adjacencyWanted;  // a route waits for it, or does not need it any more
    std::function<double()> now;
  };

  RouteMirror(Pondra::TableService& tables, const std::string& path, const Context& context) : context_(context) {
    tables.mountWhenReadable(path, Table::typeName);
    table_ = tables.get<Table>(path);
    reactor_ = std::make_unique<Reactor>(*this, table_);
  }

  const Table& table() const { return *table_; }
  // The kernel has it, by a group of next hops that it is published to leave by.
  bool stands(const Key& key) const {
    const Sent* sent = sent_.find(key);
    return sent != nullptr && sent->adjId != RouteCache::AdjId() && !refusals_.has(key) && !queued_.has(key) &&
           context_.nexthops.leads(sent->adjId);
  }
  std::size_t size() const { return sent_.size(); }  // routes of the kernel
  std::size_t queued() const { return queue_.size(); }
  const Refusals<Key>& refusals() const { return refusals_; }
  std::size_t waiting() const;                               // for their adjacency
  std::size_t unmapped() const { return unmapped_.size(); }  // routes of VRFs without a table
  std::size_t unreconciled() const { return absent_.size(); }

  // Handles one key of the queue; false: there is none.
  bool handleNext();
  void handleStood(RouteCache::AdjId adjId);
  void handleRefused(const Subject& subject, int error);
  void handleDone(const Subject& subject) {
    if (!refusals_.empty()) {
      if (const auto key = keyOf(subject.route)) refusals_.del(*key);
    }
  }
  // Queues some that are due. True: there may be more.
  bool retryDue() {
    for (const Key& key : refusals_.takeDue(context_.now(), retriesAtOnce)) queue(key);
    return refusals_.isUnderWay();
  }

  // --- Comparing with what the kernel has ---
  // Begins a comparison: what is sent from now on is known to be there, whatever a dump says that is on its way.
  void comparisonBegins() { ++epoch_; }
  // A route of the dump. False: it is one of ours that no VRF has.
  bool found(const KernelRoute& route);
  // The dump is over. What it did not tell of is not there: goes on to send it until shouldYield says stop. True: done.
  bool walk(const std::function<bool()>& shouldYield);

 private:
  static constexpr std::size_t retriesAtOnce = 1024;
  struct Sent {
    Key key;
    RouteCache::AdjId adjId;  // number 0: it leads elsewhere
    std::uint32_t epoch = 0;  // in which the kernel was last known to have it
  };
  struct KeyOf {
    const Key& operator()(const Sent& sent) const { return sent.key; }
  };
  class Reactor final : public Table::Reactor {
   public:
    Reactor(RouteMirror& mirror, std::shared_ptr<const Table> table)
        : Table::Reactor(std::move(table)), mirror_(mirror) {}
    void handleEntry(const Key& key) override { mirror_.queue(key); }
    Pondra::Appetite appetite() const override { return Pondra::appetiteWith(mirror_.queue_.size()); }
    void handleMountStatus() override { mirror_.context_.comparisonWanted(); }  // what is there is not told
    void handleWriter() override { mirror_.handleWriter(); }

   private:
    RouteMirror& mirror_;
  };

  void queue(const Key& key) {
    if (queued_.insert(key).second) queue_.push_back(key);
    context_.wake();
  }
  void handleWriter();
  void process(const Key& key);
  void forgetUnseen(const Key& key);
  void lead(const Key& key, RouteCache::AdjId adjId);
  void remove(const Key& key);
  void sentIs(const Key& key, RouteCache::AdjId adjId);
  void sentDel(const Key& key);
  void leaves(RouteCache::AdjId adjId);
  std::optional<Key> keyOf(const KernelRoute& route) const {
    const auto hwVrfId = context_.settings.hwVrfIdOf(route.table);
    if (!hwVrfId || route.metric != context_.settings.metric) return std::nullopt;
    return Key(Family::prefix(route.prefix), *hwVrfId);
  }
  KernelRoute routeOf(const Key& key, std::uint32_t table, RouteCache::AdjId adjId) const {
    return {key.prefix(), table, context_.settings.metric, nexthopId(adjId)};
  }

  const Context context_;
  std::shared_ptr<const Table> table_;
  std::deque<Key> queue_;
  RouteCache::FlatSet<Key> queued_;
  RouteCache::FlatTable<Sent, Key, KeyOf> sent_;
  std::unordered_map<std::uint32_t, RouteCache::FlatSet<Key>> waiting_;  // by the adjacency's id
  RouteCache::FlatSet<Key> absent_;  // not published, but perhaps only not yet again
  RouteCache::FlatSet<Key> unmapped_;
  Refusals<Key> refusals_;
  std::uint32_t epoch_ = 0;
  std::optional<Key> bookmark_;  // of the walk: the last key handled
  std::unique_ptr<Reactor> reactor_;
};

template <class Family>
std::size_t RouteMirror<Family>::waiting() const {
  std::size_t count = 0;
  for (const auto& routes : waiting_) count += routes.second.size();
  return count;
}

template <class Family>
bool RouteMirror<Family>::handleNext() {
  if (queue_.empty()) return false;
  const Key key = queue_.front();
  queue_.pop_front();
  queued_.erase(key);
  process(key);
  return true;
}

// What was not there may be gone for good now, and is looked at again.
template <class Family>
void RouteMirror<Family>::handleWriter() {
  if (!table_->reconciled()) return;
  const auto absent = std::exchange(absent_, RouteCache::FlatSet<Key>());
  absent.forEach([this](const Key& key) { queue(key); });
}

template <class Family>
void RouteMirror<Family>::process(const Key& key) {
  const auto published = table_->mounted() ? table_->route(key) : std::nullopt;
  if (published && (published->adjId().value() & RouteCache::AdjId::adjacencyIdMask) != 0) {
    absent_.erase(key);
    return lead(key, published->adjId());
  }
  unmapped_.erase(key);
  refusals_.del(key);
  if (!sent_.has(key)) return;
  if (table_->mounted() && table_->reconciled()) return remove(key);
  absent_.insert(key);
}

template <class Family>
void RouteMirror<Family>::lead(const Key& key, RouteCache::AdjId adjId) {
  const Sent* sent = sent_.find(key);
  if (sent != nullptr && sent->adjId == adjId) return;
  const auto table = context_.settings.tableOf(key.vrfId());
  if (!table) {
    unmapped_.insert(key);
    return;
  }
  if (!context_.nexthops.stands(adjId)) {
    waiting_[adjId.value()].insert(key);
    return context_.adjacencyWanted(adjId);
  }
  context_.batch.route(sent == nullptr ? Change::add : Change::replace, routeOf(key, *table, adjId), adjId);
  sentIs(key, adjId);
}

template <class Family>
void RouteMirror<Family>::remove(const Key& key) {
  const auto table = context_.settings.tableOf(key.vrfId());
  if (!table) return;
  const RouteCache::AdjId adjId = sent_.find(key)->adjId;
  context_.batch.route(Change::remove, routeOf(key, *table, adjId), adjId);
  sentDel(key);
}

template <class Family>
void RouteMirror<Family>::sentIs(const Key& key, RouteCache::AdjId adjId) {
  const auto [sent, isNew] = sent_.insert({key, RouteCache::AdjId(), epoch_});
  const RouteCache::AdjId before = std::exchange(sent->adjId, adjId);
  sent->epoch = epoch_;
  if (adjId != RouteCache::AdjId()) context_.nexthops.routeAdded(adjId);
  leaves(before);
}

template <class Family>
void RouteMirror<Family>::sentDel(const Key& key) {
  const Sent* sent = sent_.find(key);
  if (sent == nullptr) return;
  const RouteCache::AdjId before = sent->adjId;
  sent_.erase(key);
  leaves(before);
}

// With its last route the adjacency may go, too.
template <class Family>
void RouteMirror<Family>::leaves(RouteCache::AdjId adjId) {
  if (adjId != RouteCache::AdjId() && context_.nexthops.routeRemoved(adjId)) context_.adjacencyWanted(adjId);
}

template <class Family>
void RouteMirror<Family>::handleStood(RouteCache::AdjId adjId) {
  const auto waiting = waiting_.find(adjId.value());
  if (waiting == waiting_.end()) return;
  waiting->second.forEach([this](const Key& key) { queue(key); });
  waiting_.erase(waiting);
}

template <class Family>
void RouteMirror<Family>::handleRefused(const Subject& subject, int error) {
  const auto key = keyOf(subject.route);
  if (!key) return;
  switch (subject.change) {
    case Change::add:
      sentDel(*key);
      break;
    case Change::replace:
      // It is not there, or still as it was: then it is one that leads elsewhere.
      if (error == ENOENT) {
        sentDel(*key);
        return queue(*key);
      }
      sentIs(*key, RouteCache::AdjId());
      break;
    case Change::remove:
      if (error == ESRCH) return;
      sentIs(*key, RouteCache::AdjId());
      break;
  }
  refusals_.add(*key, error, context_.now());
}

template <class Family>
bool RouteMirror<Family>::found(const KernelRoute& route) {
  const auto key = keyOf(route);
  if (!key) return false;
  const Sent* sent = sent_.find(*key);
  if (sent != nullptr && sent->epoch == epoch_) return true;
  const auto adjId = adjIdOf(route.nexthopId);
  const bool isGroup = adjId && slotOf(route.nexthopId) == groupSlot;
  sentIs(*key, isGroup ? *adjId : RouteCache::AdjId());
  refusals_.del(*key);
  const auto published = table_->mounted() ? table_->route(*key) : std::nullopt;
  if (!published || published->adjId() != sent_.find(*key)->adjId) queue(*key);
  return true;
}

template <class Family>
bool RouteMirror<Family>::walk(const std::function<bool()>& shouldYield) {
  if (!bookmark_) waiting_.clear();
  auto route = bookmark_ ? table_->lowerBound(*bookmark_) : table_->begin();
  if (bookmark_ && route != table_->end() && route->key() == *bookmark_) ++route;
  for (; route != table_->end(); ++route) {
    const Key key = route->key();
    forgetUnseen(key);
    process(key);
    bookmark_ = key;
    if (shouldYield()) return false;
  }
  bookmark_.reset();
  absent_.forEach([this](const Key& key) { forgetUnseen(key); });
  return true;
}

// The dump has not told of it.
template <class Family>
void RouteMirror<Family>::forgetUnseen(const Key& key) {
  const Sent* sent = sent_.find(key);
  if (sent != nullptr && sent->epoch != epoch_) sentDel(key);
}

}  // namespace Netlink
