// Caches to measure others by: they are shown the same traffic and tell what they would have made of it.
//
// All of them hold whole destinations, a fixed number of them, and start empty. Every packet is a request: to a
// destination in the cache a hit, else a miss, and a miss is the only moment at which a destination can be admitted. A
// burst of packets is that many requests in a row.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <vector>

#include "simulator/report/IndexedHeap.h"
#include "simulator/traffic/TrafficSource.h"

namespace Simulator {

// What a cache did since its start.
struct CacheFigures {
  std::uint64_t packets = 0;
  std::uint64_t hits = 0;
  std::uint64_t admissions = 0;
  std::uint64_t evictions = 0;
  // Admissions of destinations that had been evicted at most readmissionWindow seconds earlier.
  std::uint64_t readmissions = 0;

  static constexpr double readmissionWindow = 300;
  // Of the packets, 0 to 1; 0 before the first packet.
  double hitShare() const { return packets == 0 ? 0 : static_cast<double>(hits) / static_cast<double>(packets); }
  bool operator==(const CacheFigures&) const = default;
};
// What happened between two readings.
CacheFigures operator-(const CacheFigures& later, const CacheFigures& earlier);

// The book that each of the caches keeps; 8 bytes per destination.
class CacheLedger {
 public:
  explicit CacheLedger(std::uint32_t destinations);
  const CacheFigures& figures() const { return figures_; }
  void packetsAre(std::uint64_t packets, std::uint64_t hits);  // so many more
  void admitted(double time, std::uint32_t destination);
  void evicted(double time, std::uint32_t destination);

 private:
  CacheFigures figures_;
  std::vector<double> evictedAt_;  // by destination; long ago for one never evicted
};

// A cache that decides as packets come.
class OnlineCache {
 public:
  // For destinations 0 to destinations - 1. Throws RangeError for a capacity of 0.
  OnlineCache(std::uint32_t capacity, std::uint32_t destinations);
  virtual ~OnlineCache() = default;
  OnlineCache(const OnlineCache&) = delete;
  OnlineCache& operator=(const OnlineCache&) = delete;

  // All of them count as sent at `time`, in seconds, which never goes back.
  void requests(double time, const std::vector<Burst>& bursts);
  const CacheFigures& figures() const { return ledger_.figures(); }

 protected:
  // A burst of at least one packet. Returns how many of them are hits.
  virtual std::uint32_t request(double time, const Burst& burst) = 0;
  std::uint32_t capacity() const { return capacity_; }
  CacheLedger& ledger() { return ledger_; }

 private:
  std::uint32_t capacity_;
  CacheLedger ledger_;
};

// Least recently used: every miss is admitted, in place of the destination whose last packet lies back the furthest.
// 16 bytes per destination.
class LruCache final : public OnlineCache {
 public:
  LruCache(std::uint32_t capacity, std::uint32_t destinations);

 protected:
  std::uint32_t request(double time, const Burst& burst) override;

 private:
  // A ring of those in the cache, through `end_`, which is none: behind it the one used last.
  struct Links {
    std::uint32_t before;
    std::uint32_t behind;
  };
  void unlink(std::uint32_t destination);
  void linkFirst(std::uint32_t destination);

  std::uint32_t end_;
  std::uint32_t size_ = 0;
  std::vector<Links> links_;    // by destination; last the ring's end
  std::vector<bool> isCached_;  // by destination
};

// Least frequently used. The packets of every destination are counted from the start, in the cache or not, and a miss
// is admitted once its count exceeds the lowest count in the cache, which then has to go (of several the one whose last
// packet lies back the furthest). So the cache tends to the destinations with the most packets so far; it never
// forgets. 20 bytes per destination, 24 per place in the cache.
class LfuCache final : public OnlineCache {
 public:
  LfuCache(std::uint32_t capacity, std::uint32_t destinations);

 protected:
  std::uint32_t request(double time, const Burst& burst) override;

 private:
  struct Use {
    std::uint64_t count;
    std::uint64_t last;  // number of the burst
    bool operator<(const Use& other) const { return count != other.count ? count < other.count : last < other.last; }
  };
  IndexedHeap<Use> cached_;
  std::vector<std::uint64_t> counts_;
  std::uint64_t bursts_ = 0;
};

// The most hits that any cache of the size can have, with the whole future known: a miss is admitted only if its next
// packet comes sooner than that of some destination in the cache, and takes the place of the one whose next packet is
// furthest away. Nothing is admitted that never comes again.
//
// Traffic is recorded first and judged at the end. 4 bytes per burst while recording (8 for one of several packets),
// twice that and 16 bytes per destination while judging: 36 million packets take 290 MB.
class OptimalCache {
 public:
  // For destinations 0 to destinations - 1. Throws RangeError for a capacity of 0.
  OptimalCache(std::uint32_t capacity, std::uint32_t destinations);

  // All of them count as sent at `time`, in seconds, which never goes back. Throws RangeError over 2^32 - 2 requests,
  // where a burst of several packets counts as two.
  void requests(double time, const std::vector<Burst>& bursts);

  // Called with the time of each recorded call of requests() and the figures up to and including it.
  using Observer = std::function<void(double time, const CacheFigures& figures)>;
  // What the optimum makes of all that was recorded.
  CacheFigures judge(const Observer& observer = {}) const;

 private:
  // One call of requests().
  struct Batch {
    double time;
    std::uint32_t end;          // of its requests
    std::uint64_t certainHits;  // packets that stand for no request
  };
  std::vector<std::uint32_t> nextUses() const;

  std::uint32_t capacity_;
  std::uint32_t destinations_;
  // Destinations. A burst of several packets stands as two requests in a row: the first of them is a miss or not, the
  // second finds the destination in the cache, because nothing is used sooner, and so do all that follow.
  std::deque<std::uint32_t> requests_;  // grows without copying
  std::vector<Batch> batches_;
};

}  // namespace Simulator
