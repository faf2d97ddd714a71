// The commands `routecache rib`, `routecache fib` and `routecache table`, as a person meets them: real processes on a
// run directory.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <fstream>
#include <nlohmann/json.hpp>
#include <set>

#include "linux/SharedTable.h"
#include "test/support/Command.h"
#include "test/support/TemporaryDirectory.h"
#include "tools/Common.h"
#include "tools/RibWriter.h"

namespace {

using nlohmann::json;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

class ToolsTest : public ::testing::Test {
 protected:
  std::string inRunDir(const std::string& arguments) const { return arguments + " --run-dir " + runDir; }
  Outcome run(const std::string& arguments, const std::string& input = "") const {
    return Command(inRunDir(arguments), input).wait();
  }
  json runJson(const std::string& arguments, const std::string& input = "") const {
    const Outcome result = run(arguments + " --json", input);
    EXPECT_EQ(result.exitCode, 0) << result.err;
    return json::parse(result.out, nullptr, false);
  }
  // The keys of a table in its order.
  std::vector<std::string> keys(const std::string& path, const std::string& arguments = "") const {
    std::vector<std::string> found;
    for (const auto& entry : runJson("table show " + path + " " + arguments)) {
      found.push_back(entry["key"].is_string() ? entry["key"].get<std::string>() : entry["key"].dump());
    }
    return found;
  }
  // The via that a route names.
  json viaOf(const std::string& key) const {
    const auto route = runJson("table show " + v4 + " " + key);
    return runJson("table show " + vias + " " + route["viaKey"].dump());
  }

  const std::string v4 = Tools::ipv4RoutePath;
  const std::string v6 = Tools::ipv6RoutePath;
  const std::string vias = Tools::viaPath;
  const TemporaryDirectory directory;
  const std::string runDir = directory.path() + "/run";
};

TEST_F(ToolsTest, MisuseIsOneLineAndExitCodeTwo) {
  const std::string bad = directory.path() + "/bad.json";
  std::ofstream(bad) << R"({"vrf/vrfNameStatus": {"nameToId": {"red": "two"}}})";
  const std::string leaf = " --agent " ROUTECACHE_AGENT " --scenario " ROUTECACHE_EXAMPLES "/leaf.json";
  const std::string caching = " --agent " ROUTECACHE_AGENT " --scenario " ROUTECACHE_EXAMPLES "/caching.json";
  ::setenv("ROUTECACHE_RUN_DIR", runDir.c_str(), 1);
  const struct {
    std::string arguments;
    const char* input;
    std::string complaint;
  } cases[] = {
      {"", "", "a subcommand is wanted"},
      {"mow", "", "mow"},
      {"run", "", "--scenario is required"},
      {"run --scenario " + bad, "", bad + ": vrf/vrfNameStatus.nameToId[red]: 'two' is not a number"},
      {"run --trace loud" + leaf, "", "'loud'"},
      {"run --time-slice 0" + leaf, "", "--time-slice"},
      {"simulate --in-process", "", "--scenario"},
      {"simulate --in-process --run-dir /tmp/x", "", "--run-dir"},
      {"simulate --scenario x.json", "", "--in-process"},
      {"simulate --in-process" + leaf, "", "hwRouteCachingEnabled"},
      {"simulate --in-process --routes 300 --within 10.0.0.0/24" + caching, "", "300"},
      {"simulate --in-process --within ten" + caching, "", "--within"},
      {"simulate --in-process --routes 10 --drift 2" + caching, "", "drift"},
      {"simulate --out rows.txt", "", "--out"},
      {"simulate --flash-crowd 1:2:0.5", "", "--flash-crowd"},
      {"simulate --scan-attack soon:fast", "", "--scan-attack"},
      {"simulate --flows x.csv --exponent 1", "", "--exponent"},
      {"simulate --duration 0", "", "--duration"},
      {"rib load", "", "either a list of prefixes or --generate"},
      {"rib load - --generate 5", "", "either a list of prefixes or --generate"},
      {"rib load /nowhere/list", "", "/nowhere/list: No such file or directory"},
      {"rib load -", "10.0.0.0/8\nten/8\n", "standard input:2: 'ten/8' is not an IP prefix"},
      {"rib load --generate 99999999", "", "at most 4000000 prefixes"},
      {"rib load --generate 5 --within 10.0.0.0/30", "", "10.0.0.0/30 holds 4 addresses, not 5"},
      {"rib load --generate 5 --within 10.0.0.0", "", "--within: '10.0.0.0' is not an IP prefix"},
      {"rib load - --within 10.0.0.0/8", "10.0.0.0/8\n", "--within goes with --generate"},
      {"rib load --generate 5 --vrfs 3-1", "", "--vrfs: the range '3-1' is empty"},
      {"rib load --generate 5 --vrfs 1,x", "", "--vrfs: 'x' is not a number"},
      {"rib load --generate 5 --vrfs 16777215", "", "--vrfs: a VRF id is at most 16777214"},
      {"rib load --generate 5 --vtep-base 10.0.0", "", "--vtep-base: '10.0.0' is not an IP address"},
      {"rib load --generate 5 --vteps 2 --paths 3", "", "3 paths need as many VTEPs"},
      {"rib load --generate 5 --vti interface9", "", "--vti: 'interface9' is not an interface name"},
      {"rib load --generate 5 --vni 16777216", "", "--vni: '16777216' is not a VNI"},
      {"rib load --generate 5 --capacity 4", "", "a capacity of 4 does not hold 5 entries"},
      {"rib load --generate 5 --capacity 0", "", "--capacity"},
      {"rib add 10.0.0.0/33 --vrf 1 --vtep 10.0.0.1", "", "'10.0.0.0/33' is not an IP prefix"},
      {"rib add 10.0.0.0/8 --vrf 1 --vtep 10.0.0.1,x", "", "--vtep: 'x' is not an IP address"},
      {"rib add 10.0.0.0/8 --vrf 1 --vtep 10.0.0.1 --via 0", "", "--via: 0 names no via"},
      {"rib add 10.0.0.0/8 --vrf 1", "", "--vtep is required"},
      {"rib del 10.0.0.0/8", "", "rib del takes --vrf or --all"},
      {"rib del 10.0.0.0/8 --all", "", "--all leaves nothing to choose"},
      {"fib load --vrf red", "", "either a list of prefixes or --generate"},
      {"fib load - --vrf red", "10.0.0.0/8\nten/8\n", "standard input:2: 'ten/8' is not an IP prefix"},
      {"fib load --generate 5 --vrf red --capacity 4", "", "a capacity of 4 does not hold 5 entries"},
      {"fib add 10.0.0.0/8", "", "--vrf is required"},
      {"fib add 10.0.0.0/8 1::/129 --vrf red", "", "'1::/129' is not an IP prefix"},
      {"fib add 10.0.0.0/8 --vrf ''", "", "--vrf: no VRF name"},
      {"fib add 10.0.0.0/8 --vrf red --type 256", "", "--type"},
      {"fib del 10.0.0.0/8", "", "fib del takes --vrf or --all"},
      {"fib del --vrf red --all", "", "--all leaves nothing to choose"},
      {"table show", "", "PATH is required"},
      {"table show x --limit 0", "", "--limit"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.arguments);
    const Outcome result = Command(c.arguments, c.input).wait();
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_THAT(result.err, StartsWith("routecache: "));
    EXPECT_THAT(result.err, HasSubstr(c.complaint));
    EXPECT_TRUE(result.isOneComplaint()) << result.out << result.err;
  }
  ::unsetenv("ROUTECACHE_RUN_DIR");
  EXPECT_THAT(runJson("table list"), IsEmpty()) << "nothing of all this reached a table";
}

TEST_F(ToolsTest, WhatCannotBeDoneIsExitCodeOne) {
  run("rib add 10.0.0.0/8 --vrf 1 --vtep 10.255.0.1");
  std::ofstream(runDir + "/tables/torn.table") << "no table";
  const struct {
    std::string arguments;
    const char* complaint;
  } cases[] = {
      {"table show no/such/table", "there is no table no/such/table in "},
      {"table watch no/such/table", "there is no table no/such/table in "},
      {"table show torn", "torn: the file is too short for a table"},
      {"table show " + v4 + " 10.0.0.0/8@2", "there is no entry 10.0.0.0/8@2"},
      {"rib del 10.0.0.0/8 11.0.0.0/8 12.0.0.0/8 --vrf 2", "there was no route 10.0.0.0/8@2, nor 2 others"},
      {"fib del 10.0.0.0/8 --vrf red", "there was no route 10.0.0.0/8"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.arguments);
    const Outcome result = run(c.arguments);
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_THAT(result.err, HasSubstr(c.complaint));
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
  }
  EXPECT_EQ(run("table show " + v4 + " ten").exitCode, 2) << "a key that is none is bad input";
}

TEST_F(ToolsTest, LoadSpreadsPrefixesOverVrfsAndNexthopSets) {
  const std::string list =
      "10.0.0.0/8\n10.1.0.0/16\n10.2.0.0/16 # again below\n2001:db8::/32\n10.3.0.0/16\n10.2.0.0/16\n";
  const json summary = runJson("rib load - --vrfs 5,1-2 --vteps 3 --paths 2 --nexthop-sets 3 --vni 5000", list);
  EXPECT_EQ(summary["routes"], 5);
  EXPECT_EQ(summary["ipv6Routes"], 1);
  EXPECT_EQ(summary["duplicates"], 1);
  EXPECT_EQ(summary["viasWritten"], 3);
  EXPECT_THAT(keys(v4), ElementsAre("10.0.0.0/8@1", "10.3.0.0/16@1", "10.1.0.0/16@2", "10.2.0.0/16@2"));
  EXPECT_THAT(keys(v6), ElementsAre("2001:db8::/32@5"));
  EXPECT_THAT(keys(vias), ElementsAre("1", "2", "3"));
  EXPECT_NE(viaOf("10.0.0.0/8@1"), viaOf("10.3.0.0/16@1")) << "a VRF meets more than one set";
  const std::string nexthops = viaOf("10.0.0.0/8@1")["nexthops"];
  EXPECT_THAT(nexthops, HasSubstr("'remoteVtep': 10.255.0.1, 'vti': Vxlan1, 'extendedVlanId': 0, 'vni': 5000, "
                                  "'routerMac': 02:00:0a:ff:00:01"));
  EXPECT_THAT(nexthops, HasSubstr("'remoteVtep': 10.255.0.2"));

  // The same again needs no room and changes no via; another VLAN changes them all in place.
  EXPECT_EQ(runJson("rib load - --vrfs 5,1-2 --vteps 3 --paths 2 --nexthop-sets 3 --vni 5000 --capacity 4", list)
                .at("viasWritten"),
            0);
  EXPECT_EQ(runJson("rib load - --vrfs 1,2,5 --vteps 3 --paths 2 --nexthop-sets 3 --vlan 9", list).at("viasWritten"),
            3);
  EXPECT_EQ(keys(v4).size(), 4U);
  EXPECT_EQ(runJson("rib load --generate 2000 --vrfs 1")["routes"], 2000) << "the table grows";
}

TEST_F(ToolsTest, ViasComeAndGoWithTheRoutesThatNameThem) {
  run("rib add 10.0.0.0/8 11.0.0.0/8 --vrf 7 --vtep 10.255.0.1");
  run("rib add 12.0.0.0/8 --vrf 7 --vtep 10.255.0.2");
  EXPECT_EQ(runJson("rib add 13.0.0.0/8 --vrf 8 --vtep 10.255.0.1")["viasWritten"], 0) << "an equal via is shared";
  EXPECT_THAT(keys(vias), ElementsAre("1", "2"));
  EXPECT_EQ(runJson("rib add 12.0.0.0/8 --vrf 7 --vtep 10.255.0.1")["viasRemoved"], 1) << "nobody names 2 any more";
  run("rib add 14.0.0.0/8 --vrf 7 --vtep 10.255.0.3");
  EXPECT_EQ(viaOf("14.0.0.0/8@7")["key"], 2) << "a free key is used again";

  EXPECT_EQ(runJson("rib del 10.0.0.0/8 --vrf 7")["viasRemoved"], 0);
  EXPECT_EQ(runJson("rib del --vrf 7")["viasRemoved"], 1);
  EXPECT_THAT(keys(v4), ElementsAre("13.0.0.0/8@8"));
  EXPECT_EQ(runJson("rib del --all"), json({{"routesRemoved", 1}, {"viasRemoved", 1}}));
  EXPECT_THAT(keys(vias), IsEmpty());
}

TEST_F(ToolsTest, FibRoutesHaveTheTypeOfTheirFamilyOrTheGivenOne) {
  const auto routes = [this](const std::string& path) {
    std::string text;
    for (const auto& entry : runJson("table show " + path)) {
      text += entry["key"].get<std::string>() + "=" + entry["routeType"].dump() + " ";
    }
    return text;
  };
  EXPECT_EQ(runJson("fib add 11.0.0.0/8 10.0.0.0/8 11.0.0.0/8 2001:db8::/32 --vrf a/b --capacity 2"),
            json({{"routes", 3}, {"ipv4Routes", 2}, {"ipv6Routes", 1}, {"duplicates", 1}}));
  EXPECT_EQ(routes("routing/vrf/status/a/b"), "10.0.0.0/8=40 11.0.0.0/8=40 ");
  EXPECT_EQ(routes("routing6/vrf/status/a/b"), "2001:db8::/32=27 ");
  run("fib add 10.0.0.0/8 2001:db8::/32 --vrf a/b --type 255");
  EXPECT_EQ(routes("routing/vrf/status/a/b") + routes("routing6/vrf/status/a/b"),
            "10.0.0.0/8=255 11.0.0.0/8=40 2001:db8::/32=255 ");

  EXPECT_EQ(runJson("fib load - --vrf default --type 0", "10.0.0.0/8\n\n10.0.0.0/8\n")["duplicates"], 1);
  EXPECT_EQ(routes("routing/status"), "10.0.0.0/8=0 ");
  EXPECT_EQ(runJson("fib load --generate 2000 --vrf default")["routes"], 2000) << "the table grows";
  EXPECT_EQ(runJson("fib load --generate 9 --within 2001:db8::/64 --vrf default")["ipv6Routes"], 9);

  EXPECT_EQ(runJson("fib del 11.0.0.0/8 --vrf a/b"), json({{"routesRemoved", 1}}));
  EXPECT_EQ(runJson("fib del --vrf default")["routesRemoved"], 2010);
  run("fib add 12.0.0.0/8 --vrf default");
  run("rib add 12.0.0.0/8 --vrf 1 --vtep 10.255.0.1");
  EXPECT_EQ(runJson("fib del --all")["routesRemoved"], 3);
  EXPECT_THAT(keys("routing/status"), IsEmpty());
  EXPECT_THAT(keys("routing6/vrf/status/a/b"), IsEmpty());
  EXPECT_EQ(keys(v4).size(), 1U) << "not the FIB's";
}

TEST_F(ToolsTest, FibTablesChangeTogetherOrNotAtAll) {
  run("fib add 10.0.0.0/8 1::/16 --vrf red");
  EXPECT_EQ(run("fib add 11.0.0.0/8 2::/16 3::/16 --vrf red --capacity 2").exitCode, 2) << "IPv4 has the room";
  const Platform::TableTypes types = Tools::allTableTypes();
  LinuxPlatform::SharedTableService other(runDir, types);
  other.mount("routing6/vrf/status/red", "Pondra::Fib6::RouteStatus", Pondra::MountKind::writer,
              Pondra::CollectionInfo{"route", 1024});
  for (const char* arguments : {"fib add 11.0.0.0/8 2::/16 --vrf red", "fib del --vrf red", "fib del --all"}) {
    SCOPED_TRACE(arguments);
    const Outcome refused = run(arguments);
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_THAT(refused.err, HasSubstr("routing6/vrf/status/red mount: another process is the table's writer"));
  }
  EXPECT_THAT(keys("routing/vrf/status/red"), ElementsAre("10.0.0.0/8"));
}

TEST_F(ToolsTest, ShowWalksInKeyOrderFromAnyKey) {
  run("rib load --generate 50 --vrfs 1-3");
  const std::vector<std::string> all = keys(v4);
  ASSERT_EQ(all.size(), 50U);
  EXPECT_THAT(keys(v4, "--from " + all[10] + " --limit 2"), ElementsAre(all[10], all[11]));
  EXPECT_THAT(keys(v4, "--from 0.0.0.0/0@4"), IsEmpty());
  const Outcome text = run("table show " + v4 + " --limit 2");
  EXPECT_EQ(std::count(text.out.begin(), text.out.end(), '\n'), 2);
  EXPECT_THAT(text.out, StartsWith("Value('Routing::Rib::Route', ** {'key': " + all[0]));
}

TEST_F(ToolsTest, AWriterAtWorkIsSeenAndRefusesASecondOne) {
  const Platform::TableTypes types = Tools::allTableTypes();
  const auto row = [&](const std::string& path) {
    for (const auto& table : runJson("table list")) {
      if (table["path"] == path) return table;
    }
    return json();
  };
  {
    LinuxPlatform::SharedTableService tables(runDir, types);
    tables.mount(v4, "Routing::Rib::RouteConfig", Pondra::MountKind::writer, Pondra::CollectionInfo{"route", 77});
    const Outcome second = run("rib add 10.0.0.0/8 --vrf 1 --vtep 10.255.0.1");
    EXPECT_EQ(second.exitCode, 1);
    EXPECT_THAT(second.err, HasSubstr(v4 + " mount: another process is the table's writer"));
    EXPECT_EQ(
        row(v4),
        json(
            {{"path", v4}, {"type", "Routing::Rib::RouteConfig"}, {"entries", 0}, {"capacity", 77}, {"writer", true}}));
  }
  EXPECT_EQ(row(v4)["writer"], false);
  EXPECT_EQ(runJson("rib add 10.0.0.0/8 --vrf 1 --vtep 10.255.0.1")["routes"], 1);
}

TEST_F(ToolsTest, WatchTellsOfARewrittenAnAddedAndARemovedRoute) {
  run("rib add 10.0.0.0/8 11.0.0.0/8 --vrf 7 --vtep 10.255.0.1 --via 5");
  Command watch(inRunDir("table watch " + v4 + " --json"));
  Command first(inRunDir("table watch " + v4 + " --json --count 1"));
  Command early(inRunDir("table watch " + v4 + " --json"));
  for (Command* each : {&watch, &first, &early}) ASSERT_TRUE(each->says("[")) << "from now on it hears of every change";
  EXPECT_EQ(json::parse(early.stop(SIGINT).out, nullptr, false), json::array()) << "it heard nothing";
  // The via changes under two routes that stand: they are written again, as they are.
  EXPECT_EQ(runJson("rib add 12.0.0.0/8 --vrf 7 --vtep 10.255.0.2 --via 5")["routesRewritten"], 2);
  run("rib del 11.0.0.0/8 --vrf 7");
  ASSERT_TRUE(watch.says("\"removed\":true}"));
  const Outcome watched = watch.stop(SIGINT);
  EXPECT_EQ(watched.exitCode, 0);
  const json changes = json::parse(watched.out, nullptr, false);
  std::set<std::string> changed;
  for (const auto& change : changes) changed.insert(change["key"].get<std::string>());
  EXPECT_THAT(changed, ElementsAre("10.0.0.0/8@7", "11.0.0.0/8@7", "12.0.0.0/8@7"));
  EXPECT_EQ(changes.back(), json({{"key", "11.0.0.0/8@7"}, {"removed", true}}));
  EXPECT_EQ(json::parse(first.wait().out, nullptr, false).size(), 1U);
}

}  // namespace
