// The route work queue against a plain model of it, and the walk that fills it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <list>
#include <random>
#include <set>

#include "RouteCache/sw/RouteConfigWalk.h"
#include "RouteCache/sw/RouteQueue.h"
#include "lib/statedb/PlatformTypes.h"
#include "linux/tables/SharedTableService.h"
#include "test/support/SimulatedSwitch.h"

namespace {

using RouteCache::RouteConfigWalk;
using RouteCache::RouteQueue;
using RouteKey = Routing::Rib::RouteKey;
using testing::ElementsAre;
using testing::IsEmpty;

RouteKey key(const std::string& text) {
  return Platform::fromText<RouteKey>(text);
}

// --- The queue -------------------------------------------------------------------------------------------------------

// What a key waits for: nothing, another turn, room in a family's table, a VRF.
struct Place {
  enum Kind { fresh, leftover, room, vrf } kind = fresh;
  std::uint32_t of = 0;
  auto operator<=>(const Place&) const = default;
};

// The same queue as one list of keys for each place.
class ModelQueue {
 public:
  void is(const RouteKey& key, std::uint8_t flags) {
    flags_[key] = flags;
    if (visited && *visited == key) return;
    remove(key);
    lists_[{}].push_back(key);
  }
  void add(const RouteKey& key, std::uint8_t flags) {
    is(key, flags_.contains(key) && flags_[key] ? flags_[key] : flags);
  }
  void del(const RouteKey& key) {
    remove(key);
    flags_.erase(key);
    if (visited == key) visited.reset();
  }
  void clear() { *this = {}; }
  std::optional<RouteKey> visit(const Place& place) {
    auto& list = lists_[place];
    if (list.empty()) return std::nullopt;
    visited = list.front();
    list.pop_front();
    woken_.erase(*visited);
    goesTo = {Place::leftover};
    return visited;
  }
  void visitEnded() {
    if (visited) lists_[goesTo].push_back(*visited);
    visited.reset();
  }
  void wake(std::uint32_t vrf) {
    const Place place{Place::vrf, vrf};
    woken_.insert(lists_[place].begin(), lists_[place].end());
    lists_[{}].splice(lists_[{}].end(), lists_[place]);
    if (goesTo == place) goesTo = {};
  }
  std::size_t count(const Place& place) const {
    const auto found = lists_.find(place);
    return found == lists_.end() ? 0 : found->second.size();
  }
  std::size_t told() const { return count({Place::fresh}) - woken_.size(); }
  const std::map<RouteKey, std::uint8_t>& flags() const { return flags_; }
  RouteKey next() const {
    for (const Place& place : {Place{Place::fresh}, Place{Place::leftover}}) {
      if (count(place) > 0) return lists_.at(place).front();
    }
    return {};
  }

  std::optional<RouteKey> visited;
  Place goesTo;

 private:
  void remove(const RouteKey& key) {
    for (auto& list : lists_) list.second.remove(key);
    woken_.erase(key);
  }
  std::map<RouteKey, std::uint8_t> flags_;
  std::set<RouteKey> woken_;  // of the fresh ones: with their VRF
  std::map<Place, std::list<RouteKey>> lists_;
};

class RandomQueue {
 public:
  explicit RandomQueue(unsigned seed) : random_(seed) {}

  void step() {
    const RouteKey any = anyKey();
    const auto flags = static_cast<std::uint8_t>(pick(4));
    switch (pick(10)) {
      case 0:
      case 1:
        queue.routeToProcessIs(any, flags);
        model.is(any, flags);
        break;
      case 2:
        queue.routeToProcessAdd(any, flags);
        model.add(any, flags);
        break;
      case 3:
        queue.routeToProcessDel(any);
        model.del(any);
        break;
      case 4:
        wake();
        break;
      case 5:
        if (pick(40) != 0) return;
        queue.routeToProcessDelAll();
        model.clear();
        break;
      default:
        visit();
    }
    check();
  }
  // Everything that is fresh or left over, in turn; what waits is woken first.
  void drain() {
    for (std::uint32_t vrf = 0; vrf < vrfs; ++vrf) {
      queue.wakeVrf(vrf);
      model.wake(vrf);
    }
    for (const auto family : {AddressFamily::ipv4, AddressFamily::ipv6}) {
      while (visitAt({Place::room, roomOf(family)})) finishVisit();
    }
    while (visitAt({Place::fresh}) || visitAt({Place::leftover})) finishVisit();
    ASSERT_TRUE(queue.empty());
    ASSERT_EQ(queue.toldCount(), 0U);
  }

  RouteQueue queue;
  ModelQueue model;

 private:
  static constexpr std::uint32_t vrfs = 3;

  unsigned pick(unsigned count) { return static_cast<unsigned>(random_() % count); }
  RouteKey anyKey() {
    const std::string prefix = pick(2) ? "10.0." + std::to_string(pick(4)) + ".0/24" : "2001:db8::/48";
    return key(prefix + "@" + std::to_string(pick(vrfs)));
  }
  static std::uint32_t roomOf(AddressFamily family) { return family == AddressFamily::ipv6 ? 6 : 4; }
  void wake() {
    const std::uint32_t vrf = pick(vrfs);
    queue.wakeVrf(vrf);
    model.wake(vrf);
  }

  // One visit, during which its own key and others come, go and change.
  void visit() {
    const Place places[] = {{Place::fresh}, {Place::leftover}, {Place::room, 4}, {Place::room, 6}};
    if (!visitAt(places[pick(4)])) return;
    for (unsigned events = pick(4); events > 0; --events) {
      const RouteKey other = pick(2) && model.visited ? *model.visited : anyKey();
      switch (pick(5)) {
        case 0:
          queue.routeToProcessIs(other, 2);
          model.is(other, 2);
          break;
        case 1:
          queue.routeToProcessDel(other);
          model.del(other);
          break;
        case 2:
          queue.waitForVrf(other.vrfId());
          model.goesTo = {Place::vrf, other.vrfId()};
          break;
        case 3:
          queue.waitForRoom(other.prefix().family());
          model.goesTo = {Place::room, roomOf(other.prefix().family())};
          break;
        default:
          wake();
      }
    }
    queue.visitEnded();
    model.visitEnded();
  }
  bool visitAt(const Place& place) {
    const auto visit = place.kind == Place::fresh ? queue.visitFresh()
                       : place.kind == Place::leftover
                           ? queue.visitLeftover()
                           : queue.visitWaitingForRoom(place.of == 6 ? AddressFamily::ipv6 : AddressFamily::ipv4);
    const auto expected = model.visit(place);
    EXPECT_EQ(visit.has_value(), expected.has_value());
    if (!visit || !expected) return false;
    EXPECT_EQ(visit->key, *expected);
    EXPECT_EQ(visit->flags, model.flags().at(*expected));
    return true;
  }
  void finishVisit() {
    queue.routeToProcessDel(*model.visited);
    model.del(*model.visited);
    queue.visitEnded();
  }
  void check() {
    ASSERT_EQ(queue.size(), model.flags().size());
    for (const auto& [route, flags] : model.flags()) ASSERT_EQ(queue.flags(route), flags);
    ASSERT_EQ(queue.hasFresh(), model.count({Place::fresh}) > 0);
    ASSERT_EQ(queue.toldCount(), model.told());
    ASSERT_EQ(queue.leftoverCount(), model.count({Place::leftover}));
    ASSERT_EQ(queue.isWaitingForRoom(AddressFamily::ipv4), model.count({Place::room, 4}) > 0);
    ASSERT_EQ(queue.isWaitingForRoom(AddressFamily::ipv6), model.count({Place::room, 6}) > 0);
    ASSERT_EQ(queue.routeToProcessBookmark(), model.next());
  }

  std::mt19937 random_;
};

TEST(RouteQueueTest, BehavesLikeAListForEachThingWaitedFor) {
  for (unsigned seed = 0; seed < 30; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    RandomQueue random(seed);
    for (int i = 0; i < 600 && !testing::Test::HasFailure(); ++i) random.step();
    if (!testing::Test::HasFailure()) random.drain();
  }
}

TEST(RouteQueueTest, AQueueThatHasRunEmptyIsAsGoodAsNew) {
  RouteQueue queue;
  for (int round = 0; round < 2; ++round) {
    // Enough for the queue to give its memory back at the end.
    for (std::uint32_t i = 0; i < 5000; ++i) queue.routeToProcessIs({i % 2, Prefix(IpAddr(i << 8), 24)}, 1);
    EXPECT_EQ(queue.toldCount(), 5000u);
    std::uint32_t visits = 0;
    while (const auto visit = queue.visitFresh()) {
      EXPECT_EQ(visit->key.prefix().v4().addr().value(), visits++ << 8);
      if (visit->key.vrfId() == 1) {
        queue.waitForVrf(1);
      } else {
        queue.routeToProcessDel(visit->key);
      }
      queue.visitEnded();
    }
    EXPECT_EQ(visits, 5000u);
    EXPECT_EQ(queue.toldCount(), 0u);
    EXPECT_EQ(queue.size(), 2500u);
    queue.wakeVrf(1);
    while (const auto visit = queue.visitFresh()) queue.routeToProcessDel(visit->key);
    EXPECT_TRUE(queue.empty());
    EXPECT_FALSE(queue.hasFresh() || queue.leftoverCount() > 0);
  }
}

// --- The walk --------------------------------------------------------------------------------------------------------

class RouteConfigWalkTest : public testing::Test {
 protected:
  RouteConfigWalkTest() {
    LinuxPlatform::addPlatformTypes(entities, types);
    for (const char* path : {"routes", "routes6"}) {
      tables.mount(path, Routing::Rib::RouteConfig::typeName, Pondra::MountKind::writer,
                   Pondra::CollectionInfo{"route", 100});
    }
    routes = tables.get<Routing::Rib::RouteConfig>("routes");
    routes6 = tables.get<Routing::Rib::RouteConfig>("routes6");
    walk.emplace(*routes, *routes6);
    for (const char* text :
         {"0.0.0.0/0@1", "10.1.0.0/16@1", "10.2.0.0/16@1", "10.1.0.0/16@2", "::/0@1", "::/0@2", "2001:db8::/48@2"}) {
      configure(text);
    }
  }
  void configure(const std::string& text) { table(text).routeIs(Routing::Rib::Route(key(text))); }
  void remove(const std::string& text) { table(text).routeDel(key(text)); }
  Routing::Rib::RouteConfig& table(const std::string& text) { return key(text).prefix().isV4() ? *routes : *routes6; }
  // What a step tells of is what it has put at the queue's end.
  void step(std::size_t count) {
    std::vector<RouteQueue::RouteKey> met, fresh;
    walk->step(queue, count, [&](const Routing::Rib::Route& route, bool belongs) {
      EXPECT_TRUE(belongs);
      met.push_back(route.key());
    });
    queue.forEachFresh([&](const RouteQueue::RouteKey& key) { fresh.push_back(key); });
    ASSERT_GE(fresh.size(), met.size());
    EXPECT_TRUE(std::equal(met.rbegin(), met.rend(), fresh.rbegin()));
  }
  // Walks to the end in steps of this many; what it queued, in order, with flags where they are not the VTEP's.
  std::vector<std::string> walkAll(unsigned count) {
    std::vector<std::string> texts;
    for (int steps = 0; walk->pending() && steps < 1000; ++steps) {
      step(count);
      for (auto& text : queued()) texts.push_back(std::move(text));
    }
    EXPECT_FALSE(walk->pending());
    return texts;
  }
  std::vector<std::string> queued() {
    std::vector<std::string> texts;
    while (const auto visit = queue.visitFresh()) {
      std::string text = Platform::toText(visit->key);
      if (visit->flags != RouteQueue::vtepFlag) text += " flags " + std::to_string(visit->flags);
      texts.push_back(text);
      queue.routeToProcessDel(visit->key);
    }
    return texts;
  }

  TemporaryDirectory directory;
  Lattis::EntityTypes entities;
  Platform::TableTypes types;
  LinuxPlatform::SharedTableService tables{directory.path(), types};
  std::shared_ptr<Routing::Rib::RouteConfig> routes, routes6;
  std::optional<RouteConfigWalk> walk;
  RouteQueue queue;
};

TEST_F(RouteConfigWalkTest, MeetsEveryRouteOnceWhateverTheStep) {
  for (const unsigned count : {1u, 2u, 3u, 4u, 64u}) {
    SCOPED_TRACE("steps of " + std::to_string(count));
    walk->allIs(RouteQueue::vtepFlag);
    EXPECT_THAT(walkAll(count), ElementsAre("0.0.0.0/0@1", "10.1.0.0/16@1", "10.2.0.0/16@1", "10.1.0.0/16@2", "::/0@1",
                                            "::/0@2", "2001:db8::/48@2"));
    walk->vrfIs(1);
    EXPECT_THAT(walkAll(count), ElementsAre("0.0.0.0/0@1", "10.1.0.0/16@1", "10.2.0.0/16@1", "::/0@1"));
    walk->vrfIs(2);
    walk->vrfIs(3);
    walk->vrfIs(2);
    EXPECT_THAT(walkAll(count), ElementsAre("10.1.0.0/16@2", "::/0@2", "2001:db8::/48@2"));
  }
}

TEST_F(RouteConfigWalkTest, AskedForAgainWhileItRunsItIsDoneAgainAfterIt) {
  walk->allIs(RouteQueue::vtepFlag);
  step(2);
  EXPECT_THAT(queued(), ElementsAre("0.0.0.0/0@1", "10.1.0.0/16@1"));
  EXPECT_FALSE(walk->willMeet(key("10.1.0.0/16@1")));
  EXPECT_TRUE(walk->willMeet(key("10.2.0.0/16@1")));
  EXPECT_TRUE(walk->willMeet(key("::/0@1")));
  walk->vrfIs(1);
  EXPECT_TRUE(walk->willMeet(key("10.1.0.0/16@1")));
  walk->allIs(0);
  EXPECT_TRUE(walk->willMeet(key("10.1.0.0/16@3")));
  walk->vrfIs(2);  // part of the walk over all
  EXPECT_THAT(walkAll(1),
              ElementsAre("10.2.0.0/16@1", "10.1.0.0/16@2", "::/0@1", "::/0@2", "2001:db8::/48@2",  // the rest
                          "0.0.0.0/0@1", "10.1.0.0/16@1", "10.2.0.0/16@1", "10.1.0.0/16@2", "::/0@1", "::/0@2",
                          "2001:db8::/48@2"));
  EXPECT_FALSE(walk->willMeet(key("10.1.0.0/16@1")));
}

TEST_F(RouteConfigWalkTest, RequestsThatBecomeOneKeepTheFlagsOfAll) {
  const struct {
    const char* what;
    std::function<void()> ask;
    std::string flags;
  } cases[] = {
      {"two over all", [&] { walk->allIs(RouteQueue::initFlag), walk->allIs(RouteQueue::vtepFlag); }, " flags 3"},
      {"a VRF's first", [&] { walk->vrfIs(2), walk->allIs(RouteQueue::initFlag); }, " flags 3"},
      {"a VRF's second", [&] { walk->allIs(RouteQueue::initFlag), walk->vrfIs(2); }, " flags 3"},
      {"one alone", [&] { walk->allIs(RouteQueue::initFlag); }, " flags 1"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    c.ask();
    EXPECT_THAT(walkAll(64), testing::Contains("10.1.0.0/16@2" + c.flags));
  }
  // A key that is queued keeps its own, unless they are none.
  queue.routeToProcessIs(key("10.1.0.0/16@1"), RouteQueue::initFlag);
  queue.routeToProcessIs(key("10.2.0.0/16@1"), 0);
  walk->vrfIs(1);
  EXPECT_THAT(walkAll(64), ElementsAre("0.0.0.0/0@1", "10.1.0.0/16@1 flags 1", "10.2.0.0/16@1", "::/0@1"));
}

TEST_F(RouteConfigWalkTest, RoutesThatComeAndGoMeanwhile) {
  walk->allIs(RouteQueue::vtepFlag);
  step(1);
  remove("10.1.0.0/16@1");  // where it would go on
  remove("0.0.0.0/0@1");    // where it has been
  configure("9.0.0.0/8@1");
  configure("10.0.0.0/8@1");
  remove("::/0@2");
  configure("2001:db8:1::/48@9");
  EXPECT_THAT(walkAll(1), ElementsAre("0.0.0.0/0@1", "10.2.0.0/16@1", "10.1.0.0/16@2", "::/0@1", "2001:db8::/48@2",
                                      "2001:db8:1::/48@9"));
  // A VRF's last route goes while the walk stands at it.
  walk->vrfIs(1);
  step(2);
  EXPECT_THAT(queued(), ElementsAre("9.0.0.0/8@1", "10.0.0.0/8@1"));
  remove("10.2.0.0/16@1");
  EXPECT_THAT(walkAll(1), ElementsAre("::/0@1"));
  routes->routeDelAll();
  routes6->routeDelAll();
  walk->allIs(RouteQueue::vtepFlag);
  EXPECT_TRUE(walk->pending());
  EXPECT_THAT(walkAll(1), IsEmpty());
}

}  // namespace
