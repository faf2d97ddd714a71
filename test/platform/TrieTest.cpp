#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <random>
#include <tuple>

#include "platform/tables/Trie.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

// Prefixes from a small space, at every kind of depth, so that random ones nest, meet again and part; or from one that
// holds thousands.
template <class P>
P randomPrefix(std::mt19937& random, bool wide = false) {
  if constexpr (std::is_same_v<P, Prefix>) {
    static constexpr unsigned lengths[] = {0, 1, 2, 7, 8, 9, 15, 16, 23, 24, 25, 30, 31, 32};
    const auto bits = static_cast<std::uint32_t>(random()) & (wide ? 0xF3FFC303 : 0xC0830103);
    return {IpAddr(bits), lengths[random() % std::size(lengths)]};
  } else {
    static constexpr unsigned lengths[] = {0, 1, 2, 32, 33, 62, 63, 64, 65, 66, 96, 126, 127, 128};
    const std::uint64_t high = random() & (wide ? 0x00007BFF : 0x00000003);
    const std::uint64_t low = random() & 0x80000003;
    return {Ip6Addr(high << (wide ? 49 : 62) | high, low << 32 | low), lengths[random() % std::size(lengths)]};
  }
}

template <class P>
P shortened(const P& prefix, unsigned length) {
  return {prefix.addr(), length};
}

template <class P>
class TrieTest : public ::testing::Test {
 public:
  using TrieType = Platform::BasicTrie<P>;
  using Report = std::tuple<P, int>;  // the prefix and its value, -1 when it is gone

  class Recorder : public TrieType::Reactor {
   public:
    using TrieType::Reactor::Reactor;
    void handleRouteCachePrefix(std::uint32_t reported) override {
      id = reported;
      const std::optional<P> prefix = this->trie()->prefix(id);
      ASSERT_TRUE(prefix.has_value());
      const std::optional<bool> value = this->trie()->route(*prefix);
      reports.emplace_back(*prefix, value ? int{*value} : -1);
      if (onReport) std::exchange(onReport, nullptr)();
    }
    void handleTrieDelete() override {
      ++deletions;
      EXPECT_TRUE(this->trie()->empty());
      if (onReport) std::exchange(onReport, nullptr)();
    }
    std::vector<Report> reports;
    int deletions = 0;
    std::uint32_t id = 0;            // of the last report
    std::function<void()> onReport;  // once
  };

  // A trie, and what must be in it.
  struct Twins {
    TrieType& trie;
    std::map<P, bool> model;

    // Adds or sets it, in so many of a hundred cases; else it goes, or the next that is there.
    void change(std::mt19937& random, const P& prefix, unsigned growing) {
      if (random() % 100 < growing) {
        const bool value = random() % 2 == 0;
        trie.routeIs(prefix, value);
        model[prefix] = value;
      } else {
        const auto near = model.lower_bound(prefix);
        const P victim = near != model.end() && random() % 4 != 0 ? near->first : prefix;
        trie.routeDel(victim);
        model.erase(victim);
      }
    }
    void compare(const P& probe) const {
      ASSERT_EQ(trie.size(), model.size());
      const auto found = model.find(probe);
      ASSERT_EQ(trie.route(probe), found == model.end() ? std::nullopt : std::optional(found->second));
      std::optional<P> longest;
      for (unsigned length = 0; length <= probe.length(); ++length) {
        if (model.contains(shortened(probe, length))) longest = shortened(probe, length);
      }
      ASSERT_EQ(trie.longestMatch(probe), longest) << Platform::toText(probe);
      const auto bound = model.lower_bound(probe);
      const auto place = trie.lowerBound(probe);
      ASSERT_EQ(place == trie.end(), bound == model.end()) << Platform::toText(probe);
      if (bound != model.end()) {
        ASSERT_EQ(place->prefix, bound->first);
      }
    }
    void walk() const {
      auto expected = model.begin();
      for (const auto& route : trie) {
        ASSERT_EQ(route.prefix, expected->first);
        ASSERT_EQ(route.value, expected->second);
        ++expected;
      }
      ASSERT_EQ(expected, model.end());
    }
  };

  static P prefix(const char* v4, const char* v6) { return Platform::fromText<P>(std::is_same_v<P, Prefix> ? v4 : v6); }
  std::vector<P> walk() const {
    std::vector<P> prefixes;
    for (const auto& route : *shared) prefixes.push_back(route.prefix);
    return prefixes;
  }

  const P all = prefix("0.0.0.0/0", "::/0");
  const P wide = prefix("10.0.0.0/8", "2001:db8::/32");
  const P narrow = prefix("10.1.0.0/16", "2001:db8:1::/48");
  const P host = prefix("10.1.2.3/32", "2001:db8:1::3/128");
  const P sibling = prefix("10.2.0.0/16", "2001:db8:2::/48");
  std::shared_ptr<TrieType> shared = std::make_shared<TrieType>();
};

using Families = ::testing::Types<Prefix, Ip6Prefix>;
TYPED_TEST_SUITE(TrieTest, Families);

TYPED_TEST(TrieTest, AgreesWithAnOrderedMapUnderRandomOperations) {
  for (unsigned seed = 1; seed <= 5; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    typename TestFixture::Twins twins{*this->shared, {}};
    for (int step = 0; step < 4000; ++step) {
      const bool growing = step / 1000 % 2 == 0;
      twins.change(random, randomPrefix<TypeParam>(random), growing ? 70 : 10);
      twins.trie.assertInvariant();
      ASSERT_NO_FATAL_FAILURE(twins.compare(randomPrefix<TypeParam>(random)));
      if (step % 50 == 0) {
        ASSERT_NO_FATAL_FAILURE(twins.walk());
      }
    }
    for (const auto& route : twins.model) twins.trie.routeDel(route.first);
    ASSERT_TRUE(twins.trie.empty());
    ASSERT_EQ(twins.trie.bytes(), typename TestFixture::TrieType().bytes());
  }
}

// What comes with size, a table of all first bits and memory in pieces, comes and goes.
TYPED_TEST(TrieTest, AgreesWithAnOrderedMapWhenLarge) {
  std::mt19937 random(1);
  typename TestFixture::Twins twins{*this->shared, {}};
  const auto goTo = [&](std::size_t size, unsigned growing) {
    for (unsigned step = 0; twins.model.size() != size; ++step) {
      twins.change(random, randomPrefix<TypeParam>(random, true), growing);
      if (step % 4096 == 0) twins.trie.assertInvariant();
      if (step % 128 == 0) twins.compare(randomPrefix<TypeParam>(random, true));
      if (::testing::Test::HasFatalFailure()) return;
    }
    twins.trie.assertInvariant();
    twins.walk();
  };
  goTo(20'000, 90);
  const std::size_t most = twins.trie.bytes();
  EXPECT_LE(most, 56 * twins.trie.size());
  goTo(2000, 20);
  EXPECT_LE(twins.trie.bytes(), most / 6);
  goTo(17'000, 90);
  // A short prefix above the only one of a corner that the random ones leave out.
  for (const auto& prefix : {this->prefix("12.1.2.3/32", "800::1/128"), this->prefix("12.0.0.0/8", "800::/8")}) {
    twins.trie.routeIs(prefix, true);
    twins.model[prefix] = true;
    twins.trie.assertInvariant();
  }
  goTo(0, 10);
}

TYPED_TEST(TrieTest, AWalkGoesOnAfterItsPrefixAndOthersAreGone) {
  auto& trie = *this->shared;
  for (const auto& prefix : {this->wide, this->narrow, this->host, this->sibling}) trie.routeIs(prefix, true);
  auto route = trie.begin();
  ++route;
  EXPECT_EQ(route->prefix, this->narrow);
  trie.routeDel(this->narrow);
  trie.routeDel(this->host);
  trie.routeIs(this->all, true);  // behind the walk: not met
  ++route;
  EXPECT_EQ(route->prefix, this->sibling);
  trie.routeDel(this->sibling);
  EXPECT_EQ(++route, trie.end());
}

TYPED_TEST(TrieTest, ReportsEachChangeOnceItIsVisible) {
  using Change = typename TestFixture::Report;
  auto& trie = *this->shared;
  trie.routeIs(this->wide, true);
  typename TestFixture::Recorder recorder(this->shared);
  EXPECT_THAT(recorder.reports, IsEmpty()) << "what is there already is not replayed";
  trie.routeIs(this->wide, true);  // the value it has
  trie.routeDel(this->narrow);     // nothing there
  trie.routeIs(this->narrow, true);
  trie.routeIs(this->narrow, false);
  trie.routeDel(this->narrow);
  EXPECT_THAT(recorder.reports,
              ElementsAre(Change(this->narrow, 1), Change(this->narrow, 0), Change(this->narrow, -1)));
  EXPECT_EQ(trie.prefix(recorder.id), std::nullopt) << "resolvable only while it is reported";
}

// Reactors change the trie, leave, enter and let go of the trie from inside a notification.
TYPED_TEST(TrieTest, ReactorsMayDoAnythingInTheirOwnNotification) {
  using Watcher = typename TestFixture::Recorder;
  using Change = typename TestFixture::Report;
  auto& trie = *this->shared;
  Watcher first(this->shared);
  auto second = std::make_unique<Watcher>(this->shared);
  trie.routeIs(this->narrow, true);
  trie.routeIs(this->sibling, true);

  // Removing one side of a branch frees the node between them too; what takes its place must not take its id before
  // the second reactor has heard of the removal.
  first.onReport = [&] {
    trie.routeDel(this->sibling);
    trie.routeIs(this->host, true);
    trie.routeIs(this->all, true);
  };
  trie.routeDel(this->narrow);
  trie.assertInvariant();
  EXPECT_THAT(second->reports, ElementsAre(Change(this->narrow, 1), Change(this->sibling, 1), Change(this->sibling, -1),
                                           Change(this->host, 1), Change(this->all, 1), Change(this->narrow, -1)));
  EXPECT_THAT(this->walk(), ElementsAre(this->all, this->host));

  first.onReport = [&] { second.reset(); };
  trie.routeIs(this->wide, true);
  EXPECT_EQ(second, nullptr);

  // The last owner lets go while a change is being reported: the trie lives until the report is over.
  first.onReport = [&] { this->shared.reset(); };
  trie.routeIs(this->sibling, true);
  EXPECT_EQ(first.deletions, 1);
  EXPECT_EQ(first.trie(), nullptr);
}

TYPED_TEST(TrieTest, DeletionTellsEveryReactorThatIsStillThere) {
  using Watcher = typename TestFixture::Recorder;
  for (const auto& prefix : {this->all, this->wide, this->narrow, this->host, this->sibling}) {
    this->shared->routeIs(prefix, true);
  }
  Watcher first(this->shared);
  auto second = std::make_unique<Watcher>(this->shared);
  Watcher third(this->shared);
  this->shared->trieDelete();
  this->shared->assertInvariant();
  EXPECT_EQ(first.deletions, 1);
  EXPECT_THAT(first.reports, IsEmpty());

  this->shared->routeIs(this->wide, true);
  second->onReport = [&] { second.reset(); };
  this->shared.reset();
  EXPECT_EQ(first.deletions, 2);
  EXPECT_EQ(second, nullptr);
  EXPECT_EQ(third.deletions, 2);
}

}  // namespace
