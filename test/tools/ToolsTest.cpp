// The commands `routecache rib`, `routecache fib` and `routecache table` as a person meets them, and what all commands
// make of bad input: real processes on a run directory.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <nlohmann/json.hpp>
#include <set>

#include "host/TableTypes.h"
#include "linux/tables/SharedTableService.h"
#include "linux/tables/TableFile.h"
#include "platform/tables/Rib.h"
#include "platform/values/Paths.h"
#include "simulator/routing/RibWriter.h"
#include "test/support/Command.h"
#include "test/support/TemporaryDirectory.h"
#include "tools/commandline/Commands.h"
#include "tools/commandline/Common.h"

namespace {

using nlohmann::json;
using std::string_literals::operator""s;  // NOLINT(misc-unused-using-decls): it does not see literals
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::EndsWith;
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

  // Of a load: routes that stood already, of these moved to another via, others written again; vias written, removed.
  static std::vector<int> cameTo(const json& summary) {
    std::vector<int> counts;
    for (const char* name : {"routesStood", "routesMoved", "routesRewritten", "viasWritten", "viasRemoved"}) {
      counts.push_back(summary[name].get<int>());
    }
    return counts;
  }

  const std::string v4 = Paths::ribRoutes;
  const std::string v6 = Paths::rib6Routes;
  const std::string vias = Paths::ribVias;
  const TemporaryDirectory directory;
  const std::string runDir = directory.path() + "/run";
};

// A sound scenario and some that are not; files that are none, and a pipe that nobody writes to.
class BadInputTest : public ToolsTest {
 protected:
  BadInputTest() {
    std::ifstream example(ROUTECACHE_EXAMPLES "/caching.json");
    const json caching = json::parse(example);
    scenario("sound", caching);
    scenario("uncached", changed(caching, "/routing~1hardware~1status/hwRouteCachingEnabled", false));
    scenario("huge", changed(caching, "/routecache~1capability/hwRouteTableSize", 268435456));
    scenario("mistaken", changed(caching, "/vrf~1vrfNameStatus/type", "RouteCache::CliConfig"));
    scenario("misspelt", changed(caching, "/vrf~1vrfNameStatus/nameToId/red", "two"));
    EXPECT_EQ(::mkfifo((directory.path() + "/pipe").c_str(), 0600), 0);
  }

  static json changed(json scenario, const char* where, const json& value) {
    scenario[json::json_pointer(where)] = value;
    return scenario;
  }
  void scenario(const std::string& name, const json& content) const {
    std::ofstream(directory.path() + "/" + name + ".json") << content;
  }
  // With $ for the test's directory.
  Outcome runThere(std::string arguments, const std::string& input = "", const char* outFile = nullptr) const {
    for (std::size_t at = 0; (at = arguments.find('$', at)) != std::string::npos; at += directory.path().size()) {
      arguments.replace(at, 1, directory.path());
    }
    return Command(arguments, input, outFile).wait();
  }
};

TEST_F(BadInputTest, IsOneLineAndExitCodeTwoAndLeavesNothing) {
  const std::string inDir = " --run-dir $/run";
  const std::string start = "run --agent " ROUTECACHE_AGENT + inDir + " --scenario $/";
  const std::string inProcess = "simulate --in-process --routes 300 --agent " ROUTECACHE_AGENT " --scenario $/";
  const struct {
    std::string arguments;  // without --run-dir, but for those that begin with "run" or "simulate"
    const char* input;
    std::string complaint;
  } cases[] = {
      {"rib load", "", "either a list of prefixes or --generate"},
      {"rib load - --generate 5", "", "either a list of prefixes or --generate"},
      {"rib load /nowhere/list", "", "/nowhere/list: No such file or directory"},
      {"rib load -", "10.0.0.0/8\nten/8\n", "standard input:2: 'ten/8' is not an IP prefix"},
      {"rib load --generate 99999999", "", "--generate: '99999999' is not a whole number from 1 to 4000000"},
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
      {"rib add 10.0.0.0/8 --vrf 1 --vtep 10.0.0.1 --via 0", "", "--via: '0' is not a whole number from 1 "},
      {"rib add 10.0.0.0/8 --vrf 1", "", "--vtep is required"},
      {"rib del 10.0.0.0/8", "", "rib del takes --vrf or --all"},
      {"rib del 10.0.0.0/8 --all", "", "--all leaves nothing to choose"},
      {"fib load --vrf red", "", "either a list of prefixes or --generate"},
      {"fib load - --vrf red", "10.0.0.0/8\nten/8\n", "standard input:2: 'ten/8' is not an IP prefix"},
      {"fib load --generate 5 --vrf red --capacity 4", "", "a capacity of 4 does not hold 5 entries"},
      {"fib add 10.0.0.0/8", "", "--vrf is required"},
      {"fib add 10.0.0.0/8 1::/129 --vrf red", "", "'1::/129' is not an IP prefix"},
      {"fib add 10.0.0.0/8 --vrf ''", "", "--vrf: it is given no value"},
      {"fib add 10.0.0.0/8 --vrf red --type 256", "", "--type"},
      {"fib del 10.0.0.0/8", "", "fib del takes --vrf or --all"},
      {"fib del --vrf red --all", "", "--all leaves nothing to choose"},
      {"table show", "", "PATH is required"},
      {"table show x --limit 0", "", "--limit"},
      {"rib load --generate 5 --via-base 18446744073709551615 --vteps 2", "", "--via-base: 2 keys"},
      {"rib load --generate 5 --capacity 268435457", "", "--capacity: '268435457' is not a whole number"},
      {"rib load $", "", ": Is a directory"},
      {"rib load $/pipe", "", "pipe: a pipe that nobody writes to"},
      {"rib load /dev/zero", "", "/dev/zero:1: a line over 65536 bytes"},
      {"fib load $/pipe --vrf red", "", "pipe: a pipe that nobody writes to"},
      {"fib add 10.0.0.0/8 --vrf \xff", "", "'?' is not a VRF name"},
      {"mow", "", "mow"},
      {"", "", "a subcommand is wanted"},
      {"run" + inDir, "", "--scenario or --state-db is wanted"},
      {start + "misspelt.json", "", "misspelt.json: vrf/vrfNameStatus.nameToId[red]: 'two' is not a number"},
      {start + "mistaken.json", "", "mistaken.json: vrf/vrfNameStatus.type: what stands here is always a "},
      {start + "huge.json", "", "huge.json: routecache/capability: hwRouteTableSize must be 1 to 268433408"},
      {start + "nowhere.json", "", "nowhere.json: No such file"},
      {start, "", ": Is a directory"},
      {start + "pipe", "", "pipe: a pipe that nobody writes to"},
      {"run --agent " ROUTECACHE_AGENT + inDir + " --scenario /dev/zero", "", "/dev/zero: more than "},
      {start + "sound.json --trace loud", "", "'loud'"},
      {start + "sound.json --name a/b", "", "--name: a file's name has no '/'"},
      {start + "sound.json --time-slice nan", "", "--time-slice: 'nan' is not a number from 0.01 to 1000"},
      {"simulate --in-process", "", "--scenario"},
      {"simulate --in-process --run-dir /tmp/x", "", "--run-dir"},
      {"simulate --scenario x.json", "", "--in-process"},
      {"simulate --policy levels", "", "--in-process"},
      {inProcess + "sound.json --policy best", "", "'best' is none of the cache policies: levels"},
      {inProcess + "uncached.json", "", "hwRouteCachingEnabled"},
      {inProcess + "pipe", "", "pipe: a pipe that nobody writes to"},
      {inProcess + "sound.json --within 10.0.0.0/24", "", "300"},
      {inProcess + "sound.json --within ten", "", "--within"},
      {inProcess + "sound.json --drift 2", "", "--drift"},
      {inProcess + "sound.json --set a/b c 1", "", "--set a/b c: nothing is at this path"},
      {inProcess + "sound.json --set routecache/cliconfig lowThresholdHwUtilPercentage 91", "",
       "--set routecache/cliconfig lowThresholdHwUtilPercentage: "},
      {inProcess + "sound.json --flows $/pipe", "", "pipe: a pipe that nobody writes to"},
      {"simulate --duration 0", "", "--duration"},
      {"simulate --out rows.txt", "", "--out"},
      {"simulate --flash-crowd 1:2:0.5", "", "--flash-crowd"},
      {"simulate --flash-crowd 1:nan:0.5:3", "", "flash crowd's duration"},
      {"simulate --flash-crowd 1:5:0.5:3 --flash-crowd 3:5:0.5:3", "", "must not overlap"},
      {"simulate --scan-attack soon:fast", "", "--scan-attack"},
      {"simulate --scan-attack 1:inf", "", "scan's rate"},
      {"simulate --flows x.csv --exponent 1", "", "--exponent"},
      {"simulate --flows /dev/zero" + inDir, "", "/dev/zero:1: a line over 65536 bytes"},
      {"simulate --flows $" + inDir, "", ": Is a directory"},
      {"simulate --rate 1e9 --tick 10" + inDir, "", "--rate: over 1e+08 packets"},
      {"get vrf/vrfNameStatus nameToId[\xff]", "", "'nameToId[?]' is not UTF-8"},
      {"show routes --vrf \xff", "", "'?' is not a VRF name"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.arguments);
    const bool complete = c.arguments.empty() || c.arguments.starts_with("run") ||
                          c.arguments.starts_with("simulate") || c.arguments == "mow";
    const Outcome result = runThere(c.arguments + (complete ? "" : inDir), c.input);
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_THAT(result.err, AllOf(StartsWith("routecache: "), HasSubstr(c.complaint)));
    EXPECT_TRUE(result.isOneComplaint()) << result.out << result.err;
    EXPECT_THAT(LinuxPlatform::tableFiles(runDir), IsEmpty()) << "it reached a table";
    EXPECT_TRUE(!c.arguments.starts_with("run") || !std::filesystem::exists(runDir)) << "it left something behind";
    std::filesystem::remove_all(runDir);
  }
}

// Every option of every command, so that the next one cannot be forgotten.
TEST_F(BadInputTest, NoOptionTakesANumberThatIsNoneNorNothingAtAll) {
  CLI::App app;
  Tools::ToolContext context;
  Tools::addCommands(app, context);
  const auto takes = [](CLI::Option& option, const std::string& text) {
    option.clear();
    option.add_result(text);
    try {
      option.run_callback();
      return true;
    } catch (const CLI::Error&) {
      return false;
    }
  };
  int numbers = 0;
  const std::function<void(const CLI::App&)> look = [&](const CLI::App& command) {
    for (CLI::Option* option : const_cast<CLI::App&>(command).get_options()) {
      if (option->get_positional() || option->get_items_expected_max() == 0) continue;
      SCOPED_TRACE(command.get_name() + " " + option->get_name());
      EXPECT_FALSE(takes(*option, ""));
      if (takes(*option, "x")) continue;
      ++numbers;
      for (const char* text : {"nan", "-nan", "inf", "-inf", "-1", "1e308", "99999999999999999999", "0x", "1 "}) {
        EXPECT_FALSE(takes(*option, text)) << text;
      }
    }
    for (const CLI::App* next : command.get_subcommands([](const CLI::App*) { return true; })) {
      if (!next->get_group().empty()) look(*next);
    }
  };
  look(app);
  EXPECT_GE(numbers, 30);
}

TEST_F(BadInputTest, WhatCannotBeOpenedOrPrintedIsExitCodeOne) {
  Command agent("run --scenario " + directory.path() + "/sound.json --trace 5 --agent " ROUTECACHE_AGENT +
                inRunDir(""));
  ASSERT_TRUE(agent.says("ready: "));
  std::string trace;
  for (const auto& file : std::filesystem::directory_iterator(runDir)) {
    if (file.path().extension() == ".zph") trace = file.path().string();
  }
  const std::string inProcess =
      "simulate --in-process --routes 300 --duration 2 --agent " ROUTECACHE_AGENT " --scenario $/";
  for (const char* file : {"$", "$/pipe", "/dev/zero"}) {
    SCOPED_TRACE(file);
    for (const std::string& arguments :
         {std::string("trace ") + file, "run --run-dir $/other --scenario $/sound.json --agent " + std::string(file)}) {
      const Outcome result = runThere(arguments);
      EXPECT_EQ(result.exitCode, 1) << arguments;
      EXPECT_TRUE(result.isOneComplaint()) << result.out << result.err;
    }
  }
  for (const char* arguments : {"table list --run-dir /dev/zero", "table list --run-dir $/nowhere",
                                "table list --json --run-dir $/nowhere", "tasks --run-dir $/nowhere"}) {
    const Outcome result = runThere(arguments);
    EXPECT_EQ(result.exitCode, 1) << arguments << ": an empty list would be no answer";
    EXPECT_TRUE(result.isOneComplaint()) << result.out << result.err;
  }
  std::filesystem::create_symlink(directory.path() + "/pipe", directory.path() + "/pipe.csv");
  std::filesystem::create_symlink("/dev/full", directory.path() + "/full.csv");
  EXPECT_THAT(runThere(inProcess + "sound.json --out $/pipe.csv").err, HasSubstr("a pipe that nobody reads"));
  EXPECT_THAT(runThere(inProcess + "sound.json --out $/full.csv").err, HasSubstr("No space left on device"));

  run("rib add 10.0.0.0/8 --vrf 1 --vtep 10.255.0.1");
  for (const std::string& arguments : {"--help"s,
                                       "show --help"s,
                                       "completion bash"s,
                                       inRunDir("rib add 11.0.0.0/8 --vrf 1 --vtep 10.255.0.1"),
                                       inRunDir("fib add 11.0.0.0/8 --vrf red"),
                                       inRunDir("table list"),
                                       inRunDir("table list --json"),
                                       inRunDir("table show " + v4),
                                       inRunDir("table show " + v4 + " --json"),
                                       inRunDir("table show " + v4 + " 10.0.0.0/8@1"),
                                       inRunDir("table watch " + v4 + " --json"),
                                       inRunDir("get"),
                                       inRunDir("get --json"),
                                       inRunDir("get vrf/vrfNameStatus"),
                                       inRunDir("tasks"),
                                       inRunDir("tasks --json"),
                                       inRunDir("show summary"),
                                       inRunDir("show threshold --json"),
                                       "trace " + trace + " --agent " ROUTECACHE_AGENT,
                                       inProcess + "sound.json",
                                       "run --run-dir $/third --scenario $/sound.json --agent " ROUTECACHE_AGENT ""s}) {
    SCOPED_TRACE(arguments);
    const Outcome result = runThere(arguments, "", "/dev/full");
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.err, "routecache: standard output: No space left on device\n");
  }
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

  EXPECT_EQ(runJson("rib load --generate 2000 --vrfs 1")["routes"], 2000) << "the table grows";
}

TEST_F(ToolsTest, ALoadTakesNothingFromAnother) {
  const std::string list = "10.0.0.0/8\n10.1.0.0/16\n10.2.0.0/16\n10.3.0.0/16\n";
  const std::string load = "rib load - --vteps 3 --paths 2 --nexthop-sets 3 --vrfs ";
  run("rib add 9.0.0.0/8 --vrf 1 --vtep 10.255.0.1,10.255.0.9 --via 2");
  const json others = viaOf("9.0.0.0/8@1");
  EXPECT_THAT(cameTo(runJson(load + "1-2 --vni 5000", list)), ElementsAre(0, 0, 0, 3, 0));
  EXPECT_THAT(keys(vias), ElementsAre("1", "2", "3", "4")) << "the lowest that are free";
  const json first = viaOf("10.0.0.0/8@1");
  EXPECT_THAT(cameTo(runJson(load + "3 --vni 7000", list)), ElementsAre(0, 0, 0, 3, 0));
  EXPECT_EQ(viaOf("9.0.0.0/8@1"), others);
  EXPECT_EQ(viaOf("10.0.0.0/8@1"), first);

  // The same again needs no room and no via.
  EXPECT_THAT(cameTo(runJson(load + "1-2 --vni 5000 --capacity 9", list)), ElementsAre(4, 0, 0, 0, 0));
  EXPECT_EQ(keys(vias).size(), 7U);
  // Led elsewhere, the routes leave their vias behind.
  EXPECT_THAT(cameTo(runJson(load + "1-2 --vlan 9", list)), ElementsAre(4, 4, 0, 3, 3));
  EXPECT_EQ(keys(vias).size(), 7U);
  // Under keys that are named, vias change in place, and the routes that others gave them are written again.
  EXPECT_THAT(cameTo(runJson(load + "4 --vni 8000 --via-base 2", list)), ElementsAre(0, 0, 1, 3, 0));
  EXPECT_THAT(viaOf("9.0.0.0/8@1")["nexthops"].get<std::string>(), HasSubstr("'vni': 8000"));
  EXPECT_THAT(run(load + "1-2 --vlan 9", list).out, HasSubstr("4 of the routes stood already"));

  // Vias that a load wrote before it was killed are taken by the next one like it, or go.
  const Platform::TableTypes types = Tools::allTableTypes();
  {
    LinuxPlatform::SharedTableService tables(runDir, types);
    Tools::RibWriter rib(tables, [] {});
    Tools::RibChange change;
    change.vias = {Routing::Rib::RouteCache::Evpn::Via(99, {})};
    rib.apply(change);
    EXPECT_EQ(rib.viaKeysFor(std::vector<Tools::RibWriter::Nexthops>(1)).front(), 99U);
    change.vias = {Routing::Rib::RouteCache::Evpn::Via(2, {})};
    change.changesVias = false;
    EXPECT_THROW(rib.apply(change), std::runtime_error) << "somebody has taken the key meanwhile";
  }
  EXPECT_THAT(keys(vias), testing::Contains("99"));
  run("rib del 9.0.0.0/8 --vrf 1");
  EXPECT_THAT(keys(vias), testing::Not(testing::Contains("99")));
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

TEST_F(ToolsTest, ATableIsCheckedAndCountedBesideItsWriterAndAfterIt) {
  run("rib load --generate 300 --vrfs 1-3");
  const Platform::TableTypes types = Tools::allTableTypes();
  LinuxPlatform::SharedTableService tables(runDir, types);
  tables.mount(v4, "Routing::Rib::RouteConfig", Pondra::MountKind::writer, Pondra::CollectionInfo{"route", 400});
  EXPECT_EQ(run("table check " + v4).out, v4 + ": 300 whole entries, sound\n");
  const json shape = runJson("table stat " + v4);
  EXPECT_EQ(shape["entries"], 300);
  EXPECT_EQ(shape["slots"]["count"], 400);
  EXPECT_LE(shape["bytesInUse"], shape["bytesOnDisk"]);
  EXPECT_THAT(run("table stat " + v4).out, HasSubstr("  entries     300 of 400\n"));

  // A copy, with one bit of an entry and one of an index line flipped.
  const std::string copy = directory.path() + "/copy.table";
  std::filesystem::copy_file(runDir + "/tables/" + LinuxPlatform::tableFileName(v4) + ".table", copy);
  const LinuxPlatform::TableGeometry geometry(Pondra::layoutOf<Routing::Rib::RouteConfig>(), 400);
  for (const std::size_t at : {geometry.slotPlaces.at(7) + 9, geometry.bucketLines + 64 * 3 + 1}) {
    std::fstream file(copy, std::ios::in | std::ios::out | std::ios::binary);
    file.seekg(static_cast<std::streamoff>(at));
    const int byte = file.get();
    file.seekp(static_cast<std::streamoff>(at));
    file.put(static_cast<char>(byte ^ 16));
  }
  const Outcome damaged = run("table check " + copy);
  EXPECT_EQ(damaged.exitCode, 1);
  EXPECT_THAT(damaged.out, HasSubstr(": slot 7 holds a damaged entry\n"));
  EXPECT_THAT(damaged.out, HasSubstr(": line 3 of the hash index is damaged\n"));
  EXPECT_THAT(damaged.out, EndsWith(": 299 whole entries\n"));
  EXPECT_EQ(json::parse(run("table check --json " + copy).out)["sound"], false);
  EXPECT_THAT(run("table check nowhere").err, HasSubstr("there is no table nowhere in"));
  std::ofstream(copy) << "no table";
  EXPECT_THAT(run("table stat " + copy).err, HasSubstr("too short for a table"));
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
    json listed = row(v4);
    EXPECT_GT(listed["generation"], 0);
    listed.erase("generation");
    EXPECT_EQ(listed, json({{"path", v4},
                            {"type", "Routing::Rib::RouteConfig"},
                            {"entries", 0},
                            {"capacity", 77},
                            {"writer", true},
                            {"reconciled", false}}));
  }
  EXPECT_EQ(row(v4)["writer"], false);
  EXPECT_EQ(runJson("rib add 10.0.0.0/8 --vrf 1 --vtep 10.255.0.1")["routes"], 1);
  EXPECT_EQ(row(v4)["reconciled"], true);
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
