// The kernel mirror over real tables, with everything around it in the test's hand: what is published, configured,
// cached and mapped.
#include <gmock/gmock.h>

#include <map>
#include <random>

#include "RouteCache/kernel/KernelRouteSm.h"
#include "lib/statedb/PlatformTypes.h"
#include "lib/tasks/SimulatedScheduler.h"
#include "lib/trace/TextTraceFacility.h"
#include "linux/tables/SharedTableService.h"
#include "test/support/TemporaryDirectory.h"

namespace {

using Platform::fromText;
using Platform::toText;
using Pondra::MountKind;
using RouteCache::AdjId;
using RouteCache::Ipv4RouteStatus;
using RouteCache::Ipv6RouteStatus;
using Routing::Rib::RouteConfig;
using Routing::Rib::RouteKey;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

class KernelMirror {
 public:
  static constexpr std::uint32_t buffer = 2;  // room for cached prefixes above the capacity

  explicit KernelMirror(std::uint32_t capacity = 1000) {
    RouteCache::registerTraceWords(trace.vocabulary());
    Lattis::EntityTypes entities;
    LinuxPlatform::addPlatformTypes(entities, types_);
    RouteCache::addTableTypes(types_);
    sw4 = mounted<Ipv4RouteStatus>("sw4", 1000);
    sw6 = mounted<Ipv6RouteStatus>("sw6", 1000);
    config4 = mounted<RouteConfig>("config4", 1000);
    config6 = mounted<RouteConfig>("config6", 1000);
    kernelTable = mounted<RouteConfig>("kernel", capacity + buffer);
    capability->hwRouteTableSizeIs(capacity);
    scheduler.afterRunIs([this] {
      service_.pendingChanges();
      service_.deliverChanges([] { return false; });
      if (sm) sm->checkInvariants();
    });
  }
  ~KernelMirror() { stop(); }

  void start() {
    sm = RouteCache::KernelRouteSmIs({sw4, sw6, kernelTable, capability, vrfIdMap, cachedRoutes, config4, config6},
                                     scheduler, trace);
    sm->handleInitialized();
  }
  void stop() { sm.reset(); }
  // All there is to do, waiting keys apart.
  void settle() { scheduler.advance(0.5); }

  void vrf(std::uint32_t piVrfId, std::uint32_t hwVrfId) {
    if (!cachedRoutes->vrfTrie(hwVrfId)) cachedRoutes->vrfTrieIs(hwVrfId, std::make_shared<Routing::Trie>());
    cachedRoutes->vrfTrie6Is(hwVrfId, std::make_shared<Routing6::Trie>());
    mapVrf(piVrfId, hwVrfId);
  }
  void mapVrf(std::uint32_t piVrfId, std::uint32_t hwVrfId) {
    vrfIdMap->hwVrfIdToGlobalVrfIdIs(hwVrfId, piVrfId);
    vrfIdMap->globalVrfIdToHwVrfIdIs(piVrfId, hwVrfId);
  }
  void unmapVrf(std::uint32_t piVrfId) {
    if (!vrfIdMap->globalVrfIdToHwVrfIdHas(piVrfId)) return;
    vrfIdMap->hwVrfIdToGlobalVrfIdDel(vrfIdMap->globalVrfIdToHwVrfId(piVrfId));
    vrfIdMap->globalVrfIdToHwVrfIdDel(piVrfId);
  }
  // The IPv6 trie stays, as it does in a switch.
  void vrfGone(std::uint32_t piVrfId) {
    const std::uint32_t hwVrfId = vrfIdMap->globalVrfIdToHwVrfId(piVrfId);
    unmapVrf(piVrfId);
    cachedRoutes->vrfTrieDel(hwVrfId);
  }
  void published(const std::string& text, std::uint32_t hwVrfId) {
    const auto prefix = fromText<IpGenPrefix>(text);
    if (prefix.isV4()) {
      sw4->routeIs({{prefix.v4(), hwVrfId}, AdjId(1), false});
    } else {
      sw6->routeIs({{prefix.v6(), hwVrfId}, AdjId(1), false});
    }
  }
  void withdrawn(const std::string& text, std::uint32_t hwVrfId) {
    const auto prefix = fromText<IpGenPrefix>(text);
    if (prefix.isV4()) {
      sw4->routeDel({prefix.v4(), hwVrfId});
    } else {
      sw6->routeDel({prefix.v6(), hwVrfId});
    }
  }
  void configured(const std::string& text, std::uint32_t piVrfId, std::uint32_t metric) {
    const auto prefix = fromText<IpGenPrefix>(text);
    (prefix.isV4() ? config4 : config6)->routeIs(Routing::Rib::Route({piVrfId, prefix}, 7, 1, metric, 9));
  }
  void configuredGone(const std::string& text, std::uint32_t piVrfId) {
    const auto prefix = fromText<IpGenPrefix>(text);
    (prefix.isV4() ? config4 : config6)->routeDel({piVrfId, prefix});
  }
  void cached(const std::string& text, std::uint32_t hwVrfId, bool there = true) {
    const auto prefix = fromText<IpGenPrefix>(text);
    if (prefix.isV4()) {
      set(*cachedRoutes->vrfTrie(hwVrfId), prefix.v4(), there);
    } else {
      set(*cachedRoutes->vrfTrie6(hwVrfId), prefix.v6(), there);
    }
  }
  void cachedGone(const std::string& text, std::uint32_t hwVrfId) { cached(text, hwVrfId, false); }
  // A route of the kernel table that an earlier life has left.
  void standing(const std::string& text, std::uint32_t piVrfId) {
    kernelTable->routeIs(Routing::Rib::Route({piVrfId, fromText<IpGenPrefix>(text)}));
  }

  // "10.0.0.0/24@2" -> metric, 0 for a route that is nothing but its key.
  std::map<std::string, std::uint32_t> kernel() const {
    std::map<std::string, std::uint32_t> routes;
    for (const auto& route : *kernelTable) routes[toText(route.key())] = route.metric();
    return routes;
  }

  // Steps of the IPv4 task.
  std::uint64_t workDone() const {
    std::uint64_t steps = 0;
    for (const auto& task : scheduler.statistics()) {
      if (task.name == "ipv4RouteProcessingTask") steps += task.workDone;
    }
    return steps;
  }

  LinuxPlatform::SimulatedScheduler scheduler;
  LinuxPlatform::TextTraceFacility trace{-1};
  std::shared_ptr<Ipv4RouteStatus> sw4;
  std::shared_ptr<Ipv6RouteStatus> sw6;
  std::shared_ptr<RouteConfig> config4, config6, kernelTable;
  std::shared_ptr<RouteCache::Capability> capability = std::make_shared<RouteCache::Capability>("capability");
  std::shared_ptr<RouteCache::VrfIdMap> vrfIdMap = RouteCache::vrfIdMapFactory("vrfIdMap");
  std::shared_ptr<RouteCache::VrfCachedRoute> cachedRoutes = RouteCache::vrfCachedRouteFactory("vrfCachedRoute");
  std::shared_ptr<RouteCache::KernelRouteSm> sm;

 private:
  template <class T>
  std::shared_ptr<T> mounted(const std::string& path, std::uint32_t capacity) {
    service_.mount(path, T::typeName, MountKind::writer, Pondra::CollectionInfo{T::collectionName, capacity});
    return service_.get<T>(path);
  }
  template <class Trie, class P>
  static void set(Trie& trie, const P& prefix, bool there) {
    there ? trie.routeIs(prefix, true) : trie.routeDel(prefix);
  }
  TemporaryDirectory directory_;
  Platform::TableTypes types_;
  LinuxPlatform::SharedTableService service_{directory_.path(), types_};
};

// --- The decision ----------------------------------------------------------------------------------------------------

TEST(KernelRouteSmTest, FieldsAreThoseOfTheConfiguredRouteAndAreWrittenOnlyWhenTheyDiffer) {
  KernelMirror mirror;
  mirror.vrf(2, 7);
  mirror.start();
  mirror.configured("10.0.0.0/24", 2, 5);
  mirror.published("10.0.0.0/24", 7);
  mirror.configured("20.0.0.0/24", 2, 5);  // it counts only for a published route
  mirror.cached("20.0.0.0/24", 7);
  mirror.settle();
  EXPECT_THAT(mirror.kernel(), ElementsAre(Pair("10.0.0.0/24@2", 5), Pair("20.0.0.0/24@2", 0)));
  EXPECT_EQ(mirror.kernelTable->route({2, fromText<IpGenPrefix>("10.0.0.0/24")}),
            mirror.config4->route({2, fromText<IpGenPrefix>("10.0.0.0/24")}));

  mirror.published("10.0.0.0/24", 7);  // the same again
  mirror.settle();
  EXPECT_EQ(mirror.sm->written(), 2U);
  mirror.configured("10.0.0.0/24", 2, 6);  // published as before
  mirror.settle();
  EXPECT_THAT(mirror.kernel(), ElementsAre(Pair("10.0.0.0/24@2", 6), Pair("20.0.0.0/24@2", 0)));
  mirror.configuredGone("10.0.0.0/24", 2);  // its withdrawal is on the way
  mirror.published("10.0.0.0/24", 7);
  mirror.settle();
  EXPECT_EQ(mirror.sm->written(), 3U) << "a route that is about to go is not touched";
}

// --- Cached prefixes -------------------------------------------------------------------------------------------------

TEST(KernelRouteSmTest, OneKeyIsDecidedForACallerAsTheTasksDecideIt) {
  KernelMirror mirror;
  mirror.vrf(2, 102);
  mirror.start();
  mirror.settle();
  const RouteCache::Ipv4RouteVrfKey key(fromText<Prefix>("10.1.0.0/16"), 102);
  const RouteCache::Ipv6RouteVrfKey key6(fromText<Ip6Prefix>("2001:db8::/48"), 102);
  mirror.published("10.1.0.0/16", 102);
  mirror.published("2001:db8::/48", 102);
  EXPECT_FALSE(mirror.sm->isIpv4RouteAdded(key)) << "it is not queued";
  mirror.sm->ipv4ProcessRoute(key);
  mirror.sm->ipv6ProcessRoute(key6);
  EXPECT_THAT(mirror.kernel(), IsEmpty());

  mirror.sm->ipv4RouteToProcessIs(key);
  EXPECT_TRUE(mirror.sm->isIpv4RouteAdded(key));
  EXPECT_FALSE(mirror.sm->isIpv4RouteAdded(key)) << "the first answer took it out of the queue";
  mirror.sm->ipv4RouteToProcessIs(key);
  mirror.sm->ipv6RouteToProcessIs(key6);
  EXPECT_TRUE(mirror.sm->isIpv6RouteAdded(key6));
  mirror.sm->ipv6RouteToProcessIs(key6);
  mirror.sm->ipv4ProcessRoute(key);
  mirror.sm->ipv6ProcessRoute(key6);
  EXPECT_THAT(mirror.kernel(), ElementsAre(Pair("10.1.0.0/16@2", 0), Pair("2001:db8::/48@2", 0)));

  mirror.withdrawn("10.1.0.0/16", 102);
  mirror.sm->ipv4ProcessRoute(key);
  EXPECT_THAT(mirror.kernel(), ElementsAre(Pair("2001:db8::/48@2", 0))) << "deleted also when it is not queued";
  mirror.settle();
  EXPECT_THAT(mirror.kernel(), ElementsAre(Pair("2001:db8::/48@2", 0)));
}

TEST(KernelRouteSmTest, APrefixThatCoversLittleIsLookedAfterWithoutAWalkOverTheTable) {
  KernelMirror mirror;
  mirror.vrf(2, 7);
  mirror.start();
  for (unsigned i = 0; i < 500; ++i)
    mirror.published("10.0." + std::to_string(i / 250) + "." + std::to_string(i % 250) + "/32", 7);
  mirror.scheduler.advance(1);
  const auto before = mirror.workDone();
  mirror.cached("10.0.1.7/32", 7);
  mirror.scheduler.advance(1);
  EXPECT_LT(mirror.workDone() - before, 10U);
  mirror.cached("10.0.0.0/23", 7);  // more than is looked after one by one
  mirror.scheduler.advance(1);
  EXPECT_THAT(mirror.kernel(), ElementsAre(Pair("10.0.0.0/23@2", 0)));
}

// --- Room ------------------------------------------------------------------------------------------------------------

TEST(KernelRouteSmTest, RoutesWaitForRoomOfTheirKindAndCostNothingWhileThereIsNone) {
  KernelMirror mirror(2);
  mirror.vrf(2, 7);
  mirror.start();
  for (const char* prefix : {"10.0.0.0/24", "10.0.1.0/24", "10.0.2.0/24"}) mirror.published(prefix, 7);
  mirror.settle();
  for (const char* prefix : {"20.0.0.0/24", "20.0.1.0/24", "20.0.2.0/24"}) mirror.cached(prefix, 7);
  mirror.settle();
  EXPECT_THAT(mirror.kernel(), ElementsAre(Pair("10.0.0.0/24@2", 0), Pair("10.0.1.0/24@2", 0), Pair("20.0.0.0/24@2", 0),
                                           Pair("20.0.1.0/24@2", 0)))
      << "the buffer is for cached prefixes";
  EXPECT_EQ(mirror.sm->ipv4RouteToProcess().size(), 2U);
  mirror.scheduler.advance(20);
  EXPECT_LT(mirror.workDone(), 20U) << "waiting keys were looked at";

  mirror.cachedGone("20.0.0.0/24", 7);  // the table has room, but only above the capacity
  mirror.scheduler.advance(5);
  EXPECT_THAT(mirror.kernel(), ElementsAre(Pair("10.0.0.0/24@2", 0), Pair("10.0.1.0/24@2", 0), Pair("20.0.1.0/24@2", 0),
                                           Pair("20.0.2.0/24@2", 0)));
  mirror.cachedGone("20.0.1.0/24", 7);
  mirror.cachedGone("20.0.2.0/24", 7);
  mirror.withdrawn("10.0.0.0/24", 7);
  mirror.scheduler.advance(5);
  EXPECT_THAT(mirror.kernel(), ElementsAre(Pair("10.0.1.0/24@2", 0), Pair("10.0.2.0/24@2", 0)));
  EXPECT_TRUE(mirror.sm->ipv4RouteToProcess().empty());
}

TEST(KernelRouteSmTest, RoomThatComesIsTakenAtOnceWhicheverFamilyItCameFrom) {
  KernelMirror mirror(1);
  mirror.vrf(2, 7);
  mirror.start();
  mirror.published("2001:db8::/32", 7);
  mirror.settle();
  mirror.published("10.0.0.0/24", 7);
  mirror.settle();
  mirror.withdrawn("2001:db8::/32", 7);
  mirror.scheduler.advance(0.1);
  EXPECT_THAT(mirror.kernel(), ElementsAre(Pair("10.0.0.0/24@2", 0)));
}

TEST(KernelRouteSmTest, VrfsThatComeAndGoDoNotDragAlongWhatWaitsForRoom) {
  KernelMirror mirror(1);
  mirror.vrf(1, 6);
  mirror.start();
  for (int i = 0; i < 200; ++i) mirror.cached("10.0." + std::to_string(i) + ".0/24", 6);
  mirror.settle();
  ASSERT_EQ(mirror.sm->ipv4RouteToProcess().size(), 197U);
  mirror.scheduler.advance(10);
  const auto before = mirror.workDone();
  for (int i = 0; i < 20; ++i) {
    mirror.vrf(2, 7);
    mirror.scheduler.advance(0.25);
    mirror.vrfGone(2);
    mirror.scheduler.advance(0.25);
  }
  EXPECT_LT(mirror.workDone() - before, 2 * 197U + 20 * 10U) << "one review in five seconds";
  EXPECT_EQ(mirror.sm->ipv4RouteToProcess().size(), 197U);
}

TEST(KernelRouteSmTest, NothingWaitsForAVrfOrATrieThatHasGone) {
  KernelMirror mirror(1);
  mirror.vrf(1, 6);
  mirror.start();
  for (const char* prefix : {"10.0.0.0/24", "10.0.1.0/24", "10.0.2.0/24"}) mirror.cached(prefix, 6);
  mirror.settle();
  mirror.vrf(2, 7);
  mirror.cached("20.0.0.0/24", 7);
  mirror.cached("2001:db8::/32", 7);
  mirror.settle();
  EXPECT_EQ(mirror.sm->ipv4RouteToProcess().size() + mirror.sm->ipv6RouteToProcess().size(), 2U);
  mirror.vrfGone(2);
  mirror.scheduler.advance(5.5);
  EXPECT_TRUE(mirror.sm->ipv4RouteToProcess().empty());
  EXPECT_TRUE(mirror.sm->ipv6RouteToProcess().empty());
  mirror.cached("10.0.3.0/24", 6);
  mirror.settle();
  mirror.cachedRoutes->vrfTrieIs(6, std::make_shared<Routing::Trie>());
  mirror.scheduler.advance(5.5);
  EXPECT_TRUE(mirror.sm->ipv4RouteToProcess().empty());
  EXPECT_THAT(mirror.kernel(), IsEmpty());
}

// --- Restart ---------------------------------------------------------------------------------------------------------

TEST(KernelRouteSmTest, ARestartKeepsWhatIsRightDropsWhatIsStaleAndWaitsForVrfs) {
  KernelMirror mirror;
  mirror.vrf(2, 7);
  mirror.cached("20.0.0.0/8", 7);
  mirror.published("10.0.0.0/24", 7);
  mirror.published("10.0.0.0/24", 8);  // of a VRF that is late
  mirror.published("20.1.0.0/16", 7);
  for (const char* prefix : {"10.0.0.0/24", "10.0.9.0/24", "20.0.0.0/8", "20.1.0.0/16"}) mirror.standing(prefix, 2);
  mirror.standing("10.0.0.0/24", 3);
  for (const std::uint32_t never : {4U, 4294967295U}) mirror.standing("10.0.0.0/24", never);
  mirror.start();
  mirror.scheduler.advance(4.5);
  EXPECT_THAT(mirror.kernel(),
              ElementsAre(Pair("10.0.0.0/24@2", 0), Pair("10.0.0.0/24@3", 0), Pair("10.0.0.0/24@4", 0),
                          Pair("10.0.0.0/24@4294967295", 0), Pair("10.0.9.0/24@2", 0), Pair("20.0.0.0/8@2", 0)));
  mirror.vrf(3, 8);
  mirror.scheduler.advance(1);
  EXPECT_THAT(mirror.kernel(),
              ElementsAre(Pair("10.0.0.0/24@2", 0), Pair("10.0.0.0/24@3", 0), Pair("20.0.0.0/8@2", 0)));
  EXPECT_EQ(mirror.sm->written(), 0U);
  EXPECT_EQ(mirror.sm->deleted(), 4U);
}

// --- Random sequences ------------------------------------------------------------------------------------------------

// The invariants are checked after every task run; whenever things have settled, the kernel table is compared with what
// the tables say it must be.
class RandomMirror {
 public:
  explicit RandomMirror(unsigned seed)
      : random_(seed),
        capacity_(pick(2) == 0 ? 1000 : 6 + pick(10)),
        tableSize_(capacity_ + KernelMirror::buffer),
        mirror_(capacity_) {
    mirror_.scheduler.yieldAfterEntriesIs(pick(4));
    mirror_.start();
  }

  void step() {
    const std::uint32_t hwVrfId = 7 + pick(vrfs);
    const std::uint32_t piVrfId = 2 + pick(vrfs);
    switch (pick(22)) {
      case 16:
        return swapVrfs(piVrfId, 2 + pick(vrfs));
      case 17:
        return trie<Routing::Trie>(mirror_.cachedRoutes->vrfTrie(hwVrfId),
                                   [&](auto filled) { mirror_.cachedRoutes->vrfTrieIs(hwVrfId, filled); });
      case 18:
        return trie<Routing6::Trie>(mirror_.cachedRoutes->vrfTrie6(hwVrfId),
                                    [&](auto filled) { mirror_.cachedRoutes->vrfTrie6Is(hwVrfId, filled); });
      case 19:
        return mirror_.cachedRoutes->vrfTrie6Del(hwVrfId);
      case 20:
        return mirror_.cachedRoutes->vrfTrieDelAll();
      case 21:
        return mirror_.cachedRoutes->vrfTrie6DelAll();
      case 0:
        return mirror_.unmapVrf(piVrfId);
      case 1:
        return vrf(piVrfId, hwVrfId);
      case 2:
        return mirror_.cachedRoutes->vrfTrieDel(hwVrfId);
      case 3:
        return restart();
      case 4:
      case 5:
        if (mirror_.cachedRoutes->vrfTrie(hwVrfId) && mirror_.cachedRoutes->vrfTrie6(hwVrfId)) {
          mirror_.cached(prefix(), hwVrfId, pick(2) == 0);
        }
        return;
      case 6:
        return mirror_.configured(prefix(), piVrfId, 1 + pick(3));
      case 7:
        return mirror_.configuredGone(prefix(), piVrfId);
      case 8:
      case 9:
      case 10:
        return mirror_.published(prefix(), hwVrfId);
      case 11:
      case 12:
        return mirror_.withdrawn(prefix(), hwVrfId);
      case 13:
        mirror_.scheduler.runDue();
        return;
      default:
        return mirror_.scheduler.advance(0.002 * pick(3));
    }
  }

  void check() {
    mirror_.scheduler.advance(12);    // past the walk after a restart and two rounds of keys that wait
    std::map<RouteKey, bool> wanted;  // whether it needs mirrored room
    const auto note = [&](const auto& key, const auto& trie, bool published) {
      if (!mirror_.vrfIdMap->hwVrfIdToGlobalVrfIdHas(key.vrfId())) return;
      const bool is = published ? !trie || !trie->longestMatch(key.prefix()) : trie && trie->has(key.prefix());
      if (is) wanted[RouteKey(mirror_.vrfIdMap->hwVrfIdToGlobalVrfId(key.vrfId()), key.prefix())] = published;
    };
    for (const auto& route : *mirror_.sw4) note(route.key(), mirror_.cachedRoutes->vrfTrie(route.key().vrfId()), true);
    for (const auto& route : *mirror_.sw6) note(route.key(), mirror_.cachedRoutes->vrfTrie6(route.key().vrfId()), true);
    for (const auto& [vrfId, trie] : mirror_.cachedRoutes->vrfTries()) {
      for (const auto& route : *trie) {
        const RouteCache::Ipv4RouteVrfKey key(route.prefix, vrfId);
        if (!mirror_.sw4->has(key)) note(key, trie, false);
      }
    }
    for (const auto& [vrfId, trie] : mirror_.cachedRoutes->vrfTries6()) {
      for (const auto& route : *trie) {
        const RouteCache::Ipv6RouteVrfKey key(route.prefix, vrfId);
        if (!mirror_.sw6->has(key)) note(key, trie, false);
      }
    }
    for (const auto& route : *mirror_.kernelTable) ASSERT_TRUE(wanted.contains(route.key())) << toText(route.key());
    for (const auto& [key, published] : wanted) {
      const std::size_t room = published ? capacity_ : tableSize_;
      const auto standing = mirror_.kernelTable->route(key);
      ASSERT_TRUE(standing || mirror_.kernelTable->size() >= room) << toText(key);
      const auto configured = (key.prefix().isV4() ? mirror_.config4 : mirror_.config6)->route(key);
      if (!standing || (published && !configured)) continue;
      ASSERT_TRUE(standing == (published ? *configured : Routing::Rib::Route(key))) << toText(key);
    }
  }

 private:
  static constexpr std::uint32_t vrfs = 3;
  std::uint32_t pick(std::uint32_t count) { return static_cast<std::uint32_t>(random_() % count); }
  std::string prefix() {
    static const char* const prefixes[] = {"0.0.0.0/0",       "10.0.0.0/8",       "10.1.0.0/16", "10.1.1.1/32",
                                           "10.1.1.2/32",     "20.0.0.0/8",       "::/0",        "2001:db8::/32",
                                           "2001:db8:1::/48", "2001:db8:1::1/128"};
    return prefixes[pick(10)];
  }
  // Maps the pair; whoever has one of the ids loses it first, but for a VRF whose hardware id changes in place.
  void vrf(std::uint32_t piVrfId, std::uint32_t hwVrfId) {
    const RouteCache::VrfIdMap& ids = *mirror_.vrfIdMap;
    const bool moves = ids.globalVrfIdToHwVrfIdHas(piVrfId) && ids.globalVrfIdToHwVrfId(piVrfId) != hwVrfId;
    if (moves && pick(2) == 0) {
      mirror_.vrfIdMap->hwVrfIdToGlobalVrfIdDel(ids.globalVrfIdToHwVrfId(piVrfId));
    } else {
      mirror_.unmapVrf(piVrfId);
    }
    if (mirror_.vrfIdMap->hwVrfIdToGlobalVrfIdHas(hwVrfId)) {
      mirror_.unmapVrf(mirror_.vrfIdMap->hwVrfIdToGlobalVrfId(hwVrfId));
    }
    if (pick(2) == 0) {
      mirror_.vrf(piVrfId, hwVrfId);
    } else {
      mirror_.mapVrf(piVrfId, hwVrfId);  // as it was left
    }
  }

  void swapVrfs(std::uint32_t a, std::uint32_t b) {
    const RouteCache::VrfIdMap& ids = *mirror_.vrfIdMap;
    if (a == b || !ids.globalVrfIdToHwVrfIdHas(a) || !ids.globalVrfIdToHwVrfIdHas(b)) return;
    const std::uint32_t hwOfA = ids.globalVrfIdToHwVrfId(a);
    const std::uint32_t hwOfB = ids.globalVrfIdToHwVrfId(b);
    mirror_.unmapVrf(a);
    mirror_.unmapVrf(b);
    mirror_.mapVrf(a, hwOfB);
    mirror_.mapVrf(b, hwOfA);
  }
  // The trie is emptied, or another takes its place that holds something already.
  template <class Trie>
  void trie(const std::shared_ptr<Trie>& present, const auto& replaceBy) {
    if (present && pick(2) == 0) return present->trieDelete();
    const auto filled = std::make_shared<Trie>();
    for (unsigned i = pick(4); i > 0; --i) {
      const auto prefix = Platform::TextForm<typename Trie::PrefixType>::from(this->prefix());
      if (prefix) filled->routeIs(*prefix, true);
    }
    replaceBy(filled);
  }
  // Much may have changed when it starts again, its own table included.
  void restart() {
    mirror_.stop();
    for (unsigned i = pick(6); i > 0; --i) {
      const std::uint32_t hwVrfId = 7 + pick(vrfs);
      const std::uint32_t piVrfId = 2 + pick(vrfs);
      switch (pick(5)) {
        case 0:
          mirror_.unmapVrf(piVrfId);
          break;
        case 1:
          vrf(piVrfId, hwVrfId);
          break;
        case 2:
          mirror_.published(prefix(), hwVrfId);
          break;
        case 3:
          mirror_.withdrawn(prefix(), hwVrfId);
          break;
        default:
          if (mirror_.kernelTable->hasRoom()) mirror_.standing(prefix(), 2 + pick(5));
      }
    }
    if (pick(4) == 0) {
      capacity_ = std::min(tableSize_, 3 + pick(14));
      mirror_.capability->hwRouteTableSizeIs(capacity_);
    }
    mirror_.start();
  }

  std::mt19937 random_;
  std::uint32_t capacity_;
  const std::uint32_t tableSize_;
  KernelMirror mirror_;
};

TEST(KernelRouteSmTest, RandomSequencesEndAsTheTablesSay) {
  for (unsigned seed = 1; seed <= 30; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    RandomMirror mirror(seed);
    for (unsigned step = 1; step <= 400; ++step) {
      mirror.step();
      if (step % 40 != 0) continue;
      mirror.check();
      if (testing::Test::HasFatalFailure()) return;
    }
  }
}

}  // namespace
