// A running agent whose state lies in a Redis server, and what becomes of its routes when that server or the agent
// goes; and the commands at the edges of such a database.
#include <gmock/gmock.h>

#include <chrono>
#include <csignal>
#include <fstream>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <thread>

#include "test/support/Command.h"
#include "test/support/Eventually.h"
#include "test/support/RedisServer.h"

using nlohmann::json;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

constexpr const char* hwRoutes = "routecache/route/hw/ipv4";
constexpr const char* example = ROUTECACHE_EXAMPLES "/leaf.json";

class StateDbProcessTest : public testing::Test {
 protected:
  StateDbProcessTest() { fill(); }

  void fill() const { EXPECT_EQ(Command("statedb fill " + std::string(example) + atServer).wait().exitCode, 0); }
  void startAgent() {
    agent.emplace("run --state-db unix:" + proxySocket + " --switch leaf --agent " ROUTECACHE_AGENT + inRunDir);
    ASSERT_TRUE(agent->says("ready: "));
  }
  // A hundred configured routes of each VRF of these ids.
  void loadRoutes(const std::string& vrfs, int count) const {
    const Outcome outcome = Command("rib load --generate " + std::to_string(count) + " --within 10.0.0.0/8 --vrfs " +
                                    vrfs + " --vteps 20 --vni 10010" + inRunDir)
                                .wait();
    EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
  }
  std::set<std::string> published() const {
    const Outcome shown = Command("table show " + std::string(hwRoutes) + " --json" + inRunDir).wait();
    std::set<std::string> keys;
    if (shown.exitCode != 0) return keys;
    for (const auto& entry : json::parse(shown.out)) keys.insert(entry["key"]);
    return keys;
  }
  std::size_t publishedOf(const std::string& hwVrfId) const {
    std::size_t count = 0;
    for (const auto& key : published()) count += key.ends_with("@" + hwVrfId);
    return count;
  }
  void put(const std::string& path, const std::string& field, const std::string& value) const {
    server.command({"HSET", "leaf|" + path, field, value});
    server.command({"PUBLISH", "leaf", path + " " + field});
  }
  // The agent has heard of what others have written until now.
  bool isFollowed() {
    const std::string value = std::to_string(++mark);
    put("vrf/vrfNameStatus", "nameToId[mark]", value);
    return eventually(
        [&] { return Command("get vrf/vrfNameStatus nameToId[mark]" + inRunDir).wait().out == value + "\n"; });
  }
  // Keys that a `table watch --json` has seen go.
  static std::set<std::string> removalsIn(Command& watch) {
    std::set<std::string> keys;
    for (const auto& change : json::parse(watch.stop(SIGINT).out)) {
      if (change.contains("removed")) keys.insert(change["key"]);
    }
    return keys;
  }

  const TemporaryDirectory directory;
  const std::string inRunDir = " --run-dir " + directory.path() + "/run";
  const std::string proxySocket = directory.path() + "/proxy";
  RedisServer server;
  const std::string atServer = " --state-db " + server.address() + " --switch leaf";
  CuttingProxy proxy{proxySocket, server.socket()};
  std::optional<Command> agent;
  int mark = 1000;
};

TEST_F(StateDbProcessTest, WhateverHappensToTheServerRoutesStayWhoseStateDoes) {
  startAgent();
  loadRoutes("2-4", 300);
  ASSERT_TRUE(eventually([this] { return published().size() == 300; }));
  const auto before = published();
  Command watch("table watch " + std::string(hwRoutes) + " --json" + inRunDir);
  ASSERT_TRUE(watch.says("["));

  server.signal(SIGSTOP);
  const auto stopped = std::chrono::steady_clock::now();
  do {
    EXPECT_EQ(Command("get vrf/vrfNameStatus nameToId[red]" + inRunDir).wait().out, "2\n");
  } while (std::chrono::steady_clock::now() - stopped < std::chrono::seconds(3));
  Command waiting("set vrf/vrfNameStatus nameToId[kept] 77" + inRunDir);
  EXPECT_TRUE(
      eventually([&] { return Command("get vrf/vrfNameStatus nameToId[kept]" + inRunDir).wait().out == "77\n"; }));
  server.signal(SIGCONT);
  EXPECT_EQ(waiting.wait().exitCode, 0) << "answered when the server has it";
  EXPECT_TRUE(isFollowed());

  server.kill();
  EXPECT_TRUE(agent->complains("it is tried again and again"));
  server.start();
  EXPECT_TRUE(isFollowed()) << "with its data";

  server.kill();
  server.loseData();
  server.start();
  EXPECT_TRUE(agent->complains("is not complete"));
  EXPECT_EQ(published(), before);
  fill();
  EXPECT_TRUE(isFollowed()) << "filled anew";

  for (std::uint64_t i = 0; i < 3; ++i) {
    proxy.cutAfter(static_cast<std::int64_t>(5 + 11 * i));
    put("vrf/vrfNameStatus", "nameToId[mark]", "1");
    EXPECT_TRUE(eventually([&] { return proxy.cuts() > 2 * i; })) << "in what tells of a change";
    proxy.cutAfter(static_cast<std::int64_t>(100 + 300 * i));
    EXPECT_TRUE(eventually([&] { return proxy.cuts() > 2 * i + 1; })) << "in what is read afterwards";
    EXPECT_TRUE(isFollowed());
  }
  EXPECT_EQ(published(), before);

  // What does change is carried out, and nothing else.
  server.command({"HDEL", "leaf|routing/hardware/route/status", "vrfStatus[green].hwVrfId"});
  server.command({"PUBLISH", "leaf", "routing/hardware/route/status"});
  EXPECT_TRUE(eventually([this] { return publishedOf("103") == 0; }));
  EXPECT_EQ(published().size(), 200U);
  const auto removed = removalsIn(watch);
  EXPECT_EQ(removed.size(), 100U);
  for (const auto& key : removed) EXPECT_THAT(key, HasSubstr("103"));
  EXPECT_EQ(agent->stop(SIGTERM).exitCode, 0);
}

TEST_F(StateDbProcessTest, WhatWasSetJustBeforeTheAgentWasKilledIsThere) {
  startAgent();
  loadRoutes("2,11-13", 400);
  ASSERT_TRUE(eventually([this] { return published().size() == 100; }));
  Command watch("table watch " + std::string(hwRoutes) + " --json" + inRunDir);
  ASSERT_TRUE(watch.says("["));
  std::size_t routes = 100;
  for (const std::string id : {"11", "12", "13"}) {
    EXPECT_EQ(
        Command("set routing/hardware/route/status vrfStatus[v" + id + "].hwVrfId 1" + id + inRunDir).wait().exitCode,
        0);
    EXPECT_EQ(Command("set vrf/vrfNameStatus nameToId[v" + id + "] " + id + inRunDir).wait().exitCode, 0);
    EXPECT_EQ(agent->stop(SIGKILL).exitCode, -SIGKILL);
    EXPECT_EQ(server.hash("leaf|vrf/vrfNameStatus")["nameToId[v" + id + "]"], id) << "it was answered";
    startAgent();
    routes += 100;
    EXPECT_TRUE(eventually([&] { return published().size() == routes; })) << id;
  }
  EXPECT_TRUE(isFollowed());
  EXPECT_THAT(removalsIn(watch), IsEmpty());
}

TEST_F(StateDbProcessTest, CommandsSayInOneLineWhatIsWrong) {
  const auto expectComplaint = [](const std::string& command, int exitCode, const std::string& text) {
    SCOPED_TRACE(command);
    const Outcome outcome = Command(command).wait();
    EXPECT_EQ(outcome.exitCode, exitCode);
    EXPECT_TRUE(outcome.isOneComplaint()) << outcome.out << outcome.err;
    EXPECT_THAT(outcome.err, HasSubstr(text));
  };
  const std::string get = "get vrf/vrfNameStatus";
  const std::string set = "set vrf/vrfNameStatus nameToId[red]";
  for (const char* address : {"redis://x", "unix:redis.sock", "tcp://", "tcp://:6379", "tcp://h:0", "tcp://h:65536",
                              "tcp://h:1x", "tcp://[::1", "tcp://[::1]1", "tcp://u@h", "'tcp://a b'"}) {
    expectComplaint(get + " --state-db " + address, 2, "is not unix:/PATH or tcp://HOST:PORT");
  }
  expectComplaint(get + " --state-db unix:/nowhere", 1, "No such file");
  expectComplaint(get + " --state-db tcp://127.0.0.1:1", 1, "Connection refused");
  expectComplaint(get + atServer + "x", 1, "is not complete (routecache statedb fill");
  expectComplaint(get + " --state-db " + server.address() + " --switch 'a|b'", 2, "no name of a switch");
  expectComplaint("get no/path" + atServer, 2, "nothing is at the path");
  expectComplaint(get + " no" + atServer, 2, "has no field 'no'");
  expectComplaint(set + " x" + atServer, 2, "'x' is not a number");
  expectComplaint("set routecache/config cachingEnabled true" + atServer, 2, "is read only");
  expectComplaint("del vrf/vrfNameStatus nameToId[none]" + atServer, 2, "no entry");
  expectComplaint("get --watch" + atServer, 2, "--watch wants a PATH");
  expectComplaint("statedb fill /nowhere.json" + atServer, 2, "/nowhere.json");
  EXPECT_EQ(Command(get + atServer, "", "/dev/full").wait().exitCode, 1);

  // A look changes nothing: what the agent has put there is the agent's.
  put("routecache/config", "cachingEnabled", "true");
  EXPECT_EQ(Command("get routecache/config cachingEnabled" + atServer).wait().out, "true\n");
  EXPECT_EQ(server.hash("leaf|routecache/config")["cachingEnabled"], "true");

  Command watch(get + " --watch" + atServer);
  ASSERT_TRUE(watch.says("nameToId[red] = 2\n"));
  EXPECT_EQ(Command(set + " 7" + atServer).wait().exitCode, 0);
  EXPECT_TRUE(watch.says("nameToId[red] = 7\n"));
  EXPECT_EQ(Command("del vrf/vrfNameStatus nameToId[red]" + atServer).wait().exitCode, 0);
  EXPECT_TRUE(watch.says("nameToId[red] is gone\n"));

  server.ask("REPLICAOF 127.0.0.1 1");
  expectComplaint(set + " 8" + atServer, 1, "READONLY");
  expectComplaint("statedb fill " + std::string(example) + atServer, 1, "read only replica");
  server.ask("REPLICAOF NO ONE");

  server.signal(SIGSTOP);
  expectComplaint(get + atServer, 1, "no answer");
  server.signal(SIGCONT);

  const std::string file = directory.path() + "/password";
  const std::string withPassword = atServer + " --state-db-password-file " + file;
  server.ask("CONFIG SET requirepass secret");
  expectComplaint(get + atServer, 1, "NOAUTH");
  std::ofstream(file) << "wrong\n";
  expectComplaint(get + withPassword, 1, "WRONGPASS");
  std::ofstream(file) << "secret\n";
  EXPECT_EQ(Command(get + withPassword).wait().exitCode, 0);
  EXPECT_EQ(Command(get + withPassword + " --state-db-user default").wait().exitCode, 0);
  std::ofstream(file) << "\n";
  expectComplaint(get + withPassword, 2, "no password in its first line");
}

}  // namespace
