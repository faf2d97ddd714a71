#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <deque>
#include <map>
#include <memory>
#include <optional>

#include "simulator/report/Yardsticks.h"
#include "simulator/traffic/Random.h"

namespace {

using Simulator::Burst;
using Simulator::CacheFigures;
using Simulator::LfuCache;
using Simulator::LruCache;
using Simulator::OptimalCache;
using Simulator::Random;

// Some bursts every 100 seconds; low numbers come more often.
using Trace = std::vector<std::vector<Burst>>;
constexpr double step = 100;

Trace randomTrace(Random& random, std::uint32_t destinations, std::uint32_t batches) {
  Trace trace(batches);
  for (auto& bursts : trace) {
    for (std::uint32_t i = random.below(4); i > 0; --i) {
      const std::uint32_t destination = random.below(random.below(destinations) + 1);
      bursts.push_back({destination, random.below(4) == 0 ? 1 + random.below(5) : 1});
    }
  }
  return trace;
}

CacheFigures run(Simulator::OnlineCache& cache, const Trace& trace) {
  double time = 0;
  for (const auto& bursts : trace) cache.requests(time += step, bursts);
  return cache.figures();
}
CacheFigures run(OptimalCache& cache, const Trace& trace) {
  double time = 0;
  for (const auto& bursts : trace) cache.requests(time += step, bursts);
  return cache.judge();
}

// The plainest possible cache: packet by packet, everything looked up by walking. `admits` says whether a missed
// destination comes in and who has to go then, an index into the cache or nothing.
class NaiveCache {
 public:
  explicit NaiveCache(std::size_t capacity) : capacity_(capacity) {}
  virtual ~NaiveCache() = default;
  CacheFigures run(const Trace& trace) {
    double time = 0;
    for (const auto& bursts : trace) {
      time += step;
      for (const Burst& burst : bursts) {
        for (std::uint32_t i = 0; i < burst.packets; ++i) request(time, burst.destination);
      }
    }
    return figures_;
  }

 protected:
  virtual bool admits(std::uint32_t destination) const = 0;
  virtual std::size_t victim() const = 0;
  std::uint64_t count(std::uint32_t destination) const { return counts_.at(destination); }
  const std::vector<std::uint32_t>& cached() const { return cached_; }  // the one used last stands last

 private:
  void request(double time, std::uint32_t destination) {
    ++figures_.packets;
    ++counts_[destination];
    const auto found = std::ranges::find(cached_, destination);
    if (found != cached_.end()) {
      ++figures_.hits;
      cached_.erase(found);
    } else {
      if (cached_.size() == capacity_) {
        if (!admits(destination)) return;
        const auto out = cached_.begin() + static_cast<std::ptrdiff_t>(victim());
        evictedAt_[*out] = time;
        cached_.erase(out);
        ++figures_.evictions;
      }
      ++figures_.admissions;
      if (evictedAt_.contains(destination) && time - evictedAt_[destination] <= 300) ++figures_.readmissions;
    }
    cached_.push_back(destination);
  }

  std::size_t capacity_;
  CacheFigures figures_;
  std::vector<std::uint32_t> cached_;
  std::map<std::uint32_t, std::uint64_t> counts_;
  std::map<std::uint32_t, double> evictedAt_;
};

class NaiveLru final : public NaiveCache {
 public:
  using NaiveCache::NaiveCache;

 protected:
  bool admits(std::uint32_t /*destination*/) const override { return true; }
  std::size_t victim() const override { return 0; }
};

class NaiveLfu final : public NaiveCache {
 public:
  using NaiveCache::NaiveCache;

 protected:
  bool admits(std::uint32_t destination) const override { return count(destination) > count(cached()[victim()]); }
  std::size_t victim() const override {
    const auto lowest = std::ranges::min_element(cached(), {}, [this](std::uint32_t d) { return count(d); });
    return static_cast<std::size_t>(lowest - cached().begin());
  }
};

void expectEqual(const CacheFigures& is, const CacheFigures& should) {
  EXPECT_EQ(is.packets, should.packets);
  EXPECT_EQ(is.hits, should.hits);
  EXPECT_EQ(is.admissions, should.admissions);
  EXPECT_EQ(is.evictions, should.evictions);
  EXPECT_EQ(is.readmissions, should.readmissions);
}

TEST(YardsticksTest, AgreeWithPlainModelsAndTheOptimumIsNeverBeaten) {
  for (std::uint64_t seed = 1; seed <= 60; ++seed) {
    SCOPED_TRACE(::testing::Message() << "seed " << seed);
    Random random(seed, 0);
    const std::uint32_t destinations = 2 + random.below(60);
    const std::uint32_t capacity = 1 + random.below(destinations);
    const Trace trace = randomTrace(random, destinations, 400);

    LruCache lru(capacity, destinations);
    const CacheFigures lruFigures = run(lru, trace);
    expectEqual(lruFigures, NaiveLru(capacity).run(trace));
    LfuCache lfu(capacity, destinations);
    const CacheFigures lfuFigures = run(lfu, trace);
    expectEqual(lfuFigures, NaiveLfu(capacity).run(trace));

    OptimalCache optimum(capacity, destinations);
    const CacheFigures best = run(optimum, trace);
    EXPECT_EQ(best.packets, lruFigures.packets);
    EXPECT_GE(best.hits, lruFigures.hits);
    EXPECT_GE(best.hits, lfuFigures.hits);
    EXPECT_LE(best.admissions - best.evictions, capacity);
  }
}

// The most hits by trying everything: after each packet the cache may hold what it held, and after a miss the missed
// destination in place of any other. Index: the set of cached destinations as bits.
std::uint64_t mostHits(const Trace& trace, std::uint32_t destinations, int capacity) {
  std::vector<std::optional<std::uint64_t>> best(std::size_t{1} << destinations);
  best[0] = 0;
  const auto improve = [](std::optional<std::uint64_t>& entry, std::uint64_t hits) {
    entry = std::max(entry.value_or(0), hits);
  };
  for (const auto& bursts : trace) {
    for (const Burst& burst : bursts) {
      const std::uint32_t bit = std::uint32_t{1} << burst.destination;
      for (std::uint32_t packet = 0; packet < burst.packets; ++packet) {
        auto next = best;
        for (std::uint32_t set = 0; set < best.size(); ++set) {
          if (!best[set]) continue;
          if ((set & bit) != 0) {
            improve(next[set], *best[set] + 1);
            continue;
          }
          if (std::popcount(set) < capacity) improve(next[set | bit], *best[set]);
          for (std::uint32_t out = 1; out <= set; out <<= 1) {
            if ((set & out) != 0) improve(next[(set & ~out) | bit], *best[set]);
          }
        }
        best = next;
      }
    }
  }
  return **std::ranges::max_element(best);
}

TEST(YardsticksTest, OptimumIsTheMostThatAnyChoiceCouldReach) {
  for (std::uint64_t seed = 1; seed <= 200; ++seed) {
    SCOPED_TRACE(::testing::Message() << "seed " << seed);
    Random random(seed, 0);
    const std::uint32_t destinations = 2 + random.below(5);
    const std::uint32_t capacity = 1 + random.below(destinations - 1);
    const Trace trace = randomTrace(random, destinations, 20);
    OptimalCache optimum(capacity, destinations);
    EXPECT_EQ(run(optimum, trace).hits, mostHits(trace, destinations, static_cast<int>(capacity)));
  }
}

TEST(YardsticksTest, OptimumTellsTheFiguresOfEveryStep) {
  // 0 is worth keeping, 1 and 3 come once, 2 pushes 0 out for a burst; 0 is back within the window, 2 behind it.
  const Trace trace = {{{1, 1}, {0, 1}}, {}, {{0, 2}, {2, 5}}, {{0, 2}}, {}, {}, {{2, 2}}, {{3, 1}}};
  OptimalCache optimum(1, 4);
  EXPECT_EQ(run(optimum, trace).hits, 1U + 1 + 4 + 1 + 1);
  std::vector<std::pair<double, CacheFigures>> steps;
  optimum.judge([&](double time, const CacheFigures& figures) { steps.emplace_back(time, figures); });
  ASSERT_EQ(steps.size(), trace.size());
  EXPECT_EQ(steps[1], std::pair(200.0, (CacheFigures{2, 0, 1, 0, 0})));
  EXPECT_EQ(steps[2], std::pair(300.0, (CacheFigures{9, 6, 2, 1, 0})));
  EXPECT_EQ(steps[3], std::pair(400.0, (CacheFigures{11, 7, 3, 2, 1})));
  EXPECT_EQ(steps[6], std::pair(700.0, (CacheFigures{13, 8, 4, 3, 2}))) << "300 seconds are within the window";
  EXPECT_EQ(steps[7].second, (CacheFigures{14, 8, 4, 3, 2})) << "nothing comes in that never comes again";
  EXPECT_EQ((steps[3].second - steps[2].second), (CacheFigures{2, 1, 1, 1, 1}));

  EXPECT_THROW(OptimalCache(0, 1), RangeError);
  EXPECT_THROW(LruCache(0, 1), RangeError);
}

}  // namespace
