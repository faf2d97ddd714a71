// Entities by their generic interface, and the reactors on them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>

#include "RouteCache/model/Capability.h"
#include "RouteCache/model/CliConfig.h"
#include "RouteCache/model/Config.h"
#include "RouteCache/model/SwRouteVtiStatus.h"
#include "RouteCache/model/VrfCachedRoute.h"
#include "RouteCache/model/VrfIdMap.h"
#include "platform/state/Entity.h"
#include "platform/tables/Trie.h"

using Platform::BadText;
using RouteCache::CliConfig;
using RouteCache::SwRouteVtiStatus;
using RouteCache::VrfCachedRoute;
using RouteCache::VrfIdMap;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

namespace {

void set(Lattis::Entity& entity, const char* attribute, const char* value) {
  entity.entityType().attribute(attribute)->set(entity, value);
}

std::string get(const Lattis::Entity& entity, const char* attribute) {
  return entity.entityType().attribute(attribute)->get(entity);
}

// Writes down what it is told.
struct Log {
  std::vector<std::string> lines;
  void add(std::string what) { lines.push_back(std::move(what)); }
  std::vector<std::string> take() { return std::exchange(lines, {}); }
};

// --- Reactor lists ---------------------------------------------------------------------------------------------------

struct Listener {
  std::function<void()> act;
};

TEST(ReactorListTest, ReactorsComeAndGoDuringANotification) {
  Platform::ReactorList<Listener> list;
  Log log;
  Listener late{[&] { log.add("late"); }};
  Listener leaving{[&] { log.add("leaving"); }};
  Listener itself;
  itself.act = [&] {
    log.add("itself");
    list.remove(&itself);
  };
  bool again = true;
  Listener first{[&] {
    log.add("first");
    if (!std::exchange(again, false)) return;
    list.add(&late);
    list.remove(&leaving);
    list.notify([](Listener& listener) { listener.act(); });
    log.add("end of the inner one");
  }};
  list.add(&first);
  list.add(&itself);
  list.add(&leaving);
  const auto tell = [&] { list.notify([](Listener& listener) { listener.act(); }); };
  tell();
  // The outer one must not call itself again, for it has left, nor late, which came after its start.
  EXPECT_THAT(log.take(), ElementsAre("first", "first", "itself", "late", "end of the inner one"));
  tell();
  EXPECT_THAT(log.take(), ElementsAre("first", "late"));
  list.remove(&first);
  list.remove(&late);
  EXPECT_TRUE(list.empty());
}

class ThresholdReactor final : public CliConfig::Reactor {
 public:
  ThresholdReactor(std::shared_ptr<const CliConfig> config, std::function<void()> act)
      : Reactor(std::move(config)), act_(std::move(act)) {}
  void handleThresholdConfig() override { act_(); }

 private:
  std::function<void()> act_;
};

class VtiReactor final : public SwRouteVtiStatus::Reactor {
 public:
  VtiReactor(std::shared_ptr<const SwRouteVtiStatus> vti, Log& log) : Reactor(std::move(vti)), log_(log) {}
  void handleOperStatusUp() override { log_.add("up"); }
  void handleExtendedVlanToVniMap(Bridging::ExtendedVlanId vlan) override { log_.add("vlan " + std::to_string(vlan)); }
  void handleVniToExtendedVlanMap(Vxlan::Vni vni) override { log_.add("vni " + Platform::toText(vni)); }

 private:
  Log& log_;
};

TEST(ReactorTest, MayBeDestroyedByItsOwnNotificationTogetherWithTheEntity) {
  auto config = std::make_shared<CliConfig>("cli");
  CliConfig* const entity = config.get();
  Log log;
  std::unique_ptr<ThresholdReactor> reactor;
  reactor = std::make_unique<ThresholdReactor>(config, [&log, &reactor, &config] {
    log.add("told");
    config.reset();
    const auto self = std::move(reactor);  // destroyed at the end of this call
  });
  entity->lowThresholdIdleTimeIs(1000);
  EXPECT_THAT(log.take(), ElementsAre("told"));
}

TEST(ReactorTest, HearsOfRealChangesOnlyAndSeesThem) {
  const auto config = std::make_shared<CliConfig>("cli");
  Log log;
  auto reactor = std::make_unique<ThresholdReactor>(config, [&] { log.add(get(*config, "lowThresholdIdleTime")); });
  set(*config, "lowThresholdIdleTime", "1100");  // the value it has
  EXPECT_THAT(log.take(), IsEmpty());
  set(*config, "lowThresholdIdleTime", "900");
  EXPECT_THAT(log.take(), ElementsAre("900"));
  reactor.reset();
  set(*config, "lowThresholdIdleTime", "800");
  EXPECT_THAT(log.take(), IsEmpty());

  const auto vti = std::make_shared<SwRouteVtiStatus>(IntfId("Vxlan1"));
  const VtiReactor vtiReactor(vti, log);
  for (int i = 0; i < 2; ++i) {
    vti->operStatusUpIs(true);
    vti->extendedVlanToVniMapIs(11, Vxlan::Vni());  // a VLAN with the absence of a VNI is still there
    vti->vniToExtendedVlanMapIs(Vxlan::Vni(10010), 10);
  }
  EXPECT_THAT(log.take(), ElementsAre("up", "vlan 11", "vni 10010"));
  EXPECT_EQ(vti->entityType().collection("extendedVlanToVniMap")->get(*vti, "11"), "none");
  vti->extendedVlanToVniMapDelAll();
  vti->vniToExtendedVlanMapDelAll();
  EXPECT_THAT(log.take(), ElementsAre("vlan 11", "vni 10010"));
}

// --- Configuration ---------------------------------------------------------------------------------------------------

TEST(CliConfigTest, FaultNamesThresholdsThatCannotWork) {
  EXPECT_EQ(CliConfig("cli").fault(), "");
  const struct {
    const char* attribute;
    const char* value;
    const char* fault;
  } cases[] = {
      {"highThresholdHwUtilPercentage", "100", ""},
      {"highThresholdHwUtilPercentage", "101", "highThresholdHwUtilPercentage 101 is over 100"},
      {"highThresholdHwUtilPercentage", "90", ""},
      {"lowThresholdHwUtilPercentage", "90", ""},
      {"highThresholdHwUtilPercentage", "89", "utilisation thresholds must rise from low to high: 85, 90, 89"},
      {"lowThresholdHwUtilPercentage", "91", "utilisation thresholds must rise from low to high: 91, 90, 95"},
      {"lowThresholdIdleTime", "5100", ""},
      {"mediumThresholdIdleTime", "5101", "mediumThresholdIdleTime 5101 is over 5100 seconds"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.attribute) + " = " + c.value);
    CliConfig config("cli");
    set(config, c.attribute, c.value);
    EXPECT_EQ(get(config, c.attribute), c.value);
    EXPECT_EQ(config.fault(), c.fault);
  }
  CliConfig config("cli");
  for (const char* bad : {"", "-1", "256", "50%", " 50", "+50"}) {
    EXPECT_THROW(set(config, "lowThresholdHwUtilPercentage", bad), BadText) << bad;
  }
  EXPECT_EQ(config.lowThresholdHwUtilPercentage(), 85);
}

TEST(CapabilityTest, ATableThatCannotBeIsAFault) {
  RouteCache::Capability capability("capability");
  EXPECT_EQ(capability.fault(), "");
  for (const auto& attribute : capability.entityType().attributes) {
    for (const char* size : {"0", "268435457", "4294967295"}) {
      attribute.set(capability, size);
      EXPECT_THAT(capability.fault(), StartsWith(attribute.name + " must be 1 to 2684")) << size;
    }
    attribute.set(capability, "268433409");
    EXPECT_EQ(capability.fault().empty(), attribute.name != "hwRouteTableSize") << "the kernel's table is larger";
    attribute.set(capability, "7");
  }
  EXPECT_EQ(capability.hwRouteTableSize(), 7U);
  EXPECT_EQ(capability.sfeRouteTableSize(), 7U);
  EXPECT_EQ(capability.adjacencyTableSize(), 7U);
}

// --- The agent's own -------------------------------------------------------------------------------------------------

class VrfIdReactor final : public VrfIdMap::Reactor {
 public:
  VrfIdReactor(std::shared_ptr<const VrfIdMap> map, Log& log) : Reactor(std::move(map)), log_(log) {}
  void handleVrfId(std::uint32_t piVrfId) override { log_.add("pi " + std::to_string(piVrfId)); }
  void handleHwVrfId(std::uint32_t hwVrfId) override { log_.add("hw " + std::to_string(hwVrfId)); }

 private:
  Log& log_;
};

TEST(VrfIdMapTest, AnIdOfZeroIsNotAMissingOne) {
  const auto map = RouteCache::vrfIdMapFactory("vrfIdMap");
  Log log;
  const VrfIdReactor reactor(map, log);
  EXPECT_EQ(map->globalVrfIdToHwVrfIdDel(5), 0U);
  map->hwVrfIdToGlobalVrfIdIs(0, 5);
  map->globalVrfIdToHwVrfIdIs(5, 0);
  map->globalVrfIdToHwVrfIdIs(5, 0);
  EXPECT_TRUE(map->globalVrfIdToHwVrfIdHas(5));
  EXPECT_FALSE(map->globalVrfIdToHwVrfIdHas(6));
  EXPECT_EQ(map->hwVrfIdToGlobalVrfId(0), 5U);
  map->hwVrfIdToGlobalVrfIdIs(0, 6);
  EXPECT_EQ(map->hwVrfIdToGlobalVrfIdDel(0), 6U);
  EXPECT_FALSE(map->hwVrfIdToGlobalVrfIdHas(0));
  EXPECT_THAT(log.take(), ElementsAre("hw 0", "pi 5", "hw 0", "hw 0"));

  for (const std::uint32_t id : {900u, 20u, 3000u, 1u}) map->globalVrfIdToHwVrfIdIs(id, id + 1);
  const auto* field = map->entityType().collection("globalVrfIdToHwVrfId");
  EXPECT_THAT(field->keys(*map), ElementsAre("1", "5", "20", "900", "3000"));
  EXPECT_EQ(field->get(*map, "20"), "21");
  EXPECT_FALSE(field->set) << "operators only read it";
  log.take();
  map->globalVrfIdToHwVrfIdDelAll();
  EXPECT_THAT(log.take(), ElementsAre("pi 1", "pi 5", "pi 20", "pi 900", "pi 3000"));
  EXPECT_FALSE(map->globalVrfIdToHwVrfIdHas(20));
}

class TrieMapReactor final : public VrfCachedRoute::Reactor {
 public:
  TrieMapReactor(std::shared_ptr<const VrfCachedRoute> tries, Log& log) : Reactor(std::move(tries)), log_(log) {}
  void handleVrfTrie(std::uint32_t hwVrfId) override {
    log_.add((watched().vrfTrie(hwVrfId) ? "trie " : "no trie ") + std::to_string(hwVrfId));
  }
  void handleVrfTrie6(std::uint32_t hwVrfId) override {
    log_.add((watched().vrfTrie6(hwVrfId) ? "trie6 " : "no trie6 ") + std::to_string(hwVrfId));
  }

 private:
  Log& log_;
};

// What is asked of one entry is looked up: a copy of all for each would take hours here.
TEST(VrfCachedRouteTest, EveryVrfIsShownAtACostThatDoesNotGrowWithTheirSquare) {
  constexpr std::uint32_t vrfs = 100'000;
  const auto map = RouteCache::vrfIdMapFactory("vrfIdMap");
  const auto tries = RouteCache::vrfCachedRouteFactory("vrfCachedRoute");
  const auto trie = std::make_shared<Routing::Trie>();
  for (std::uint32_t id = 0; id < vrfs; ++id) {
    map->hwVrfIdToGlobalVrfIdIs(id, id + 1);
    tries->vrfTrieIs(id, trie);
  }
  const auto* ids = map->entityType().collection("hwVrfIdToGlobalVrfId");
  const auto* children = tries->entityType().collection("vrfTrie");
  for (const std::string& key : ids->keys(*map)) {
    ASSERT_EQ(ids->get(*map, key), std::to_string(std::stoul(key) + 1));
    ASSERT_EQ(children->child(*tries, key), trie);
  }
  EXPECT_EQ(children->keys(*tries), ids->keys(*map));
  EXPECT_EQ(ids->keys(*map).at(20'000), "20000") << "in the order of the ids";
  EXPECT_EQ(ids->get(*map, "100000"), std::nullopt);
  EXPECT_EQ(children->child(*tries, "100000"), nullptr);
}

TEST(VrfCachedRouteTest, TellsOfTriesThatComeGoAndAreReplaced) {
  const auto tries = RouteCache::vrfCachedRouteFactory("vrfCachedRoute");
  Log log;
  const TrieMapReactor reactor(tries, log);
  const auto trie = std::make_shared<Routing::Trie>();
  tries->vrfTrieIs(7, trie);
  tries->vrfTrieIs(7, trie);
  tries->vrfTrieIs(7, std::make_shared<Routing::Trie>());
  tries->vrfTrie6Is(7, std::make_shared<Routing6::Trie>());
  tries->vrfTrieDel(8);
  tries->vrfTrieDel(7);
  EXPECT_THAT(log.take(), ElementsAre("trie 7", "trie 7", "trie6 7", "no trie 7"));
  tries->vrfTrie6Is(3, std::make_shared<Routing6::Trie>());
  log.take();
  tries->vrfTrie6DelAll();
  EXPECT_THAT(log.take(), ElementsAre("no trie6 3", "no trie6 7"));
}

}  // namespace
