#include "simulator/report/Yardsticks.h"

#include <limits>
#include <utility>

namespace Simulator {

namespace {

std::uint32_t checkedCapacity(std::uint32_t capacity) {
  if (capacity == 0) throw RangeError("a cache needs room for at least 1 destination");
  return capacity;
}

}  // namespace

CacheFigures operator-(const CacheFigures& later, const CacheFigures& earlier) {
  return {later.packets - earlier.packets, later.hits - earlier.hits, later.admissions - earlier.admissions,
          later.evictions - earlier.evictions, later.readmissions - earlier.readmissions};
}

CacheLedger::CacheLedger(std::uint32_t destinations)
    : evictedAt_(destinations, -std::numeric_limits<double>::infinity()) {}

void CacheLedger::packetsAre(std::uint64_t packets, std::uint64_t hits) {
  figures_.packets += packets;
  figures_.hits += hits;
}

void CacheLedger::admitted(double time, std::uint32_t destination) {
  ++figures_.admissions;
  if (time - evictedAt_[destination] <= CacheFigures::readmissionWindow) ++figures_.readmissions;
}

void CacheLedger::evicted(double time, std::uint32_t destination) {
  ++figures_.evictions;
  evictedAt_[destination] = time;
}

OnlineCache::OnlineCache(std::uint32_t capacity, std::uint32_t destinations)
    : capacity_(checkedCapacity(capacity)), ledger_(destinations) {}

void OnlineCache::requests(double time, const std::vector<Burst>& bursts) {
  for (const Burst& burst : bursts) {
    if (burst.packets > 0) ledger_.packetsAre(burst.packets, request(time, burst));
  }
}

LruCache::LruCache(std::uint32_t capacity, std::uint32_t destinations)
    : OnlineCache(capacity, destinations),
      end_(destinations),
      links_(std::size_t{destinations} + 1),
      isCached_(destinations) {
  links_[end_] = {end_, end_};
}

std::uint32_t LruCache::request(double time, const Burst& burst) {
  if (isCached_[burst.destination]) {
    unlink(burst.destination);
    linkFirst(burst.destination);
    return burst.packets;
  }
  if (size_ == capacity()) {
    const std::uint32_t oldest = links_[end_].before;
    unlink(oldest);
    isCached_[oldest] = false;
    ledger().evicted(time, oldest);
  } else {
    ++size_;
  }
  linkFirst(burst.destination);
  isCached_[burst.destination] = true;
  ledger().admitted(time, burst.destination);
  return burst.packets - 1;
}

void LruCache::unlink(std::uint32_t destination) {
  const Links links = links_[destination];
  links_[links.before].behind = links.behind;
  links_[links.behind].before = links.before;
}

void LruCache::linkFirst(std::uint32_t destination) {
  const std::uint32_t second = links_[end_].behind;
  links_[destination] = {end_, second};
  links_[second].before = destination;
  links_[end_].behind = destination;
}

LfuCache::LfuCache(std::uint32_t capacity, std::uint32_t destinations)
    : OnlineCache(capacity, destinations), cached_(destinations), counts_(destinations) {}

std::uint32_t LfuCache::request(double time, const Burst& burst) {
  const std::uint64_t before = counts_[burst.destination];
  const std::uint64_t count = counts_[burst.destination] += burst.packets;
  const Use use{count, ++bursts_};
  if (cached_.contains(burst.destination)) {
    cached_.keyIs(burst.destination, use);
    return burst.packets;
  }
  std::uint64_t misses = 1;
  if (cached_.size() == capacity()) {
    const std::uint64_t lowest = cached_.firstKey().count;
    if (count <= lowest) return 0;
    if (lowest >= before) misses = lowest + 1 - before;  // the packet that exceeds the lowest count is the last miss
    ledger().evicted(time, cached_.first());
    cached_.firstDel();
  }
  cached_.keyIs(burst.destination, use);
  ledger().admitted(time, burst.destination);
  return burst.packets - static_cast<std::uint32_t>(misses);
}

OptimalCache::OptimalCache(std::uint32_t capacity, std::uint32_t destinations)
    : capacity_(checkedCapacity(capacity)), destinations_(destinations) {}

namespace {

// Index of a request that never comes.
constexpr std::uint32_t never = std::numeric_limits<std::uint32_t>::max();

// When a destination is used next. Orders the furthest away first.
struct NextUse {
  std::uint32_t request;
  bool operator<(const NextUse& other) const { return request > other.request; }
};

}  // namespace

void OptimalCache::requests(double time, const std::vector<Burst>& bursts) {
  std::uint64_t certainHits = 0;
  for (const Burst& burst : bursts) {
    if (burst.packets == 0) continue;
    requests_.push_back(burst.destination);
    if (burst.packets == 1) continue;
    requests_.push_back(burst.destination);
    certainHits += burst.packets - 2;
  }
  if (requests_.size() >= never) throw RangeError("the optimum is found for at most 4294967294 requests");
  batches_.push_back({time, static_cast<std::uint32_t>(requests_.size()), certainHits});
}

std::vector<std::uint32_t> OptimalCache::nextUses() const {
  std::vector<std::uint32_t> next(requests_.size());
  std::vector<std::uint32_t> soonest(destinations_, never);
  for (auto i = static_cast<std::uint32_t>(next.size()); i-- > 0;) {
    next[i] = std::exchange(soonest[requests_[i]], i);
  }
  return next;
}

CacheFigures OptimalCache::judge(const Observer& observer) const {
  const std::vector<std::uint32_t> next = nextUses();
  CacheLedger ledger(destinations_);
  IndexedHeap<NextUse> cached(destinations_);
  std::uint32_t request = 0;
  for (const Batch& batch : batches_) {
    ledger.packetsAre(batch.certainHits, batch.certainHits);
    for (; request < batch.end; ++request) {
      const std::uint32_t destination = requests_[request];
      const NextUse use{next[request]};
      const bool hit = cached.contains(destination);
      ledger.packetsAre(1, hit ? 1 : 0);
      if (!hit) {
        const bool full = cached.size() == capacity_;
        if (use.request >= (full ? cached.firstKey().request : never)) continue;
        if (full) {
          ledger.evicted(batch.time, cached.first());
          cached.firstDel();
        }
        ledger.admitted(batch.time, destination);
      }
      cached.keyIs(destination, use);
    }
    if (observer) observer(batch.time, ledger.figures());
  }
  return ledger.figures();
}

}  // namespace Simulator
