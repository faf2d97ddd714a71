// From the FIB process's tables to the tries of a VRF: which routes are in them, when, and what a sweep in many time
// slices makes of tables that change under it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>

#include "RouteCache/vrf/VrfSm.h"
#include "lib/tasks/SimulatedScheduler.h"
#include "lib/trace/TextTraceFacility.h"
#include "linux/tables/SharedTableService.h"
#include "test/support/Content.h"
#include "test/support/SimulatedSwitch.h"

namespace {

using LinuxPlatform::SharedTableService;
using testing::ElementsAre;

Platform::TableTypes fibTypes() {
  Platform::TableTypes types;
  types.typeIs<Pondra::Fib::RouteStatus>();
  types.typeIs<Pondra::Fib6::RouteStatus>();
  return types;
}

// A FIB process, the VRF state machine, and the event loop between them. The one VRF is "red".
class FibAndVrf {
 public:
  explicit FibAndVrf(int traceLevel = -1, std::uint64_t yieldAfter = 0)
      : trace(traceLevel),
        agent_(directory_.path(), types_),
        sm_(RouteCache::VrfSmIs(hardware_, names_, ids_, tries, agent_, scheduler, trace)) {
    scheduler.yieldAfterEntriesIs(yieldAfter);
    scheduler.afterRunIs([this] { deliver(); });
    agent_.corruptionHandlerIs([this](const std::string& path, const std::string&) { damaged.insert(path); });
    startFib();
  }

  void startFib() { fib_ = std::make_unique<SharedTableService>(directory_.path(), types_); }
  // The FIB process dies, and each of its table files is half of what it was; then they are whole again, and so is it.
  void fibBreaks() {
    fib_.reset();
    for (const auto& [path, type] : written_) {
      whole_[path] = contentOf(fileOf(path));
      std::filesystem::resize_file(fileOf(path), whole_[path].size() / 2);
    }
  }
  void fibGrows() {
    for (const auto& [path, bytes] : whole_) std::ofstream(fileOf(path), std::ios::binary) << bytes;
    startFib();
  }
  // The tables' next writer wants another capacity: their readers go over to new files.
  void fibRestarts() {
    capacity_ = capacity_ == 100 ? 120 : 100;
    startFib();
    for (const auto& [path, type] : written_) mountFib(path, type);
  }
  void vrf() {
    names_->nameToIdIs("red", 1);
    hardware_->vrfStatusIs("red")->hwVrfIdIs(101);
  }
  void vrfGone() { hardware_->vrfStatusDel("red"); }
  void route(const std::string& prefix, unsigned type) {
    const auto key = Platform::fromText<IpGenPrefix>(prefix);
    if (key.isV4()) {
      table<Pondra::Fib::RouteStatus>(paths_.ipv4)->routeIs({key.v4(), static_cast<Pondra::Fib::RouteType>(type)});
    } else {
      table<Pondra::Fib6::RouteStatus>(paths_.ipv6)->routeIs({key.v6(), static_cast<Pondra::Fib6::RouteType>(type)});
    }
  }
  void routeGone(const std::string& prefix) {
    const auto key = Platform::fromText<IpGenPrefix>(prefix);
    if (key.isV4()) {
      table<Pondra::Fib::RouteStatus>(paths_.ipv4)->routeDel(key.v4());
    } else {
      table<Pondra::Fib6::RouteStatus>(paths_.ipv6)->routeDel(key.v6());
    }
  }

  // "10.0.0.0/8 40; vrf; 10.0.0.0/8 gone; settle": a route of a type, a route that goes, or one of the verbs.
  void play(const std::string& story) {
    std::istringstream steps(story);
    for (std::string step; std::getline(steps, step, ';');) {
      std::istringstream words(step);
      std::string verb, type;
      words >> verb >> type;
      if (verb == "vrf") {
        vrf();
      } else if (verb == "vrfGone") {
        vrfGone();
      } else if (verb == "breaks") {
        fibBreaks();
      } else if (verb == "grows") {
        fibGrows();
      } else if (verb == "settle") {
        scheduler.advance(0);
      } else if (type == "gone") {
        routeGone(verb);
      } else {
        route(verb, static_cast<unsigned>(std::stoul(type)));
      }
    }
  }

  // "10.0.0.0/8 2001:db8::/32": both tries of the VRF.
  std::string cached() const {
    std::string text;
    if (const auto trie = tries->vrfTrie(101)) append(*trie, text);
    if (const auto trie6 = tries->vrfTrie6(101)) append(*trie6, text);
    if (!text.empty()) text.pop_back();
    return text;
  }
  std::shared_ptr<const Pondra::Fib6::RouteStatus> fib6() const {
    return agent_.get<Pondra::Fib6::RouteStatus>(paths_.ipv6);
  }
  std::string tableFile() const { return fileOf(paths_.ipv4); }

  LinuxPlatform::SimulatedScheduler scheduler;
  LinuxPlatform::TextTraceFacility trace;
  std::shared_ptr<RouteCache::VrfCachedRoute> tries = RouteCache::vrfCachedRouteFactory("tries");
  std::set<std::string> damaged;  // tables that the corruption handler heard of

 private:
  template <class Trie>
  static void append(const Trie& trie, std::string& text) {
    for (const auto& route : trie) text += Platform::toText(route.prefix) + " ";
  }
  void mountFib(const std::string& path, const std::string& type) {
    fib_->mount(path, type, Pondra::MountKind::writer, Pondra::CollectionInfo{"route", capacity_});
  }
  template <class Table>
  std::shared_ptr<Table> table(const std::string& path) {
    written_[path] = Table::typeName;
    mountFib(path, Table::typeName);
    return fib_->get<Table>(path);
  }
  std::string fileOf(const std::string& path) const {
    return directory_.path() + "/tables/" + LinuxPlatform::tableFileName(path) + ".table";
  }
  void deliver() {
    agent_.pendingChanges();
    agent_.deliverChanges([] { return false; });
  }

  TemporaryDirectory directory_;
  const Platform::TableTypes types_ = fibTypes();
  const Pondra::FibTablePaths paths_ = Pondra::fibTablePaths("red");
  std::uint32_t capacity_ = 100;
  std::map<std::string, std::string> written_;  // tables by path, with their types
  std::map<std::string, std::string> whole_;    // bytes of the tables that are broken
  std::shared_ptr<Routing::Hardware::RouteStatus> hardware_ = std::make_shared<Routing::Hardware::RouteStatus>("hw");
  std::shared_ptr<Vrf::VrfIdMap::NameToIdMap> names_ = std::make_shared<Vrf::VrfIdMap::NameToIdMapWrapper>("pi");
  std::shared_ptr<RouteCache::VrfIdMap> ids_ = RouteCache::vrfIdMapFactory("ids");
  std::unique_ptr<SharedTableService> fib_;
  SharedTableService agent_;
  std::shared_ptr<RouteCache::VrfSm> sm_;
};

TEST(VrfCachedRouteSmTest, TriesHoldTheRoutesOfTheRouteCacheType) {
  const struct {
    const char* what;
    const char* story;
    const char* cached;
  } cases[] = {
      {"each family has its own number", "vrf; 1.0.0.0/8 40; 2.0.0.0/8 27; 1::/16 27; 2::/16 40; settle",
       "1.0.0.0/8 1::/16"},
      {"two prefixes of one address", "vrf; 0.0.0.0/0 40; 0.0.0.0/8 40; 0.0.0.0/32 40; settle; 0.0.0.0/8 gone; settle",
       "0.0.0.0/0 0.0.0.0/32"},
      {"of what stands before the VRF comes only IPv4 is brought",
       "1.0.0.0/8 40; 2.0.0.0/8 0; 1::/16 27; 2::/16 27; 3::/16 0; vrf; settle", "1.0.0.0/8"},
      {"an IPv6 route that stood there waits for its change",
       "1::/16 27; 2::/16 27; 3::/16 0; vrf; settle; 2::/16 27; 3::/16 27; settle", "2::/16 3::/16"},
      {"tables that appear later are all change", "vrf; settle; 1.0.0.0/8 40; 1::/16 27; settle", "1.0.0.0/8 1::/16"},
      {"tables that are bad when the VRF comes are read when they are good, but IPv6 gets what changes",
       "1.0.0.0/8 40; 1::/16 27; 2::/16 27; breaks; vrf; settle; grows; settle; 2.0.0.0/8 40; 2::/16 27; settle",
       "1.0.0.0/8 2.0.0.0/8 2::/16"},
      {"what the VRF leaves behind: IPv6", "vrf; 1.0.0.0/8 40; 1::/16 27; settle; vrfGone; settle", "1::/16"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    FibAndVrf fib;
    fib.play(c.story);
    EXPECT_EQ(fib.cached(), c.cached);
    EXPECT_TRUE(fib.scheduler.idle());
  }
}

TEST(VrfCachedRouteSmTest, SweepGoesOnInLaterRunsAndEndsWithItsVrf) {
  FibAndVrf fib(7, 2);
  fib.play("1.0.0.0/8 40; 2.0.0.0/8 40; 3.0.0.0/8 40; 4.0.0.0/8 40; 5.0.0.0/8 40; vrf");
  EXPECT_EQ(fib.cached(), "1.0.0.0/8 2.0.0.0/8") << "the first slice, before anything else runs";
  ASSERT_EQ(fib.scheduler.statistics().size(), 1U);
  EXPECT_EQ(fib.scheduler.statistics()[0].name, "fibSweepTask");
  EXPECT_EQ(fib.scheduler.statistics()[0].workPending, 3U);

  // Until its prefix is there a route passes for one that is not cached: the sweep is ahead of those who decide routes.
  std::string seen;
  const auto deciding =
      fib.scheduler.taskIs("deciding", Platform::TaskPriority::processing, [&] { seen = fib.cached(); });
  deciding->scheduleWithin(0);
  fib.scheduler.advance(0);
  EXPECT_EQ(seen, "1.0.0.0/8 2.0.0.0/8 3.0.0.0/8 4.0.0.0/8 5.0.0.0/8");

  fib.play("vrfGone; vrf; vrfGone");
  EXPECT_TRUE(fib.scheduler.idle());
  fib.trace.clear();
  // Before the next run: one is behind the sweep, its next key has gone, one is new and one is of another type.
  fib.play("vrf; 1.0.0.0/8 0; 3.0.0.0/8 gone; 3.128.0.0/9 40; 5.0.0.0/8 0; settle");
  EXPECT_EQ(fib.cached(), "2.0.0.0/8 3.128.0.0/9 4.0.0.0/8");
  EXPECT_EQ(fib.trace.count("adding prefix: 2.0.0.0/8"), 1U) << "no way back";
  EXPECT_EQ(fib.trace.count("deleting prefix: 1.0.0.0/8"), 1U);
  EXPECT_EQ(fib.scheduler.statistics().size(), 1U) << "a sweep's task without a sweep";
}

TEST(VrfCachedRouteSmTest, Ipv6IsSweptWhenSomebodyAsks) {
  FibAndVrf fib(-1, 1);
  fib.play("1::/16 27; 2::/16 0; 3::/16 27; vrf; settle");
  ASSERT_EQ(fib.cached(), "");
  const auto trie6 = std::make_shared<Routing6::Trie>();
  const auto sm = RouteCache::VrfCachedRouteSmIs(nullptr, fib.fib6(), 7, std::make_shared<Routing::Trie>(), trie6,
                                                 fib.scheduler, fib.trace);
  sm->handleFibRoute();  // no table, nothing to do
  sm->handleFibRoute6();
  EXPECT_EQ(trie6->size(), 1U);
  sm->handleFibRoute6();  // afresh
  fib.scheduler.advance(0);
  EXPECT_EQ(trie6->size(), 2U);
  EXPECT_TRUE(fib.scheduler.idle());
}

// --- Tables in disorder ----------------------------------------------------------------------------------------------

// Random bytes all over the table, while the agent has it mapped.
void scribble(const std::string& file, std::mt19937& random) {
  std::fstream bytes(file, std::ios::in | std::ios::out | std::ios::binary);
  bytes.seekg(0, std::ios::end);
  const auto size = static_cast<std::size_t>(bytes.tellg());
  for (int i = 0; i < 2000; ++i) {
    bytes.seekp(static_cast<std::streamoff>(4096 + random() % (size - 4096)));
    bytes.put(static_cast<char>(random()));
  }
}

TEST(VrfCachedRouteSmTest, ASweepOverADamagedTableIsReportedAndEnds) {
  for (unsigned seed = 0; seed < 20; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    FibAndVrf fib(-1, 1);
    for (unsigned i = 0; i < 90; ++i) fib.route(std::to_string(i + 1) + ".0.0.0/8", 40);
    fib.play("vrf");
    ASSERT_FALSE(fib.scheduler.idle());
    scribble(fib.tableFile(), random);
    fib.scheduler.advance(0);  // it asserts that this comes to an end
    EXPECT_TRUE(fib.scheduler.idle());
    EXPECT_THAT(fib.damaged, ElementsAre("routing/vrf/status/red"));
    EXPECT_LE(fib.tries->vrfTrie(101)->size(), 90U);
  }
}

// A FIB process at work: the IPv4 trie ends as the FIB's image, the IPv6 trie as that of what has changed since the VRF
// came.
class RandomFib : public FibAndVrf {
 public:
  RandomFib(unsigned seed, std::uint64_t yieldAfter) : FibAndVrf(-1, yieldAfter), random_(seed) {}

  void step() {
    switch (pick(40)) {
      case 0:
        vrf();
        here_ = true;
        break;
      case 1:
        vrfGone();
        here_ = false;
        told6_.clear();
        break;
      case 2:
        fibRestarts();  // no change of any route
        settle();
        break;
      case 3:
        settle();
        break;
      default:
        change();
    }
  }
  void settle() {
    scheduler.advance(0);
    if (!here_) return;
    std::string expected;
    for (const auto& [prefix, type] : fib_) {
      if (prefix.isV4() ? type == 40 : type == 27 && told6_.contains(prefix)) {
        expected += (expected.empty() ? "" : " ") + Platform::toText(prefix);
      }
    }
    EXPECT_EQ(cached(), expected);
    EXPECT_TRUE(scheduler.idle());
  }

 private:
  unsigned pick(unsigned count) { return static_cast<unsigned>(random_() % count); }
  void change() {
    static constexpr unsigned types[] = {40, 27, 0};
    const unsigned number = pick(30) + 1;
    const std::string prefix = pick(2) == 0 ? std::to_string(number) + ".0.0.0/8" : std::to_string(number) + "::/16";
    const auto key = Platform::fromText<IpGenPrefix>(prefix);
    if (here_) told6_.insert(key);
    if (pick(3) == 0) {
      routeGone(prefix);
      fib_.erase(key);
    } else {
      fib_[key] = types[pick(3)];
      route(prefix, fib_[key]);
    }
    // One run of what is due, or none: the sweep stands somewhere.
    if (pick(4) == 0) scheduler.runDue();
  }

  std::mt19937 random_;
  std::map<IpGenPrefix, unsigned> fib_;
  std::set<IpGenPrefix> told6_;  // changed while the VRF was there
  bool here_ = false;
};

TEST(VrfCachedRouteSmTest, TriesFollowTheFibThroughRandomChanges) {
  for (unsigned seed = 0; seed < 30; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    RandomFib fib(seed, seed % 3);
    for (int i = 0; i < 300 && !testing::Test::HasFailure(); ++i) fib.step();
    fib.settle();
  }
}

}  // namespace
