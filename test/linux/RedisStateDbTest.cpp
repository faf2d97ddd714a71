// Entities that follow a real server, in the process of the test; other writers are plain commands.
#include <gmock/gmock.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "RouteCache/model/CliConfig.h"
#include "RouteCache/model/Config.h"
#include "RouteCache/model/VrfIdMap.h"
#include "lib/statedb/EntityFields.h"
#include "lib/statedb/PlatformTypes.h"
#include "linux/redis/RedisStateDb.h"
#include "platform/services/AgentCommand.h"
#include "platform/state/Vrf.h"
#include "platform/state/Vxlan.h"
#include "test/support/RedisServer.h"

using LinuxPlatform::RedisStateDb;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using NameToIdMap = Vrf::VrfIdMap::NameToIdMapWrapper;
using Fields = std::map<std::string, std::string>;

namespace {

constexpr const char* names = "vrf/vrfNameStatus";
constexpr const char* interfaces = "interface/status/eth/vxlan";
constexpr const char* levels = "routecache/cliconfig";
constexpr const char* config = "routecache/config";
constexpr const char* idMap = "agent/routecache/vrfIdMap";

// Pauses that nobody wants to sit out pass in a fraction of their time.
class FastClock final : public Platform::Clock {
 public:
  double now() const override { return at_ + speed_ * (real() - since_); }
  void speedIs(double speed) {
    at_ = now();
    since_ = real();
    speed_ = speed;
  }

 private:
  static double real() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
  }
  double at_ = 0;
  double since_ = real();
  double speed_ = 20;
};

// One process' end of the database.
struct Peer {
  Peer(const Lattis::EntityTypes& types, LinuxPlatform::EventLoop& loop, const std::string& address,
       const LinuxPlatform::RedisCredentials& credentials = {})
      : db(types, loop, settings(address, credentials)) {}
  LinuxPlatform::RedisStateDbSettings settings(const std::string& address,
                                               const LinuxPlatform::RedisCredentials& credentials) {
    LinuxPlatform::RedisStateDbSettings all;
    all.address = LinuxPlatform::parseRedisAddress(address);
    all.credentials = credentials;
    all.switchName = "leaf";
    all.notice = [this](const std::string& line) { told.push_back(line); };
    all.offeredPaths = {idMap};
    return all;
  }
  template <class E>
  std::shared_ptr<E> entity(const char* path, const char* type) {
    return std::dynamic_pointer_cast<E>(db.entityOrNew(path, type));
  }
  std::shared_ptr<NameToIdMap> nameMap() { return entity<NameToIdMap>(names, "Vrf::VrfIdMap::NameToIdMapWrapper"); }
  std::shared_ptr<Vxlan::VtiStatusDir> vtis() { return entity<Vxlan::VtiStatusDir>(interfaces, "Vxlan::VtiStatusDir"); }
  std::shared_ptr<RouteCache::CliConfig> cli() {
    return entity<RouteCache::CliConfig>(levels, "RouteCache::CliConfig");
  }
  std::shared_ptr<RouteCache::Config> caching() { return entity<RouteCache::Config>(config, "RouteCache::Config"); }
  std::uint64_t refused() { return db.mirror().refusedFields(); }

  std::vector<std::string> told;
  RedisStateDb db;
};

class NameReactions final : public NameToIdMap::Reactor {
 public:
  using Reactor::Reactor;
  void handleNameToId(const std::string&) override { ++count; }
  int count = 0;
};

class RedisStateDbTest : public testing::Test {
 protected:
  RedisStateDbTest() {
    Platform::TableTypes tables;
    LinuxPlatform::addPlatformTypes(types, tables);
    types.typeIs<RouteCache::CliConfig>("RouteCache::CliConfig");
    types.typeIs<RouteCache::Config>("RouteCache::Config");
    loop.stopOnSignals();
    server.ask("SET leaf|complete 1");
  }

  void turn(int times = 1) {
    while (times-- > 0) {
      loop.runOnce(0);
      std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
  }
  [[nodiscard]] bool until(const std::function<bool()>& holds) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!holds()) {
      if (std::chrono::steady_clock::now() > deadline) return false;
      turn();
    }
    return true;
  }
  // Whatever was published so far has been heard, and done.
  void settle(std::initializer_list<Peer*> peers) {
    for (Peer* peer : peers) {
      EXPECT_TRUE(until([&] { return peer->db.mirror().isSettled(); }));
    }
    turn(30);
    for (Peer* peer : peers) {
      EXPECT_TRUE(until([&] { return peer->db.mirror().isSettled(); }));
    }
  }

  // --- Another writer ---
  void hset(const std::string& path, const std::vector<std::string>& fieldsAndValues) const {
    RedisServer::Words words{"HSET", "leaf|" + path};
    words.insert(words.end(), fieldsAndValues.begin(), fieldsAndValues.end());
    server.command(words);
  }
  void hdel(const std::string& path, const std::string& field) const {
    server.command({"HDEL", "leaf|" + path, field});
  }
  void publish(const std::string& text) const { server.command({"PUBLISH", "leaf", text}); }
  Fields stored(const std::string& path) const { return server.hash("leaf|" + path); }

  // --- What an entity has to hold, and holds ---
  static Fields fieldsOf(const std::shared_ptr<Lattis::Entity>& entity) {
    Fields fields;
    LinuxPlatform::FieldWalk walk(entity, "");
    while (const auto item = walk.next()) fields[item->field] = item->value.value_or("");
    return fields;
  }
  Fields expected(const std::string& path, const std::string& type) const {
    const auto entity = types.make(type, "model");
    for (const auto& [field, value] : stored(path)) {
      LinuxPlatform::setField(entity, field, value.empty() ? std::nullopt : std::optional(value));
    }
    return fieldsOf(entity);
  }

  RedisServer server;
  Lattis::EntityTypes types;
  const std::shared_ptr<FastClock> clock = std::make_shared<FastClock>();
  LinuxPlatform::EventLoop loop{LinuxPlatform::EventLoop::defaultTimeSlice, clock};
};

TEST_F(RedisStateDbTest, WhatOthersWriteIsFollowed) {
  hset(names, {"nameToId[default]", "1", "nameToId[a\\[b]", "9"});
  Peer peer(types, loop, server.address());
  const auto map = peer.nameMap();
  const auto vtis = peer.vtis();
  settle({&peer});
  EXPECT_THAT(map->nameToId(), ElementsAre(testing::Pair("a[b", 9), testing::Pair("default", 1)));

  hset(names, {"nameToId[red]", "2", "nameToId[blue]", "3"});
  publish("vrf/vrfNameStatus nameToId[red]");
  EXPECT_TRUE(until([&] { return map->nameToId("red") == 2; }));
  EXPECT_FALSE(map->nameToId("blue")) << "nobody has told of it";
  publish(names);
  EXPECT_TRUE(until([&] { return map->nameToId("blue") == 3; }));
  hdel(names, "nameToId[red]");
  publish("vrf/vrfNameStatus nameToId[red]");
  EXPECT_TRUE(until([&] { return !map->nameToId("red"); }));
  server.ask("DEL leaf|vrf/vrfNameStatus");
  publish(names);
  EXPECT_TRUE(until([&] { return map->nameToId().empty(); })) << "a hash without fields is no key";

  // A child is there for as long as it has a field; an attribute that is gone has what nobody has set.
  hset(interfaces, {"vtiStatus[Vxlan1].operStatus", "up", "vtiStatus[Vxlan1].extendedVlanToVniMap[10]", "10010",
                    "vtiStatus[Vxlan2]", ""});
  publish(interfaces);
  EXPECT_TRUE(until([&] { return vtis->vtiStatus().size() == 2; }));
  const auto vti = vtis->vtiStatus(Platform::fromText<IntfId>("Vxlan1"));
  ASSERT_NE(vti, nullptr);
  EXPECT_TRUE(until([&] { return vti->operStatus() == Vxlan::OperStatus::up; }));
  EXPECT_THAT(vti->extendedVlanToVniMap(), SizeIs(1));
  hdel(interfaces, "vtiStatus[Vxlan1].operStatus");
  publish("interface/status/eth/vxlan vtiStatus[Vxlan1].operStatus");
  EXPECT_TRUE(until([&] { return vti->operStatus() == Vxlan::OperStatus::down; }));
  hdel(interfaces, "vtiStatus[Vxlan2]");
  hdel(interfaces, "vtiStatus[Vxlan1].extendedVlanToVniMap[10]");
  publish("interface/status/eth/vxlan vtiStatus[Vxlan1].extendedVlanToVniMap[10]");
  publish("interface/status/eth/vxlan vtiStatus[Vxlan2]");
  EXPECT_TRUE(until([&] { return vtis->vtiStatus().empty(); }));
  EXPECT_THAT(peer.told, IsEmpty());
}

// The three percentages must rise at every moment, and come as one change.
TEST_F(RedisStateDbTest, ValuesThatAreGoodOnlyTogetherAreTakenTogether) {
  Peer peer(types, loop, server.address());
  const auto cli = peer.cli();
  settle({&peer});
  const auto has = [&](int low, int medium, int high) {
    return cli->lowThresholdHwUtilPercentage() == low && cli->mediumThresholdHwUtilPercentage() == medium &&
           cli->highThresholdHwUtilPercentage() == high;
  };
  const auto put = [&](const std::string& low, const std::string& medium, const std::string& high) {
    hset(levels, {"lowThresholdHwUtilPercentage", low, "mediumThresholdHwUtilPercentage", medium,
                  "highThresholdHwUtilPercentage", high});
    publish(levels);
  };
  for (const auto& [low, medium, high] :
       {std::tuple(96, 97, 98), {10, 20, 30}, {30, 30, 30}, {0, 50, 100}, {50, 51, 52}}) {
    SCOPED_TRACE(low);
    put(std::to_string(low), std::to_string(medium), std::to_string(high));
    EXPECT_TRUE(until([&, low = low, medium = medium, high = high] { return has(low, medium, high); }));
  }
  EXPECT_THAT(peer.told, IsEmpty());

  // One that contradicts waits for others, whoever changes them: another writer, or this process' operator.
  put("50", "40", "52");
  EXPECT_TRUE(until([&] { return peer.refused() == 1; }));
  EXPECT_TRUE(has(50, 51, 52));
  hset(levels, {"lowThresholdHwUtilPercentage", "40"});
  publish("routecache/cliconfig lowThresholdHwUtilPercentage");
  EXPECT_TRUE(until([&] { return has(40, 40, 52) && peer.refused() == 0; }));
  put("40", "30", "52");
  EXPECT_TRUE(until([&] { return peer.refused() == 1; }));
  peer.db.fieldIs(levels, "lowThresholdHwUtilPercentage", "30");
  EXPECT_TRUE(until([&] { return has(30, 30, 52) && peer.refused() == 0; }));
  server.ask("DEL leaf|routecache/cliconfig");
  publish(levels);
  EXPECT_TRUE(until([&] { return has(85, 90, 95); })) << "what nobody sets";
  EXPECT_THAT(peer.told, SizeIs(2)) << "each that was refused, once";
}

TEST_F(RedisStateDbTest, WhatIsNoneIsRefusedAndTheLastGoodValueStays) {
  hset(names, {"nameToId[red]", "2"});
  Peer peer(types, loop, server.address());
  const auto map = peer.nameMap();
  const auto vtis = peer.vtis();
  peer.cli();
  settle({&peer});
  const struct {
    const char* what;
    const char* path;
    std::string field, value;
  } cases[] = {
      {"no number", names, "nameToId[red]", "two"},
      {"out of range", names, "nameToId[red]", "4294967296"},
      {"no value", names, "nameToId[red]", ""},
      {"not a byte of text", names, "nameToId[red]", std::string("\xff\0\n", 3)},
      {"no field", names, "", "x"},
      {"no such field", names, "nameToIdd[red]", "2"},
      {"an attribute with a key", levels, "lowThresholdIdleTime[1]", "2"},
      {"a collection without", names, "nameToId", "2"},
      {"a bracket that nobody closes", names, "nameToId[red", "2"},
      {"a field of a value", names, "nameToId[red].x", "2"},
      {"another text of a key", interfaces, "vtiStatus[Vxlan1].extendedVlanToVniMap[010]", "10010"},
      {"a key that is none", interfaces, "vtiStatus[Vxlan1].extendedVlanToVniMap[x]", "1"},
      {"a child with a value", interfaces, "vtiStatus[Vxlan1]", "up"},
      {"a field that says what is not so", levels, "lowThresholdHwUtilPercentage", "101"},
      {"a long one", names, "nameToId[" + std::string(100000, '[') + "]", "1"},
  };
  std::size_t told = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    hset(c.path, {c.field, c.value});
    publish(c.path);
    EXPECT_TRUE(until([&] { return peer.refused() == 1; }));
    settle({&peer});
    ASSERT_THAT(peer.told, SizeIs(++told));
    EXPECT_THAT(peer.told.back(), HasSubstr("leaf|" + std::string(c.path)));
    EXPECT_EQ(peer.told.back().find('\n'), std::string::npos);
    EXPECT_EQ(map->nameToId("red"), 2);
    EXPECT_TRUE(vtis->vtiStatus().empty());
    publish(c.path);
    settle({&peer});
    EXPECT_THAT(peer.told, SizeIs(told)) << "once";
    hdel(c.path, c.field);
    if (c.field == "nameToId[red]") hset(c.path, {c.field, "2"});
    publish(c.path);
    EXPECT_TRUE(until([&] { return peer.refused() == 0; }));
  }
  EXPECT_EQ(peer.db.mirror().refusals(), told);

  // A key that is no hash at all.
  const auto readings = peer.db.mirror().readings();
  server.ask("SET leaf|vrf/vrfNameStatus x");
  for (int i = 0; i < 100; ++i) publish(names);
  EXPECT_TRUE(until([&] { return peer.db.mirror().refusals() > told; }));
  settle({&peer});
  EXPECT_EQ(map->nameToId("red"), 2);
  EXPECT_LT(peer.db.mirror().readings(), readings + 110);
  EXPECT_LE(peer.told.size(), 20U) << "not a line for each reading";
  server.ask("DEL leaf|vrf/vrfNameStatus");
  hset(names, {"nameToId[red]", "3"});
  publish(names);
  EXPECT_TRUE(until([&] { return map->nameToId("red") == 3; }));
}

// Operators of two processes and plain writers change the same fields, single and as a whole, and the server is
// emptied.
TEST_F(RedisStateDbTest, WhoeverWritesAllEndEqual) {
  const auto seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 chance(seed);
  const auto below = [&](unsigned bound) { return std::uniform_int_distribution<unsigned>(0, bound - 1)(chance); };
  Peer a(types, loop, server.address());
  Peer b(types, loop, server.address());
  const std::vector<Peer*> peers{&a, &b};
  for (Peer* peer : peers) peer->nameMap(), peer->vtis();
  settle({&a, &b});
  const auto someName = [&] { return "nameToId[n" + std::to_string(below(20)) + "]"; };
  const auto someVtiField = [&] {
    const std::string vti = "vtiStatus[Vxlan" + std::to_string(1 + below(3)) + "]";
    return below(3) == 0 ? vti + ".operStatus" : vti + ".extendedVlanToVniMap[" + std::to_string(1 + below(3)) + "]";
  };
  const auto valueFor = [&](const std::string& field) {
    if (field.ends_with("Status")) return std::string(below(2) == 0 ? "up" : "down");
    return std::to_string(1 + below(1000));
  };
  const auto someField = [&] {
    const bool isName = below(2) == 0;
    return std::pair(std::string(isName ? names : interfaces), isName ? someName() : someVtiField());
  };
  const auto plainWrite = [&] {
    const auto [path, field] = someField();
    below(3) == 0 ? hdel(path, field) : hset(path, {field, valueFor(field)});
    publish(below(4) == 0 ? path : path + " " + field);
  };
  const auto operate = [&](Peer& peer) {
    const auto [path, field] = someField();
    try {
      if (below(3) != 0) return peer.db.fieldIs(path, field, valueFor(field));
      peer.db.fieldDel(path, field.substr(0, field.ends_with("Status") ? field.rfind('.') : std::string::npos));
    } catch (const std::invalid_argument&) {
      // There is no such entry.
    }
  };
  const auto replace = [&](bool everything) {
    std::string script = everything ? "redis.call('FLUSHALL')" : "";
    if (everything) server.command({"EVAL", "redis.call('FLUSHALL')", "0"});
    for (const std::string path : {names, interfaces}) {
      RedisServer::Words words{"HSET", "leaf|" + path};
      for (unsigned i = 1 + below(12); i > 0; --i) {
        words.push_back(path == names ? someName() : someVtiField());
        words.push_back(valueFor(words.back()));
      }
      if (everything) {
        server.command(words);
        if (below(2) == 0) turn();
        continue;
      }
      std::string call = "redis.call('DEL',KEYS[1]); redis.call('HSET',KEYS[1],unpack(ARGV))";
      words.insert(words.begin(), {"EVAL", call, "1"});
      words.erase(words.begin() + 3);
      server.command(words);
      publish(path);
    }
    if (!everything) return;
    server.ask("SET leaf|complete 1");
    publish("complete");
  };
  for (int round = 0; round < 60; ++round) {
    for (int i = 0; i < 60; ++i) {
      const auto what = below(20);
      if (what < 5) operate(a);
      if (what >= 5 && what < 10) operate(b);
      if (what >= 10 && what < 17) plainWrite();
      if (what == 17) publish(below(2) == 0 ? names : interfaces);
      if (what == 18 && below(4) == 0) replace(false);
      if (what == 19 && below(15) == 0) replace(true);
      if (below(3) == 0) loop.runOnce(0);
    }
    const auto areEqual = [&] {
      const Fields nameFields = expected(names, "Vrf::VrfIdMap::NameToIdMapWrapper");
      const Fields vtiFields = expected(interfaces, "Vxlan::VtiStatusDir");
      return std::all_of(peers.begin(), peers.end(), [&](Peer* peer) {
        return peer->db.mirror().isSettled() && fieldsOf(peer->nameMap()) == nameFields &&
               fieldsOf(peer->vtis()) == vtiFields;
      });
    };
    EXPECT_TRUE(until(areEqual)) << "round " << round;
    turn(20);
    for (Peer* peer : peers) {
      ASSERT_EQ(fieldsOf(peer->nameMap()), expected(names, "Vrf::VrfIdMap::NameToIdMapWrapper")) << "round " << round;
      ASSERT_EQ(fieldsOf(peer->vtis()), expected(interfaces, "Vxlan::VtiStatusDir")) << "round " << round;
    }
  }
  EXPECT_EQ(a.refused() + b.refused(), 0U);
}

TEST_F(RedisStateDbTest, AServerThatComesBackTellsDifferencesOnly) {
  std::vector<std::string> many;
  for (int i = 0; i < 2000; ++i) many.insert(many.end(), {"nameToId[vrf" + std::to_string(i) + "]", std::to_string(i)});
  hset(names, many);
  Peer peer(types, loop, server.address());
  const auto map = peer.nameMap();
  const auto caching = peer.caching();
  const auto ids = std::make_shared<RouteCache::VrfIdMap>("ids");
  peer.db.localEntityIs(idMap, ids);
  settle({&peer});
  NameReactions reactions(map);
  const auto openings = [&] { return peer.db.mirror().session().openings(); };
  const auto isBack = [&, before = openings()] { return openings() > before && peer.db.mirror().isSettled(); };

  // What is this process' own is put there whenever it is missing.
  caching->cachingEnabledIs(true);
  ids->globalVrfIdToHwVrfIdIs(2, 101);
  const auto hasOwn = [&] {
    return stored(config)["cachingEnabled"] == "true" && stored(idMap)["globalVrfIdToHwVrfId[2]"] == "101";
  };
  EXPECT_TRUE(until(hasOwn));
  ids->globalVrfIdToHwVrfIdIs(3, 102);
  ids->globalVrfIdToHwVrfIdDel(2);
  EXPECT_TRUE(until([&] { return stored(idMap) == Fields{{"globalVrfIdToHwVrfId[3]", "102"}}; }));
  ids->globalVrfIdToHwVrfIdIs(2, 101);
  EXPECT_TRUE(until(hasOwn));

  server.kill();
  EXPECT_TRUE(until([&] { return !peer.db.mirror().session().isOpen(); }));
  EXPECT_THROW(peer.db.fieldIs(names, "nameToId[red]", "2"), std::invalid_argument);
  server.start();
  EXPECT_TRUE(until(isBack));
  EXPECT_EQ(reactions.count, 0) << "nothing has changed";
  turn(3000);  // it stands for a while: what is lost soon again is not told again

  // A server without its data is not told to be an empty world; content without the mark does not count yet.
  server.kill();
  server.loseData();
  server.start();
  EXPECT_TRUE(until([&] { return peer.db.mirror().markIsMissing(); }));
  hset(names, {"nameToId[vrf0]", "0"});
  publish(names);
  turn(500);
  EXPECT_EQ(map->nameToId().size(), 2000U);
  many[1] = "7";
  hset(names, many);
  server.ask("SET leaf|complete 1");  // told or not
  EXPECT_TRUE(until([&] { return map->nameToId("vrf0") == 7; }));
  settle({&peer});
  EXPECT_EQ(reactions.count, 1);
  EXPECT_TRUE(until(hasOwn));
  hset(config, {"cachingEnabled", "false"});
  publish(config);
  EXPECT_TRUE(until(hasOwn)) << "whoever writes it";
  server.ask("DEL leaf|agent/routecache/vrfIdMap");
  publish(idMap);
  EXPECT_TRUE(until(hasOwn));
  EXPECT_THAT(peer.told, SizeIs(6)) << "twice lost and found; not complete, complete";
}

// Whatever has come of an answer by then.
TEST_F(RedisStateDbTest, ConnectionsThatAreCutCostNothingButTime) {
  const auto seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 chance(seed);
  const TemporaryDirectory directory;
  CuttingProxy proxy(directory.path() + "/proxy", server.socket());
  std::vector<std::string> many;
  for (int i = 0; i < 1500; ++i) many.insert(many.end(), {"nameToId[vrf" + std::to_string(i) + "]", std::to_string(i)});
  hset(names, many);
  Peer peer(types, loop, "unix:" + directory.path() + "/proxy");
  const auto map = peer.nameMap();
  settle({&peer});
  NameReactions reactions(map);
  clock->speedIs(100);  // or it waits longer and longer for a server that does not get better
  std::string own;      // what an operator set last: once taken it is not lost with the connection
  for (unsigned i = 0; i < 300; ++i) {
    proxy.cutAfter(1 + static_cast<std::int64_t>(chance() % (i % 4 == 0 ? 200 : 60000)));
    try {
      peer.db.fieldIs(names, "nameToId[own]", std::to_string(i + 1));
      own = std::to_string(i + 1);
    } catch (const std::invalid_argument&) {
      // Out of reach.
    }
    hset(names, {"nameToId[cut]", std::to_string(i)});
    publish(i % 2 == 0 ? names : std::string(names) + " nameToId[cut]");
    if (i % 3 == 0) {
      turn(static_cast<int>(chance() % 10));
    } else {
      EXPECT_TRUE(until([&] { return map->nameToId("cut") == i; }));
    }
  }
  EXPECT_TRUE(until([&] { return map->nameToId("cut") == 299; }));
  settle({&peer});
  EXPECT_EQ(map->nameToId().size(), 1502U);
  EXPECT_EQ(stored(names)["nameToId[own]"], own);
  EXPECT_EQ(map->nameToId("own"), Platform::fromText<std::uint32_t>(own));
  EXPECT_LE(reactions.count, 600);
  EXPECT_GT(proxy.cuts(), 30U);
}

// Neither a line nor a question again and again.
TEST_F(RedisStateDbTest, AServerThatRefusesIsLeftAlone) {
  server.ask("REPLICAOF 127.0.0.1 1");
  Peer peer(types, loop, server.address());
  peer.caching()->cachingEnabledIs(true);
  EXPECT_TRUE(until([&] { return !peer.db.mirror().writeFault().empty(); }));
  turn(2000);
  EXPECT_LT(peer.db.mirror().readings(), 20U);
  EXPECT_LT(peer.told.size(), 20U);
  EXPECT_THAT(peer.told.front(), HasSubstr("READONLY"));
  server.ask("REPLICAOF NO ONE");
  EXPECT_TRUE(until([&] { return stored(config)["cachingEnabled"] == "true"; }));

  // One who may not read what he is there for.
  server.command({"ACL", "SETUSER", "u", "on", ">secret", "~other|*", "&*", "+@all"});
  Peer stranger(types, loop, server.address(), {"u", "secret"});
  stranger.nameMap();
  EXPECT_TRUE(until([&] { return stranger.db.mirror().session().openings() >= 3; }));
  EXPECT_THAT(stranger.db.mirror().session().fault() + stranger.told.front(), HasSubstr("NOPERM"));
  EXPECT_LE(stranger.told.size(), 3U);

  // And one who may not write: the change that was made here is undone, and who made it is told.
  server.command({"ACL", "SETUSER", "reader", "on", ">secret", "%R~*", "&*", "+@all"});
  Peer reader(types, loop, server.address(), {"reader", "secret"});
  const auto map = reader.nameMap();
  ASSERT_TRUE(until([&] { return reader.db.mirror().isSettled(); }));
  std::optional<std::string> fault;
  reader.db.fieldIs("vrf/vrfNameStatus", "nameToId[new]", "9");
  reader.db.whenTaken([&](const std::string& why) { fault = why; });
  EXPECT_EQ(fault, std::nullopt) << "before the server has answered";
  EXPECT_TRUE(until([&] { return fault && !map->nameToId("new"); }));
  EXPECT_THAT(fault.value_or(""), HasSubstr("NOPERM"));
  fault.reset();
  reader.db.whenTaken([&](const std::string& why) { fault = why; });
  EXPECT_EQ(fault, "") << "nothing is on its way";

  server.ask("CONFIG SET requirepass secret");
  Peer wrong(types, loop, server.address(), {"", "no"});
  Peer right(types, loop, server.address(), {"", "secret"});
  EXPECT_TRUE(until([&] { return right.db.mirror().session().isOpen() && !wrong.told.empty(); }));
  turn(1000);
  EXPECT_THAT(wrong.told, ElementsAre(HasSubstr("WRONGPASS")));
}

}  // namespace
