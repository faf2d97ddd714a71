// The forwarding plane on real shared tables and virtual time; the test plays the agent.
#include <gmock/gmock.h>

#include <random>

#include "lib/tasks/SimulatedScheduler.h"
#include "linux/tables/SharedTableService.h"
#include "simulator/forwarding/ForwardingPlane.h"
#include "test/support/SimulatedSwitch.h"

using RouteCache::AdjId;
using RouteCache::Ipv4HitBitStatus;
using RouteCache::Ipv4ProgrammedRouteStatus;
using RouteCache::Ipv4RouteStatus;
using Simulator::Burst;
using Simulator::Destination;
using Simulator::ForwardingPlane;
using Simulator::ForwardingSettings;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

namespace {

// Virtual time, some of which passes while the thread is busy elsewhere.
class LateScheduler final : public Platform::TaskScheduler {
 public:
  explicit LateScheduler(Platform::TaskScheduler& real) : real_(real) {}
  std::unique_ptr<Platform::Task> taskIs(std::string_view name, Platform::TaskPriority priority,
                                         std::function<void()> body) override {
    return real_.taskIs(name, priority, std::move(body));
  }
  double now() const override { return real_.now() + late; }
  std::vector<Platform::TaskStatistics> statistics() const override { return real_.statistics(); }
  double late = 0;

 private:
  Platform::TaskScheduler& real_;
};

// Sends what the test says, in the next tick.
class ScriptedTraffic final : public Simulator::TrafficSource {
 public:
  const std::vector<Destination>& destinations() const override { return list; }
  void pull(double, std::vector<Burst>& bursts) override {
    bursts.insert(bursts.end(), next.begin(), next.end());
    next.clear();
  }
  bool exhausted() const override { return false; }
  std::vector<Destination> list;
  std::vector<Burst> next;
};

class ForwardingPlaneTest : public testing::Test {
 protected:
  static constexpr std::uint32_t vrf = 7;

  ForwardingPlaneTest() {
    RouteCache::addTableTypes(types);
    agent = std::make_unique<LinuxPlatform::SharedTableService>(directory.path(), types);
    hw = writer("routecache/route/hw/ipv4", 16);
    sfe = writer("routecache/route/sfe/ipv4", 64);
    settings.tick = 0.25;
    scheduler.afterRunIs([this] { deliver(); });
  }

  std::shared_ptr<Ipv4RouteStatus> writer(const char* path, std::uint32_t capacity) {
    agent->mount(path, Ipv4RouteStatus::typeName, Pondra::MountKind::writer, Pondra::CollectionInfo{"route", capacity});
    return agent->get<Ipv4RouteStatus>(path);
  }
  // A new forwarding plane; the last one ends as if it were killed, with its tables as they are.
  void start() {
    plane.reset();
    tables.reset();  // and its locks
    tables = std::make_unique<LinuxPlatform::SharedTableService>(directory.path(), types);
    ASSERT_TRUE(ForwardingPlane::tablesExist(*tables));
    plane = std::make_unique<ForwardingPlane>(*tables, planeTime, traffic, settings);
  }
  void deliver() {
    if (!tables) return;
    tables->pendingChanges();
    tables->deliverChanges([] { return false; });
  }

  static RouteCache::Ipv4RouteVrfKey key(const std::string& prefix) {
    return {Platform::fromText<Prefix>(prefix), vrf};
  }
  void hwRoute(const std::string& prefix, bool inHw = true) { hw->routeIs({key(prefix), AdjId(1), inHw}); }
  void sfeRoute(const std::string& prefix, bool inHw = false) { sfe->routeIs({key(prefix), AdjId(1), inHw}); }
  // A route in both tables.
  void bothRoute(const std::string& prefix) {
    sfeRoute(prefix);
    hwRoute(prefix);
  }
  // Adds a destination; returns its number.
  std::uint32_t destination(const std::string& addr) {
    traffic.list.push_back({vrf, Platform::fromText<IpAddr>(addr)});
    return static_cast<std::uint32_t>(traffic.list.size() - 1);
  }
  // Packets in the next tick, which passes.
  void send(std::uint32_t to, std::uint32_t packets = 1) {
    traffic.next.push_back({to, packets});
    scheduler.advance(settings.tick);
  }
  // How many packets of one burst went which way: hardware, SFE, nowhere.
  std::vector<std::uint64_t> wayOf(std::uint32_t to) {
    const auto before = plane->packets();
    send(to);
    const auto& after = plane->packets();
    return {after.hardware - before.hardware, after.sfe - before.sfe, after.unroutable - before.unroutable};
  }

  template <class Table>
  std::shared_ptr<Table> read(const char* path) {
    outside.mount(path, Table::typeName, Pondra::MountKind::keyedReader);
    outside.pendingChanges();
    outside.deliverChanges([] { return false; });
    return outside.get<Table>(path);
  }
  std::map<std::string, std::uint32_t> hitBits(const char* path) {
    std::map<std::string, std::uint32_t> values;
    for (const auto& entry : *read<Ipv4HitBitStatus>(path)) {
      values[Platform::toText(entry.key().prefix())] = entry.hitbit();
    }
    return values;
  }
  auto hwHits() { return hitBits("hardware/routecache/status/ipv4"); }
  auto sfeHits() { return hitBits("sfe/routecache/status/ipv4"); }
  std::set<std::string> sfeProgrammed() {
    std::set<std::string> keys;
    for (const auto& entry : *read<Ipv4ProgrammedRouteStatus>("sfe/routecache/programmed/ipv4")) {
      keys.insert(Platform::toText(entry.key().prefix()));
    }
    return keys;
  }

  TemporaryDirectory directory;
  Platform::TableTypes types;
  LinuxPlatform::SimulatedScheduler scheduler;
  LateScheduler planeTime{scheduler};
  std::unique_ptr<LinuxPlatform::SharedTableService> agent;
  std::shared_ptr<Ipv4RouteStatus> hw, sfe;
  ScriptedTraffic traffic;
  ForwardingSettings settings;
  std::unique_ptr<LinuxPlatform::SharedTableService> tables;
  std::unique_ptr<ForwardingPlane> plane;
  LinuxPlatform::SharedTableService outside{directory.path(), types};
};

TEST_F(ForwardingPlaneTest, HardwareHitBitsCountDownWhileIdle) {
  const auto used = destination("10.0.0.1");
  bothRoute("10.0.0.1/32");
  bothRoute("10.0.0.2/32");
  start();
  scheduler.advance(100);
  EXPECT_THAT(hwHits(), IsEmpty()) << "a route never hit has no entry";

  send(used);
  EXPECT_THAT(hwHits(), ElementsAre(Pair("10.0.0.1/32", 255U)));
  scheduler.advance(19);
  EXPECT_THAT(hwHits(), ElementsAre(Pair("10.0.0.1/32", 255U)));
  scheduler.advance(1.5);
  EXPECT_THAT(hwHits(), ElementsAre(Pair("10.0.0.1/32", 254U)));
  scheduler.advance(60);
  EXPECT_THAT(hwHits(), ElementsAre(Pair("10.0.0.1/32", 251U)));
  send(used);
  scheduler.advance(15);
  send(used);  // puts off the next step, which was 5 s away
  scheduler.advance(19);
  EXPECT_THAT(hwHits(), ElementsAre(Pair("10.0.0.1/32", 255U)));

  scheduler.advance(20 * 300);
  EXPECT_THAT(hwHits(), ElementsAre(Pair("10.0.0.1/32", 0U))) << "down to 0, where it stays";
  send(used);
  scheduler.advance(20.5);
  EXPECT_THAT(hwHits(), ElementsAre(Pair("10.0.0.1/32", 254U))) << "and counts again";
  hw->routeDel(key("10.0.0.1/32"));
  scheduler.advance(1);
  EXPECT_THAT(hwHits(), IsEmpty());
}

TEST_F(ForwardingPlaneTest, AFullHitBitTableWaitsForTheNextHitAndIdleTimeNeedsNoWholeSteps) {
  agent->mount("hits", Ipv4HitBitStatus::typeName, Pondra::MountKind::writer,
               Pondra::CollectionInfo{Ipv4HitBitStatus::collectionName, 1});
  Simulator::RouteIndex index;
  Simulator::HitBits hits(agent->get<Ipv4HitBitStatus>("hits"), index, 50, 0);
  const auto first = index.hold(key("10.0.0.1/32"), Simulator::Holder::sfe);
  const auto second = index.hold(key("10.0.0.2/32"), Simulator::Holder::sfe);
  hits.hit(first, 0);
  hits.hit(second, 1);
  hits.age(49.5);
  EXPECT_TRUE(hits.has(first));
  EXPECT_FALSE(hits.has(second));
  hits.age(50.5);
  EXPECT_FALSE(hits.has(first));
  hits.hit(second, 51);
  EXPECT_TRUE(hits.has(second));
  EXPECT_EQ(hits.size(), 1U);
}

TEST_F(ForwardingPlaneTest, ALateTickMakesUpForThoseMissedAndTheNextKeepsToTheGrid) {
  start();
  std::vector<double> ticks;
  plane->afterTickIs([&] { ticks.push_back(plane->time()); });
  scheduler.advance(0.5);
  planeTime.late = 1.125;
  scheduler.advance(0.75);
  EXPECT_THAT(ticks, ElementsAre(0.25, 0.5, 1.875, 2.0, 2.25));
}

// A burst per tick must not mean a write per tick: readers would be woken for nothing.
TEST_F(ForwardingPlaneTest, SteadyTrafficWritesNothing) {
  const auto used = destination("10.0.0.1");
  bothRoute("10.0.0.1/32");
  start();
  scheduler.advance(1);
  send(used);
  const auto table = tables->get<Ipv4HitBitStatus>("hardware/routecache/status/ipv4");
  const auto written = table->routeHitBitControl()->lastSequence();
  for (int i = 0; i < 1000; ++i) send(used);
  EXPECT_EQ(table->routeHitBitControl()->lastSequence(), written);
}

TEST_F(ForwardingPlaneTest, SoftwareHitsGoWithTheHardwaresProgrammingOrIdleTime) {
  const auto first = destination("10.0.0.1");
  const auto second = destination("10.0.0.2");
  sfeRoute("10.0.0.1/32");
  sfeRoute("10.0.0.2/32");
  start();
  send(first);
  send(second);
  scheduler.advance(30);
  EXPECT_THAT(sfeHits(), ElementsAre(Pair("10.0.0.1/32", 254U), Pair("10.0.0.2/32", 254U)));
  send(second);
  hwRoute("10.0.0.1/32", false);  // inHw plays no part in what the hardware programs
  scheduler.advance(0.25);
  EXPECT_THAT(sfeHits(), ElementsAre(Pair("10.0.0.2/32", 255U)));
  EXPECT_THAT(wayOf(first), ElementsAre(1, 0, 0));
  scheduler.advance(59);
  EXPECT_THAT(sfeHits(), ElementsAre(Pair("10.0.0.2/32", 253U)));
  scheduler.advance(1);
  EXPECT_THAT(sfeHits(), IsEmpty());

  send(second);
  sfe->routeDel(key("10.0.0.2/32"));
  scheduler.advance(0.25);
  EXPECT_THAT(sfeHits(), IsEmpty()) << "an entry goes with its route";
  EXPECT_THAT(wayOf(second), ElementsAre(0, 0, 1));
}

TEST_F(ForwardingPlaneTest, HardwareProgramsAtItsRateWhatItHasRoomFor) {
  settings.hardware = {10, 4};
  for (int i = 1; i <= 16; ++i) bothRoute("10.0.0." + std::to_string(i) + "/32");
  start();
  scheduler.advance(1);
  EXPECT_NEAR(plane->hardware().programmedRoutes(), 4, 1);
  scheduler.advance(1);
  EXPECT_NEAR(plane->hardware().programmedRoutes(), 8, 1);
  scheduler.advance(10);
  EXPECT_EQ(plane->hardware().programmedRoutes(), 10U);
  EXPECT_EQ(plane->hardware().waitingRoutes(), 6U);

  hw->routeDel(key("10.0.0.1/32"));   // programmed: its place is free
  hw->routeDel(key("10.0.0.11/32"));  // waiting: it waits no more
  scheduler.advance(5);
  EXPECT_EQ(plane->hardware().programmedRoutes(), 10U);
  EXPECT_EQ(plane->hardware().waitingRoutes(), 4U);
  EXPECT_EQ(plane->hardware().counters().admissions, 11U);
  EXPECT_EQ(plane->hardware().counters().evictions, 1U);
}

TEST_F(ForwardingPlaneTest, ReadmissionsAreThoseWithinFiveMinutes) {
  bothRoute("10.0.0.1/32");
  start();
  const auto away = [this](double seconds) {
    hw->routeDel(key("10.0.0.1/32"));
    scheduler.advance(seconds);
    hwRoute("10.0.0.1/32");
    scheduler.advance(10);
    return plane->hardware().counters().readmissions;
  };
  scheduler.advance(1);
  EXPECT_EQ(plane->hardware().counters().readmissions, 0U);
  EXPECT_EQ(away(1), 1U);
  EXPECT_EQ(away(299), 2U);
  EXPECT_EQ(away(301), 2U);
  EXPECT_EQ(away(1), 3U);
  EXPECT_EQ(plane->hardware().counters().admissions, 5U);
  EXPECT_EQ(plane->hardware().counters().evictions, 4U);
}

TEST_F(ForwardingPlaneTest, SoftwareProgramsExactlyTheRoutesThatAreNotInHardware) {
  settings.sfe.routesPerSecond = 10;
  for (int i = 1; i <= 9; ++i) sfeRoute("10.0.0." + std::to_string(i) + "/32", i == 9);
  start();
  scheduler.advance(0.45);
  EXPECT_NEAR(static_cast<double>(sfeProgrammed().size()), 4, 1);
  scheduler.advance(1);
  EXPECT_EQ(sfeProgrammed().size(), 8U);
  EXPECT_FALSE(sfeProgrammed().contains("10.0.0.9/32"));

  for (int i = 1; i <= 7; ++i) sfeRoute("10.0.0." + std::to_string(i) + "/32", true);
  sfeRoute("10.0.0.9/32", false);
  scheduler.advance(1);
  EXPECT_THAT(sfeProgrammed(), ElementsAre("10.0.0.8/32", "10.0.0.9/32"));
  sfeRoute("10.0.0.7/32", false);
  sfe->routeDel(key("10.0.0.8/32"));
  deliver();
  sfeRoute("10.0.0.7/32", true);  // before its turn came
  scheduler.advance(1);
  EXPECT_THAT(sfeProgrammed(), ElementsAre("10.0.0.9/32"));
}

TEST_F(ForwardingPlaneTest, ARestartKeepsWhatStandsAndDropsTheRest) {
  const auto first = destination("10.0.0.1");
  const auto second = destination("10.0.0.2");
  const auto third = destination("10.0.0.3");
  for (const char* prefix : {"10.0.0.1/32", "10.0.0.2/32"}) bothRoute(prefix);
  for (const char* prefix : {"10.0.0.3/32", "10.0.0.4/32"}) sfeRoute(prefix);
  start();
  for (const auto to : {first, second, third}) send(to);
  scheduler.advance(40);
  EXPECT_THAT(hwHits(), ElementsAre(Pair("10.0.0.1/32", 253U), Pair("10.0.0.2/32", 253U)));

  plane.reset();
  tables.reset();
  hw->routeDel(key("10.0.0.2/32"));
  sfeRoute("10.0.0.4/32", true);
  settings.hardware.routesPerSecond = 0.001;  // what is programmed again would take for ever
  start();
  EXPECT_THAT(hwHits(), ElementsAre(Pair("10.0.0.1/32", 253U)));
  EXPECT_THAT(sfeHits(), ElementsAre(Pair("10.0.0.3/32", 253U)));
  EXPECT_THAT(sfeProgrammed(), ElementsAre("10.0.0.1/32", "10.0.0.2/32", "10.0.0.3/32"));
  EXPECT_THAT(wayOf(first), ElementsAre(1, 0, 0)) << "the hardware never lost it";
  EXPECT_THAT(wayOf(second), ElementsAre(0, 1, 0));
  EXPECT_EQ(plane->hardware().counters().admissions, 0U);
  scheduler.advance(20.5);
  EXPECT_THAT(hwHits(), ElementsAre(Pair("10.0.0.1/32", 254U))) << "and counts on";
  EXPECT_THAT(sfeHits(), ElementsAre(Pair("10.0.0.2/32", 254U))) << "40 s and 20 s make up the idle time";
}

TEST_F(ForwardingPlaneTest, ARouteThatHasGoneBeforeItWasHeardOfLeavesNothing) {
  sfeRoute("10.0.0.1/32");
  start();
  hwRoute("10.0.0.1/32");
  bothRoute("10.0.0.2/32");
  hw->routeDelAll();
  sfe->routeDel(key("10.0.0.2/32"));
  scheduler.advance(1);
  EXPECT_EQ(plane->hardware().programmedRoutes(), 0U);
  EXPECT_THAT(sfeProgrammed(), ElementsAre("10.0.0.1/32"));
}

// Whatever comes, restarts included, the planes' tables are what follows from the agent's.
TEST_F(ForwardingPlaneTest, RandomChangesAgainstAModel) {
  std::mt19937 random(319);
  const auto below = [&random](std::uint32_t n) { return static_cast<std::uint32_t>(random() % n); };
  std::vector<std::string> prefixes;
  for (int i = 0; i < 24; ++i) prefixes.push_back("10.0.0." + std::to_string(i) + "/32");
  prefixes.insert(prefixes.end(), {"10.0.0.0/28", "10.0.0.0/24", "0.0.0.0/0"});
  for (int i = 0; i < 24; ++i) destination("10.0.0." + std::to_string(i));
  const auto restart = [&] {
    settings.hardware.capacity = 4 + below(12);
    start();
  };
  restart();

  for (int round = 0; round < 400; ++round) {
    for (std::uint32_t i = below(6); i > 0; --i) {
      const std::string& prefix = prefixes[below(static_cast<std::uint32_t>(prefixes.size()))];
      switch (below(4)) {
        case 0:
          sfe->routeDel(key(prefix));
          break;
        case 1:
          hw->routeDel(key(prefix));
          break;
        case 2:
          sfeRoute(prefix, below(2) == 0);
          break;
        default:
          if (hw->hasRoom() || hw->has(key(prefix))) hwRoute(prefix, below(2) == 0);
      }
    }
    if (below(40) == 0) restart();
    for (std::uint32_t i = below(8); i > 0; --i) traffic.next.push_back({below(24), 1});
    scheduler.advance(below(5) == 0 ? 45 : 0.25);

    std::set<std::string> programmed;
    for (const auto& route : *sfe) {
      if (!route.inHw()) programmed.insert(Platform::toText(route.key().prefix()));
    }
    ASSERT_EQ(sfeProgrammed(), programmed);
    ASSERT_EQ(plane->hardware().programmedRoutes(), std::min<std::size_t>(hw->size(), settings.hardware.capacity));
    for (const auto& [prefix, value] : hwHits()) ASSERT_TRUE(hw->has(key(prefix))) << prefix;
    for (const auto& [prefix, value] : sfeHits()) {
      ASSERT_TRUE(sfe->has(key(prefix))) << prefix;
      ASSERT_FALSE(hwHits().contains(prefix)) << prefix;
    }
    // A packet leaves its mark on the longest route that covers it.
    const std::uint32_t probe = below(24);
    std::string longest;
    for (const auto& prefix : prefixes) {
      const bool covers = key(prefix).prefix().covers(Prefix(traffic.list[probe].addr, 32));
      if (covers && (hw->has(key(prefix)) || sfe->has(key(prefix)))) {
        longest = prefix;
        break;  // they are listed with the longest first
      }
    }
    const auto way = wayOf(probe);
    if (way[2] == 1) {
      ASSERT_TRUE(longest.empty() || !sfe->has(key(longest))) << longest;
    } else {
      ASSERT_EQ((way[0] == 1 ? hwHits() : sfeHits())[longest], 255U) << longest;
    }
  }
}

}  // namespace
