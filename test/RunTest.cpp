// The launcher as a person meets it: a process of its own.
#include <gmock/gmock.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>

#include "test/support/Command.h"
#include "test/support/TemporaryDirectory.h"

using testing::HasSubstr;

namespace {

class RunTest : public testing::Test {
 protected:
  RunTest() {
    std::ofstream(scenario)
        << R"({"routecache/capability": {"hwRouteTableSize": 64, "sfeRouteTableSize": 64, "adjacencyTableSize": 64},
               "vrf/vrfNameStatus": {"nameToId": {"red": 2}}})";
  }

  // The VRF id that the running agent knows for red, as `routecache get` answers.
  Outcome redOfAgent() const { return Command("get vrf/vrfNameStatus nameToId[red]" + inRunDir).wait(); }

  const TemporaryDirectory directory;
  const std::string scenario = directory.path() + "/leaf.json";
  const std::string runDir = directory.path() + "/run";
  const std::string inRunDir = " --run-dir " + runDir;
  const std::string run = "run --scenario " + scenario + inRunDir + " --agent " ROUTECACHE_AGENT;
};

TEST_F(RunTest, OneAgentRunsAnswersAndStopsInOrder) {
  Command agent(run);
  ASSERT_TRUE(agent.says("ready: "));
  EXPECT_EQ(redOfAgent().out, "2\n");

  const Outcome second = Command(run).wait();
  EXPECT_THAT(second.err, HasSubstr("another agent runs in this directory"));
  EXPECT_EQ(second.exitCode, 1);
  EXPECT_EQ(redOfAgent().out, "2\n") << "it did no harm";

  EXPECT_EQ(agent.stop(SIGTERM).exitCode, 0);
  EXPECT_FALSE(std::filesystem::exists(runDir + "/control"));
}

TEST_F(RunTest, AKilledAgentLeavesRoomForTheNext) {
  Command killed(run);
  ASSERT_TRUE(killed.says("ready: "));
  EXPECT_EQ(killed.stop(SIGKILL).exitCode, -SIGKILL);
  const Outcome unanswered = redOfAgent();
  EXPECT_THAT(unanswered.err, HasSubstr("Connection refused"));
  EXPECT_EQ(unanswered.exitCode, 1);
  Command next(run);
  EXPECT_TRUE(next.says("ready: "));
}

}  // namespace
