// `routecache simulate` as a person meets it.
#include <gmock/gmock.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <string>

#include "test/support/Command.h"
#include "test/support/Content.h"
#include "test/support/TemporaryDirectory.h"

namespace {

class SimulateTest : public testing::Test {
 protected:
  SimulateTest() {
    std::ifstream example(ROUTECACHE_EXAMPLES "/caching.json");
    auto caching = nlohmann::json::parse(example);
    caching["routecache/capability"]["hwRouteTableSize"] = 1000;
    std::ofstream(directory + "/small.json") << caching;
  }

  Outcome inProcess(const std::string& more) const {
    return Command("simulate --in-process --agent " ROUTECACHE_AGENT " --scenario " + directory +
                   "/small.json --routes 4000 " + more)
        .wait();
  }

  const TemporaryDirectory temporary;
  const std::string& directory = temporary.path();
};

TEST_F(SimulateTest, TheSameRunGivesTheSameBytes) {
  const std::string settings =
      "--duration 300 --interval 20 --hw-rate 500 --sfe-rate 1000 --drift 0.1 --flash-crowd 60:60:0.4:50 "
      "--scan-attack 200:300 --yardsticks --out " +
      directory;
  const Outcome first = inProcess(settings + "/first.json");
  const Outcome second = inProcess(settings + "/second.json");
  EXPECT_EQ(first.exitCode, 0) << first.err;
  EXPECT_EQ(first.out, second.out);
  EXPECT_EQ(contentOf(directory + "/first.json"), contentOf(directory + "/second.json"));
  EXPECT_NE(inProcess(settings + "/other.json --seed 2").out, first.out);

  const auto report = nlohmann::json::parse(contentOf(directory + "/first.json"));
  ASSERT_EQ(report["intervals"].size(), 15U);
  std::map<std::string, std::uint64_t> sums;
  for (const auto& row : report["intervals"]) {
    EXPECT_LE(row["hwRoutes"], 1000);
    for (const char* name : {"packets", "admissions", "evictions", "readmissions", "unroutable"}) {
      sums[name] += row[name].get<std::uint64_t>();
    }
  }
  for (const auto& [name, sum] : sums) EXPECT_EQ(report["total"][name], sum) << name;
  EXPECT_EQ(sums["packets"], 300U * 10'000 + 3600) << "the law's, and one for each of the cold nine tenths";
  EXPECT_EQ(sums["admissions"] - sums["evictions"], report["intervals"].back()["hwRoutes"]);
  for (const auto& yardstick : report["yardsticks"]) {
    EXPECT_EQ(yardstick["packets"], sums["packets"]);
    EXPECT_LE(yardstick["hwShare"], report["yardsticks"].back()["hwShare"]) << "nothing beats the optimum";
  }
  EXPECT_EQ(report["yardsticks"].size(), 3U);
}

TEST_F(SimulateTest, FlowsAreReplayedAndEndTheRun) {
  std::ofstream(directory + "/flows.csv")
      << "time,VRF,destination,packets\n0.5,red,192.0.2.1,3\n29.95,default,192.0.2.1,4\n";
  const Outcome run = inProcess("--flows " + directory + "/flows.csv --interval 20 --out " + directory + "/rows.csv");
  EXPECT_EQ(run.exitCode, 0) << run.err;
  EXPECT_EQ(contentOf(directory + "/rows.csv"),
            "time,packets,hwShare,hwRoutes,utilisation,admissions,evictions,readmissions,unroutable,sfeHitRoutes\n"
            "20.0,3,0.00,850,85.0,850,0,0,3,0\n"
            "30.0,4,0.00,850,85.0,0,0,0,4,0\n")
      << run.out;

  const Outcome other = inProcess("--flows " + directory +
                                  "/flows.csv --set routecache/cliconfig lowThresholdHwUtilPercentage 50 "
                                  "--set agent/routecache/hwRouteSm hwHitbitScanInterval 20");
  EXPECT_THAT(other.out, testing::HasSubstr(" 500         50.0 "))
      << "set before the first route was decided" << other.err;
}

TEST_F(SimulateTest, WaitsForAnAgentWithoutMakingItsDirectory) {
  const std::string runDir = directory + "/run";
  Command plane("simulate --duration 0.1 --interval 0.1 --run-dir " + runDir);
  ASSERT_TRUE(plane.complains("waiting for the agent's tables"));
  EXPECT_FALSE(std::filesystem::exists(runDir));
  Command agent("run --agent " ROUTECACHE_AGENT " --scenario " + directory + "/small.json --run-dir " + runDir);
  ASSERT_TRUE(agent.says("ready: "));
  EXPECT_TRUE(plane.complains("waiting for configured host routes"));
  Command("rib add 10.0.0.1/32 --vrf 1 --vtep 10.255.0.1 --run-dir " + runDir).wait();
  EXPECT_EQ(plane.wait().exitCode, 0);
  EXPECT_EQ(agent.stop(SIGTERM).exitCode, 0);
}

}  // namespace
