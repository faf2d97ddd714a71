// Hardware route caching with every part in a process of its own: the agent, those who write its inputs, the forwarding
// plane, and an operator who looks and changes.
#include <gmock/gmock.h>

#include <algorithm>
#include <csignal>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "RouteCache/RouteCache.h"
#include "test/support/Command.h"
#include "test/support/Eventually.h"
#include "test/support/TemporaryDirectory.h"

using nlohmann::json;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

constexpr std::uint64_t capacity = 500;
constexpr std::uint64_t configured = 3000;  // host routes
constexpr const char* hwRoutes = "routecache/route/hw/ipv4";
constexpr const char* hwHitBits = "hardware/routecache/status/ipv4";
constexpr const char* hwRouteSm = "agent/routecache/hwRouteSm";
constexpr const char* aLongTime = "3600";  // seconds: longer than any test waits

using Entries = std::map<std::string, json>;  // of a table, by key

std::set<std::string> keysOf(const Entries& entries) {
  std::set<std::string> keys;
  for (const auto& entry : entries) keys.insert(entry.first);
  return keys;
}

bool hasAll(const Entries& entries, const std::set<std::string>& keys) {
  return std::ranges::includes(keysOf(entries), keys);
}

class CachingProcessTest : public testing::Test {
 protected:
  // An agent whose hardware is filled up to the low level, half its capacity, with routes that nobody asked for.
  void SetUp() override {
    writeScenario();
    startAgent();
    scanIntervalIs("0.001");  // brings the first scan forward, and some more: there is nothing yet that they could age
    scanIntervalIs(aLongTime);
    for (const char* vrf : {"default", "red"}) expectDone("fib add 10.0.0.0/8 --vrf " + std::string(vrf));
    expectDone("rib load --generate " + std::to_string(configured) +
               " --within 10.0.0.0/8 --vrfs 1,2 --vteps 20 --vni 10010");
    ASSERT_TRUE(eventually([this] {
      return entries("routecache/route/sfe/ipv4").size() == configured && entries(hwRoutes).size() == capacity / 2 &&
             setting(hwRouteSm, "routeToProcess") == 0;
    }));
  }

  void startAgent() {
    agent.emplace("run --scenario " + scenario + " --agent " ROUTECACHE_AGENT + inRunDir);
    ASSERT_TRUE(agent->says("ready: "));
    expectDone("set agent/routecache/hwRouteSm routeProcessingIntervalDefer 0.25");
    scanIntervalIs(aLongTime);
  }
  // The forwarding plane with traffic, until it is stopped; its rows go to the file.
  std::string simulate(const std::string& traffic, const std::string& file) const {
    return "simulate --interval 0.5 --duration 3600 " + traffic + " --out " + file + inRunDir;
  }

  // --- As an operator ---
  Outcome run(const std::string& arguments) const { return Command(arguments + inRunDir).wait(); }
  void expectDone(const std::string& arguments) const {
    const Outcome outcome = run(arguments);
    EXPECT_EQ(outcome.exitCode, 0) << arguments << ": " << outcome.err;
  }
  std::uint64_t setting(const std::string& path, const std::string& name) const {
    return std::stoull(run("get " + path + " " + name).out);
  }
  void scanIntervalIs(const std::string& seconds) const {
    expectDone("set agent/routecache/hwRouteSm hwHitbitScanInterval " + seconds);
  }
  void levelIs(const std::string& level, const std::string& percent) const {
    expectDone("set routecache/cliconfig " + level + "ThresholdHwUtilPercentage " + percent);
  }
  // A table that is not there yet is empty.
  Entries entries(const std::string& path) const {
    const Outcome shown = run("table show " + path + " --json");
    Entries found;
    if (shown.exitCode != 0) return found;
    for (const auto& entry : json::parse(shown.out)) found[entry["key"]] = entry;
    return found;
  }
  std::uint64_t workDone(const std::string& task) const {
    for (const auto& row : json::parse(run("tasks --json").out)) {
      if (row["name"] == task) return std::stoull(row["workDone"].get<std::string>());
    }
    return 0;
  }
  // Takes away the configured route behind a published one, "PREFIX@HARDWARE VRF ID".
  void withdraw(const std::string& key) const {
    const auto at = key.find('@');
    expectDone("rib del " + key.substr(0, at) + " --vrf " + (key.substr(at + 1) == "0" ? "1" : "2"));
  }
  // A key in the words of `table watch`.
  static std::string watched(const std::string& key) {
    return Platform::toText(Platform::fromText<RouteCache::Ipv4RouteVrfKey>(key));
  }
  static std::string removalOf(const std::string& key) { return json(watched(key)).dump() + ",\"removed\":true}"; }
  // The changes that a `table watch --json` has told by its end.
  static json changesOf(Command& watch) {
    const Outcome ended = watch.stop(SIGINT);
    EXPECT_EQ(ended.exitCode, 0) << ended.err;
    return json::parse(ended.out);
  }

  // --- What holds ---
  // Nothing may be at work but what comes to an end.
  void expectSpaceIsConserved() const {
    std::uint64_t left = 0;
    std::uint64_t used = 0;
    std::uint64_t published = 0;
    EXPECT_TRUE(eventually([&] {
      left = setting(hwRouteSm, "ipv4PrefixHwSpaceLeft");
      used = entries(hwRoutes).size();
      published = setting("routecache/config", "ipv4PrefixHwSpaceLeft");
      return left + used == capacity && published == left + setting(hwRouteSm, "hwSpaceBuffer");
    })) << used
        << " used, " << left << " left, " << published << " published";
  }
  void expectHitBitsOfHardwareRoutesOnly() const {
    EXPECT_TRUE(eventually([this] {
      const auto hits = keysOf(entries(hwHitBits));  // before the routes: what comes meanwhile does no harm
      return hasAll(entries(hwRoutes), hits);
    }));
  }
  // The rows that a simulator has written so far, whether it ended, runs or was killed.
  static std::vector<json> rowsIn(const std::string& file) {
    std::vector<json> rows;
    std::ifstream text(file);
    for (std::string line; std::getline(text, line);) {
      if (!line.starts_with("  {")) continue;
      const auto row = json::parse(line.substr(0, line.rfind('}') + 1), nullptr, false);
      if (!row.is_discarded()) rows.push_back(row);
    }
    return rows;
  }
  // The last row's, in per cent.
  static double hwShare(const std::string& file) {
    const auto rows = rowsIn(file);
    return rows.empty() || rows.back()["hwShare"].is_null() ? 0 : rows.back()["hwShare"].get<double>();
  }

  const TemporaryDirectory directory;
  const std::string scenario = directory.path() + "/caching.json";
  const std::string inRunDir = " --run-dir " + directory.path() + "/run";
  std::optional<Command> agent;

 private:
  void writeScenario() const {
    std::ifstream example(ROUTECACHE_EXAMPLES "/caching.json");
    auto caching = json::parse(example);
    caching["routecache/capability"]["hwRouteTableSize"] = capacity;
    caching["vrf/vrfNameStatus"]["nameToId"] = {{"default", 1}, {"red", 2}};
    caching["routecache/cliconfig"] = {{"lowThresholdHwUtilPercentage", 50},
                                       {"mediumThresholdHwUtilPercentage", 60},
                                       {"highThresholdHwUtilPercentage", 70},
                                       // However slow the machine is, what was hit does not become idle.
                                       {"lowThresholdIdleTime", 5100},
                                       {"mediumThresholdIdleTime", 5100},
                                       {"highThresholdIdleTime", 5100}};
    std::ofstream(scenario) << caching;
  }
};

TEST_F(CachingProcessTest, TrafficAndLevelsDecideWhatHardwareHolds) {
  levelIs("high", "95");
  levelIs("medium", "90");
  levelIs("low", "85");
  scanIntervalIs("0.25");
  const auto unasked = keysOf(entries(hwRoutes));

  // Traffic of a few destinations: what it meets in software goes to hardware, and below the level nothing leaves.
  const std::string file = directory.path() + "/rows.json";
  Command simulator(simulate("--rate 200 --exponent 2.5", file));
  ASSERT_TRUE(eventually([&] { return hwShare(file) >= 90; }));
  const auto scanned = workDone("hwHitbitScanTask");
  ASSERT_TRUE(eventually([&] { return workDone("hwHitbitScanTask") >= scanned + 4 * unasked.size(); }));
  EXPECT_EQ(setting(hwRouteSm, "aged"), 0);
  EXPECT_TRUE(hasAll(entries(hwRoutes), unasked));

  const Outcome refused = run("set routecache/cliconfig lowThresholdHwUtilPercentage 91");
  EXPECT_EQ(refused.exitCode, 2);
  EXPECT_TRUE(refused.isOneComplaint()) << refused.out << refused.err;
  EXPECT_THAT(refused.err, HasSubstr("must rise from low to high: 91, 90, 95"));
  EXPECT_EQ(setting("routecache/cliconfig", "lowThresholdHwUtilPercentage"), 85);

  // Lower levels: what nobody hits leaves, what is hit stays, and is still forwarded by hardware.
  const auto hit = keysOf(entries(hwHitBits));
  EXPECT_GE(hit.size(), 5);
  levelIs("low", "20");
  levelIs("medium", "30");
  levelIs("high", "40");
  ASSERT_TRUE(eventually([&] { return entries(hwRoutes).size() < capacity * 3 / 10; }));
  EXPECT_TRUE(hasAll(entries(hwRoutes), hit));
  const auto rows = rowsIn(file).size();
  ASSERT_TRUE(eventually([&] { return rowsIn(file).size() > rows + 1 && hwShare(file) >= 90; }));
  expectHitBitsOfHardwareRoutesOnly();

  EXPECT_EQ(simulator.stop(SIGTERM).exitCode, 0);
  std::ifstream text(file);
  const auto total = json::parse(text)["total"];
  EXPECT_GE(total["evictions"], unasked.size() - capacity * 3 / 10);
  scanIntervalIs(aLongTime);
  expectSpaceIsConserved();
}

TEST_F(CachingProcessTest, AKilledAgentTakesNoRouteOutOfHardware) {
  // More is hit than hardware holds.
  const std::string demand = "--rate 20000 --exponent 1.2";
  const std::string file = directory.path() + "/rows.json";
  scanIntervalIs("0.25");
  Command simulator(simulate(demand, file));
  ASSERT_TRUE(eventually([&] {
    return hwShare(file) >= 50 && entries(hwHitBits).size() >= capacity * 4 / 5 &&
           setting(hwRouteSm, "ipv4PrefixHwSpaceLeft") == 0;
  }));
  EXPECT_EQ(simulator.stop(SIGTERM).exitCode, 0);
  for (const auto& row : rowsIn(file)) EXPECT_LE(row["hwRoutes"], capacity);

  // The agent is killed at work: it ages what the traffic's end has left unhit.
  EXPECT_EQ(agent->stop(SIGKILL).exitCode, -SIGKILL);
  const Entries kept = entries(hwRoutes);
  EXPECT_GE(kept.size(), capacity * 4 / 5);
  Command watch("table watch " + std::string(hwRoutes) + " --json" + inRunDir);
  ASSERT_TRUE(watch.says("["));
  startAgent();
  ASSERT_TRUE(eventually([this] {
    return workDone("routeSyncTask") >= configured && workDone("hwRouteProcessingTask") >= configured;
  })) << "it has been through its own";
  const std::string withdrawn = kept.begin()->first;
  withdraw(withdrawn);
  ASSERT_TRUE(watch.says(removalOf(withdrawn)));
  EXPECT_TRUE(eventually([&] { return entries(hwRoutes).size() == capacity; })) << "software hits fill the room";
  Entries standing = kept;
  standing.erase(withdrawn);
  std::set<std::string> changed;
  for (const auto& change : changesOf(watch)) changed.insert(change["key"]);
  std::vector<json> touched;
  Entries now = entries(hwRoutes);
  for (const auto& [key, entry] : standing) {
    if (changed.contains(watched(key)) || now[key] != entry) touched.push_back(entry);
  }
  EXPECT_THAT(touched, IsEmpty());
  expectSpaceIsConserved();
}

}  // namespace
