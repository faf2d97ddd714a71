// The agent's frame: what it mounts and how, which arrangement of tables it chooses, what it cannot live without, and
// what it leaves behind.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

#include "host/AgentLibrary.h"
#include "lib/statedb/EntityFields.h"
#include "test/support/Command.h"
#include "test/support/SimulatedSwitch.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;
using testing::StartsWith;

using Log = std::vector<std::string>;

// The same object behind a pointer of its own: the log tells when the last holder of that pointer has let go.
template <class T>
std::shared_ptr<T> watched(std::shared_ptr<T> object, const std::string& path, Log& log) {
  if (!object) return nullptr;
  T* const raw = object.get();
  return {raw, [object = std::move(object), path, &log](T*) { log.push_back("released " + path); }};
}

// These two pass everything on and write down what the agent asks for.
class RecordingStateDb final : public Lattis::StateDb {
 public:
  RecordingStateDb(Lattis::StateDb& real, Log& log) : real_(real), log_(log) {}
  std::shared_ptr<Lattis::MountGroup> mountGroup() override {
    return std::make_shared<Group>(real_.mountGroup(), log_);
  }
  void localEntityIs(const std::string& path, std::shared_ptr<Lattis::Entity> entity) override {
    log_.push_back((entity ? "offered " : "withdrawn ") + path);
    real_.localEntityIs(path, std::move(entity));
  }
  // An agent asks for no more.
  void entitiesAre(const Lattis::Entities&) override { ADD_FAILURE(); }
  std::shared_ptr<Lattis::Entity> entityOrNew(const std::string&, const std::string&) override { return nullptr; }
  std::shared_ptr<Lattis::Entity> entity(std::string_view) const override { return nullptr; }
  std::vector<std::string> paths() const override { return {}; }
  void fieldIs(std::string_view, std::string_view, const std::optional<std::string>&) override { ADD_FAILURE(); }
  void fieldDel(std::string_view, std::string_view) override { ADD_FAILURE(); }

 private:
  class Manager final : public Lattis::EntityManager {
   public:
    Manager(std::shared_ptr<Lattis::EntityManager> real, Log& log) : real_(std::move(real)), log_(log) {}
    std::shared_ptr<Lattis::Entity> entity(std::string_view path) const override {
      return watched(real_->entity(path), std::string(path), log_);
    }

   private:
    std::shared_ptr<Lattis::EntityManager> real_;
    Log& log_;
  };
  class Group final : public Lattis::MountGroup {
   public:
    Group(std::shared_ptr<Lattis::MountGroup> real, Log& log) : real_(std::move(real)), log_(log) {}
    void mount(std::string path, std::string typeName, std::string mode) override {
      log_.push_back(mode + " " + path + " " + typeName);
      real_->mount(std::move(path), std::move(typeName), std::move(mode));
    }
    void close(Lattis::MountsComplete complete) override {
      real_->close([complete = std::move(complete), &log = log_](Lattis::MountStatus status, auto manager) {
        complete(status, std::make_shared<Manager>(std::move(manager), log));
      });
    }

   private:
    std::shared_ptr<Lattis::MountGroup> real_;
    Log& log_;
  };
  Lattis::StateDb& real_;
  Log& log_;
};

class RecordingTables final : public Pondra::TableService {
 public:
  RecordingTables(Pondra::TableService& real, Log& log) : real_(real), log_(log) {}
  void mount(const std::string& path, const std::string& typeName, Pondra::MountKind kind,
             const std::optional<Pondra::CollectionInfo>& info) override {
    std::string line = std::to_string(static_cast<unsigned>(kind)) + " " + path + " " + typeName;
    if (info) line += " " + info->collection + " " + std::to_string(info->capacity);
    log_.push_back(line);
    real_.mount(path, typeName, kind, info);
  }
  void mountWhenReadable(const std::string& path, const std::string& typeName) override {
    log_.push_back("1 " + path + " " + typeName);
    real_.mountWhenReadable(path, typeName);
  }
  void unmount(const std::string& path) override { real_.unmount(path); }
  std::shared_ptr<Pondra::TableEntity> entity(std::string_view path) const override {
    return path == missing ? nullptr : watched(real_.entity(path), std::string(path), log_);
  }
  void corruptionHandlerIs(std::function<void(const std::string&, const std::string&)> handler) override {
    real_.corruptionHandlerIs(std::move(handler));
  }
  std::string missing;  // the path at which no table is found

 private:
  Pondra::TableService& real_;
  Log& log_;
};

// What the agent traced of itself.
Log traced(const SimulatedSwitch& sw) {
  Log lines;
  for (const auto& line : sw.trace.lines()) {
    if (line.handle == "RouteCacheAgent") lines.push_back(std::to_string(line.level) + " " + line.text);
  }
  return lines;
}

// One VRF, one tunnel, two routes.
void configure(SimulatedSwitch& sw) {
  sw.underlay("10.255.0.0/16", 5);
  sw.vti("Vxlan1", "192.0.2.1");
  sw.vrf("red", 1, 101);
  sw.via(1, {sw.nexthop("10.255.0.1")});
  sw.route("10.0.0.0/8", 1, 1);
  sw.route("2001:db8:1::/48", 1, 1);
}

class AgentTest : public testing::Test {
 protected:
  AgentTest() { configure(sw); }
  // Starts this agent, or a linked-in one, over the recorders, up to its mounts.
  void start(std::unique_ptr<Platform::AgentBase> given = nullptr) {
    agent = std::move(given);
    if (!agent) agent.reset(RouteCacheAgent::agentFactory("RouteCache"));
    Platform::AgentServices services;
    services.stateDb = &stateDb;
    services.tables = &tables;
    services.scheduler = &sw.scheduler;
    services.trace = &sw.trace;
    services.commands = &sw.commands;
    services.clock = sw.clock;
    services.environment = [this](const char* name) -> const char* {
      const auto found = sw.environment.find(name);
      return found == sw.environment.end() ? nullptr : found->second.c_str();
    };
    agent->servicesIs(services);
    agent->doInit();
  }
  void startCompletely() {
    start();
    sw.advance(0);
  }
  Log log;
  SimulatedSwitch sw{9};
  LinuxPlatform::SharedTableService realTables{sw.directory.path(), sw.tableTypes};
  RecordingStateDb stateDb{*sw.stateDb, log};
  RecordingTables tables{realTables, log};
  std::unique_ptr<Platform::AgentBase> agent;
};
using AgentDeathTest = AgentTest;

const std::shared_ptr<Lattis::Entity> otherType = std::make_shared<Routing::Hardware::VrfStatus>("other");

// --- Death -----------------------------------------------------------------------------------------------------------

TEST_F(AgentDeathTest, AFailedMountAborts) {
  // A type that nobody knows fails the whole group.
  sw.entityTypes.typeIs(RouteCache::CliConfig::typeName, [](const std::string&) { return nullptr; });
  EXPECT_DEATH(startCompletely(), "assertion failed: status == Lattis::mountSuccess_");
  start();
  EXPECT_DEATH(agent->doMountsComplete(Lattis::mountSuccess_, nullptr), "assertion failed: em \\(");
}

TEST_F(AgentDeathTest, AnInputThatIsMissingAbortsAndIsNamed) {
  for (const std::string path :
       {"routecache/capability", "vrf/vrfNameStatus", "l3/nexthop-resolver/config/routeCache"}) {
    SCOPED_TRACE(path);
    EXPECT_DEATH(
        {
          sw.stateDb->entitiesAre({{path, otherType}});
          startCompletely();
        },
        "assertion failed: " + path);
  }
  for (const std::string path : {"routing/rib/viaConfig/evpn/staticRouteCacheConfig", "routecache/adj/ipv6"}) {
    SCOPED_TRACE(path);
    tables.missing = path;
    EXPECT_DEATH(startCompletely(), "assertion failed: " + path);
  }
}

// --- Mounts ----------------------------------------------------------------------------------------------------------

TEST_F(AgentTest, MountsWithTheModesOfTheResolverAndTheCapacitiesOfTheSwitch) {
  sw.capability(1000, 3000, 200);
  startCompletely();
  EXPECT_THAT(log, testing::IsSupersetOf({"wS l3/nexthop-resolver/config/routeCache Routing::NexthopConfig",
                                          "rS l3/nexthop-resolver/status/routeCache Routing::NexthopStatus",
                                          "3 routing/rib/viaConfig/evpn/staticRouteCacheConfig "
                                          "Routing::Rib::RouteCache::Evpn::ViaConfig"}));
  std::erase_if(log, [](const std::string& line) { return !line.starts_with("0 "); });
  EXPECT_THAT(log, ElementsAre("0 routing/rib/routeConfig/ipv4/unprogrammedStaticRouteCacheConfig "
                               "Routing::Rib::RouteConfig route 4096",
                               "0 routecache/route/sfe/ipv4 RouteCache::Ipv4RouteStatus route 3000",
                               "0 routecache/route/hw/ipv4 RouteCache::Ipv4RouteStatus route 1000",
                               "0 routecache/route/hw/ipv6 RouteCache::Ipv6RouteStatus route 1000",
                               "0 routecache/adj/ipv4 RouteCache::Ipv4AdjacencyStatus adj 200",
                               "0 routecache/adj/ipv6 RouteCache::Ipv6AdjacencyStatus adj 200",
                               "0 routecache/route/kernel Routing::Rib::RouteConfig route 3048"));
}

TEST(AgentStartTest, TheTraceFileIsNamedAfterTheAgentAndItsProcess) {
  const struct {
    const char* what;
    std::map<std::string, std::string> environment;
    std::string file;  // "": none
  } cases[] = {{"no directory of its own", {}, "RouteCache-%d.zph"},
               {"a directory for traces", {{"ZEPHLOGDIR", "/traces"}}, "RouteCache.zph"},
               {"switched off", {{"ZEPHLOG_DISABLE", ""}, {"ZEPHLOGDIR", "/traces"}}, ""}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    SimulatedSwitch sw(9);
    sw.environment = c.environment;
    sw.start();
    sw.advance(0);
    Log lines = {"9 virtual void RouteCacheAgent::Agent::doInit()",
                 "9 virtual void RouteCacheAgent::Agent::doMountsComplete(Lattis::MountStatus, const Ptr&)",
                 "9 void RouteCacheAgent::Agent::startStateMachines()"};
    const auto& settings = sw.trace.settings();
    ASSERT_EQ(settings.has_value(), !c.file.empty());
    if (settings) {
      lines.insert(lines.begin() + 1, "1 zphPrefix is: " + c.file);
      EXPECT_EQ(settings->fileName, c.file);
      EXPECT_THAT(settings->bufferSize, ElementsAre(64, 64, 64, 64, 64, 1024, 1024, 64, 64, 64));
      EXPECT_EQ(std::tuple(settings->secondFileName, settings->syncInterval, settings->maxArguments,
                           settings->multithreadingMode, settings->overwrite, settings->maxRecordSize),
                std::tuple(std::nullopt, 0u, 24u, 0u, true, 512u));
    }
    EXPECT_EQ(traced(sw), lines);
    EXPECT_NE(sw.agent().swRouteSm(), nullptr);
  }
}

// --- Arrangements ----------------------------------------------------------------------------------------------------

TEST(AgentStartTest, HardwareRouteCachingDecidesForGoodWhichTableIsWritten) {
  const auto status = [](bool caching) {
    auto entity = std::make_shared<Routing::Hardware::Status>("status");
    entity->hwRouteCachingEnabledIs(caching);
    return entity;
  };
  const struct {
    const char* what;
    std::shared_ptr<Lattis::Entity> status;
    bool sfe;
  } cases[] = {{"caching: all to the software engine, the hardware's are chosen from them", status(true), true},
               {"no caching: all to the hardware", status(false), false},
               {"no status: as without caching", otherType, false}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    SimulatedSwitch sw;
    sw.stateDb->entitiesAre({{"routing/hardware/status", c.status}});
    configure(sw);
    sw.start();
    sw.advance(1);
    if (c.status != otherType) sw.hwRouteCaching(!c.sfe);  // too late for this agent
    sw.route("10.1.0.0/16", 1, 1);
    sw.advance(1);
    const RouteCacheAgent::Agent& agent = sw.agent();
    EXPECT_EQ(agent.ipv4SfeRouteStatus()->size(), c.sfe ? 2u : 0u);
    EXPECT_EQ(agent.ipv4HwRouteStatus()->size(), 2u);
    EXPECT_EQ(agent.hwRouteSm() != nullptr, c.sfe);
    EXPECT_EQ(agent.ipv6HwRouteStatus()->size(), 1u);
    EXPECT_EQ(agent.ipv4AdjStatus()->size(), 1u);
    EXPECT_EQ(agent.swIpv4RouteStatus(), c.sfe ? agent.ipv4SfeRouteStatus() : agent.ipv4HwRouteStatus());
    EXPECT_EQ(agent.routingHwStatus() == nullptr, c.status == otherType);
  }
}

// --- The end of a restart --------------------------------------------------------------------------------------------

struct Written {
  explicit Written(const RouteCacheAgent::Agent& agent)
      : tables{agent.ipv4SfeRouteStatus(),     agent.ipv4HwRouteStatus(), agent.ipv6HwRouteStatus(),
               agent.ipv4AdjStatus(),          agent.ipv6AdjStatus(),     agent.kernelRouteStatus(),
               agent.unprogrammedRouteConfig()} {}
  std::ptrdiff_t reconciled() const {
    return std::ranges::count_if(tables, [](const auto& table) { return table->reconciled(); });
  }
  std::vector<std::uint64_t> generations() const {
    std::vector<std::uint64_t> all;
    for (const auto& table : tables) all.push_back(table->generation());
    return all;
  }
  std::vector<std::shared_ptr<Pondra::TableEntity>> tables;
};

TEST(ReconciledTest, NoTableSaysSoWhileItHoldsWhatWillGoOrLacksWhatWillCome) {
  for (const bool caching : {false, true}) {
    SCOPED_TRACE(caching);
    SimulatedSwitch sw;
    configure(sw);
    sw.hwRouteCaching(caching);
    for (int i = 0; i < 20; ++i) sw.route("11.2." + std::to_string(i) + ".0/24", 1, 1);
    sw.start();
    sw.advance(4.9);
    EXPECT_EQ(Written(sw.agent()).reconciled(), caching ? 0 : 1) << "the table that is not used is empty at once";
    sw.advance(1);
    EXPECT_EQ(Written(sw.agent()).reconciled(), 7);
    const auto generations = Written(sw.agent()).generations();
    sw.stop();

    // What the next life must undo, last of all in its walks, and what it must do take many runs at the same time.
    for (int i = 0; i < 20; ++i) sw.routeGone("11.2." + std::to_string(i) + ".0/24", 1);
    for (int i = 0; i < 60; ++i) sw.route("10.3." + std::to_string(i) + ".0/24", 1, 1);
    sw.scheduler.yieldAfterEntriesIs(1);
    std::optional<Written> written;
    std::ptrdiff_t most = 0;
    sw.scheduler.afterRunIs([&] {
      sw.afterRun();
      if (!sw.agent().kernelRouteSm()) return;
      if (!written) written.emplace(sw.agent());
      sw.sm().routeSyncIntervalIs(0);
      most = std::max(most, written->reconciled());
      for (const auto& table : written->tables) {
        if (table->size() == 0 || !table->reconciled()) continue;
        const bool isHw = table == sw.agent().ipv4HwRouteStatus() || table == sw.agent().ipv4SfeRouteStatus();
        if (isHw || table == sw.agent().kernelRouteStatus()) {
          ASSERT_EQ(table->size(), isHw ? 61U : 62U);
        }
      }
    });
    sw.start();
    sw.advance(10);
    for (std::size_t i = 0; i < generations.size(); ++i) EXPECT_EQ(written->generations()[i], generations[i] + 1);
    EXPECT_EQ(most, 7);
  }
}

TEST(ReconciledTest, NobodyWaitsLongerThanForTheInitTask) {
  SimulatedSwitch sw;
  configure(sw);
  sw.start();
  sw.scheduler.afterRunIs([&] {
    sw.afterRun();
    if (sw.running() && sw.agent().swRouteSm()) sw.sm().initIntervalIs(2);
  });
  sw.advance(1.5);
  EXPECT_EQ(Written(sw.agent()).reconciled(), 1);
  sw.advance(1);
  EXPECT_EQ(Written(sw.agent()).reconciled(), 7) << "the route syncs begin at five seconds";
}

TEST_F(AgentTest, LivesWithoutTheTablesOfLaterUse) {
  tables.missing = "hardware/routecache/status/ipv4";
  start();
  sw.advance(40);
  EXPECT_THAT(sw.publishedKeys(), ElementsAre("10.0.0.0/8@101", "2001:db8:1::/48@101"));
}

// --- The end ---------------------------------------------------------------------------------------------------------

TEST_F(AgentTest, ReleasesWhatItMadeBeforeWhatItMounted) {
  start();
  sw.advance(40);
  log.clear();
  agent.reset();
  ASSERT_EQ(log.size(), 7u + 9u + 13u);
  const auto mounted = log.begin() + 7;
  EXPECT_THAT(Log(log.begin(), mounted),
              ElementsAre("withdrawn agent/routecache/vrfIdMap", "withdrawn agent/routecache/vrfCachedRoute",
                          "withdrawn agent/routecache/cliCallbackWithFormat", "released routing6/vrf/status/red",
                          "released routing/vrf/status/red",  // VrfSm
                          "withdrawn agent/routecache/swRouteSm", "withdrawn agent/routecache/kernelRouteSm"));
  EXPECT_THAT(Log(mounted, log.end()), testing::Each(StartsWith("released ")));
  EXPECT_THAT(sw.stateDb->paths(), testing::Not(testing::Contains(StartsWith("agent/"))));
}

TEST_F(AgentTest, AnOrderlyStopChangesNoTableAndWithdrawsNoRequest) {
  sw.route("10.9.0.0/16", 9, 1);  // parked
  sw.start();
  sw.advance(40);
  const auto published = sw.published();
  ASSERT_EQ(published.size(), 2u);
  ASSERT_THAT(sw.unprogrammed(), ElementsAre("10.9.0.0/16@9"));
  std::vector<std::string> changed;
  std::vector<std::unique_ptr<Pondra::TableEntity::Watcher>> watchers;
  for (const char* path : {"routecache/route/hw/ipv4", "routecache/route/hw/ipv6", "routecache/adj/ipv4",
                           "routecache/adj/ipv6", "routing/rib/routeConfig/ipv4/unprogrammedStaticRouteCacheConfig"}) {
    watchers.push_back(sw.outside->entity(path)->watchText([&](const std::string& key) { changed.push_back(key); }));
  }
  // All of this is heard of, none of it worked off, when the end comes.
  sw.routeGone("10.0.0.0/8", 1);
  sw.route("10.1.0.0/16", 1, 1);
  sw.vtiDown("Vxlan1");
  sw.vrfGone("red");
  sw.underlayGone("10.255.0.0/16");
  sw.stop();
  EXPECT_EQ(sw.published(), published);
  EXPECT_THAT(sw.unprogrammed(), ElementsAre("10.9.0.0/16@9"));
  EXPECT_THAT(sw.requests(), ElementsAre("10.255.0.1"));
  EXPECT_THAT(changed, IsEmpty());
}

TEST_F(AgentTest, MayBeStoppedBeforeItsMountsAreDone) {
  start();
  agent.reset();
  sw.advance(1);
  EXPECT_THAT(traced(sw), testing::Not(testing::Contains(HasSubstr("doMountsComplete"))));
  start();
  sw.advance(40);
  EXPECT_EQ(sw.published().size(), 2u);
}

// --- A start in slices -----------------------------------------------------------------------------------------------

// Whatever happens between two runs of a start, and wherever: it ends as one does to which it happened before.
TEST(AgentStartTest, WhatHappensInTheMiddleOfAStartIsFoundByIt) {
  const struct {
    const char* what;
    std::function<void(SimulatedSwitch&)> change;
  } cases[] = {
      {"nothing", [](SimulatedSwitch&) {}},
      {"a route, and its VRF",
       [](SimulatedSwitch& sw) {
         sw.route("10.7.0.0/16", 7, 1);
         sw.vrf("green", 7, 107);
       }},
      {"a VRF that goes", [](SimulatedSwitch& sw) { sw.vrfGone("red"); }},
      {"a VRF that moves, and its route that goes",
       [](SimulatedSwitch& sw) {
         sw.hwVrf("red", 111);
         sw.routeGone("10.0.0.0/8", 1);
       }},
      {"the tunnel goes", [](SimulatedSwitch& sw) { sw.vtiDown("Vxlan1"); }},
      {"killed, and started again",
       [](SimulatedSwitch& sw) {
         sw.stop();
         sw.start();
       }},
  };
  for (const bool caching : {false, true}) {
    for (const auto& c : cases) {
      std::map<std::string, std::string> expected;
      std::map<std::string, bool> hardware;
      std::uint64_t runs = 0;
      for (std::uint64_t at = 0; at <= runs; at += 2) {
        SCOPED_TRACE(std::string(c.what) + (caching ? ", caching, " : ", ") + std::to_string(at));
        SimulatedSwitch sw;
        sw.capability(16, 16, 16);
        sw.recordCapacity(16);
        configure(sw);
        sw.vrf("blue", 2, 102);
        sw.route("10.2.0.0/16", 2, 1);
        sw.hwRouteCaching(false);  // the next life finds a table of the other arrangement
        sw.start();
        sw.advance(1);
        sw.stop();
        sw.hwRouteCaching(caching);
        if (at == 0) c.change(sw);
        if (sw.running()) sw.stop();
        sw.scheduler.yieldAfterEntriesIs(1);
        std::uint64_t run = 0;
        sw.scheduler.afterRunIs([&] {
          sw.afterRun();
          const bool over = sw.running() && sw.agent().kernelRouteSm() && sw.agent().kernelRouteSm()->initialized();
          if (at == 0 && !over) ++runs;
          sw.scheduler.yieldAfterEntriesIs(over ? 0 : 1);
          if (++run == at) c.change(sw);
        });
        sw.start();
        sw.advance(30);
        if (at == 0) {
          expected = sw.published();
          hardware = sw.hardware();
          EXPECT_GT(runs, 15U) << "a start that is worth interrupting";
        }
        EXPECT_EQ(sw.published(), expected);
        EXPECT_EQ(sw.hardware(), hardware);
        EXPECT_EQ(Written(sw.agent()).reconciled(), 7);
        if (testing::Test::HasFailure()) return;
      }
    }
  }
}

TEST(AgentStartTest, CommandsBeforeItsEndAreToldSoAndTheLauncherHearsOfItOnce) {
  SimulatedSwitch sw;
  configure(sw);
  sw.scheduler.yieldAfterEntriesIs(1);
  sw.start();
  std::set<std::string> answers;
  sw.scheduler.afterRunIs([&] {
    sw.afterRun();
    if (!sw.agent().cliCallbackWithFormat() || sw.agent().swRouteSm()) return;
    try {
      const auto request =
          std::make_shared<Agent::AgentCommandRequest>("showRouteCacheVrf#Vred", Agent::OutputFormat::text);
      sw.agent().cliCallbackWithFormat()->createAgentAsyncCommandRequestSm(request);
    } catch (const std::exception& error) {
      answers.insert(error.what());
    }
  });
  sw.advance(1);
  EXPECT_THAT(answers, ElementsAre("the agent is not processing routes"));
  EXPECT_EQ(sw.published().size(), 2U);
}

// --- Settings --------------------------------------------------------------------------------------------------------

TEST(AgentSettingsTest, AnIntervalThatIsNoTimeOrWouldSpinIsRefusedByEveryMachine) {
  SimulatedSwitch sw;
  sw.hwRouteCaching(true);
  sw.start();
  sw.advance(1);
  // By these a task comes back to what waits.
  const std::set<std::string> retries{"routeProcessingIntervalDefer", "adjCleanupInterval", "hwHitbitScanInterval"};
  int intervals = 0;
  for (const auto& sm : std::initializer_list<std::shared_ptr<Lattis::Entity>>{
           sw.agent().swRouteSm(), sw.agent().hwRouteSm(), sw.agent().kernelRouteSm()}) {
    for (const auto& attribute : sm->entityType().attributes) {
      if (attribute.name.find("nterval") == std::string::npos) continue;
      SCOPED_TRACE(sm->name() + " " + attribute.name);
      ++intervals;
      const std::string before = attribute.get(*sm);
      for (const char* bad : {"nan", "-nan", "inf", "-inf", "-1"}) {
        EXPECT_ANY_THROW(LinuxPlatform::setField(sm, attribute.name, bad)) << bad;
      }
      if (retries.contains(attribute.name)) {
        EXPECT_ANY_THROW(LinuxPlatform::setField(sm, attribute.name, "0"));
        EXPECT_ANY_THROW(LinuxPlatform::setField(sm, attribute.name, "0.0009"));
      }
      EXPECT_EQ(attribute.get(*sm), before);
      LinuxPlatform::setField(sm, attribute.name, retries.contains(attribute.name) ? "0.001" : "0");
    }
  }
  EXPECT_EQ(intervals, 7 + 3 + 2);
  sw.advance(0.1);
}

// --- The library -----------------------------------------------------------------------------------------------------

TEST(AgentLibraryTest, ExportsItsFactoryAlone) {
  const Outcome symbols = Command("nm -D --defined-only " ROUTECACHE_AGENT, "", nullptr, "/usr/bin/env").wait();
  ASSERT_EQ(symbols.exitCode, 0) << symbols.err;
  // Weak ones are the standard library's templates, which every module has a copy of; those of containers that check
  // name what they contain.
  std::istringstream lines(symbols.out);
  std::string address, kind, name;
  std::vector<std::string> strong, ours;
  while (lines >> address >> kind >> name) {
    if (name.starts_with("_ZTINSt") || name.starts_with("_ZTSNSt")) continue;
    if ((kind == "T" || kind == "D" || kind == "B" || kind == "R") && !name.starts_with("_")) strong.push_back(name);
    for (const char* space : {"RouteCache", "Routing", "Platform", "Lattis", "Pondra", "Vxlan"}) {
      if (name.find(space) != std::string::npos) ours.push_back(name);
    }
  }
  EXPECT_THAT(strong, ElementsAre(Platform::agentFactorySymbol));
  EXPECT_THAT(ours, IsEmpty());
}

TEST_F(AgentTest, WorksWhenItComesFromItsLibrary) {
  auto loaded = Tools::agentFromLibrary(ROUTECACHE_AGENT, "Loaded");
  EXPECT_EQ(loaded->name(), "Loaded");
  EXPECT_TRUE(loaded->notificationsActive());
  // Its types are those of its own code.
  loaded->registerTypes(sw.entityTypes, sw.tableTypes, sw.trace.vocabulary());
  start(std::move(loaded));
  sw.scheduler.afterRunIs([this] {
    realTables.pendingChanges();
    realTables.deliverChanges([] { return false; });
  });
  sw.advance(40);
  EXPECT_THAT(sw.published(), ElementsAre(Pair("10.0.0.0/8@101", "10.255.0.1 Vxlan1 vlan 10 fec 5"),
                                          Pair("2001:db8:1::/48@101", "10.255.0.1 Vxlan1 vlan 10 fec 5")));
  EXPECT_EQ(sw.trace.settings()->fileName, "Loaded-%d.zph");
  agent->checkInvariants();
}

}  // namespace
