// The launcher as a person meets it: a process of its own.
#include <gmock/gmock.h>
#include <sys/resource.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>

#include "test/support/Command.h"
#include "test/support/Content.h"
#include "test/support/Eventually.h"
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

  std::filesystem::remove_all(runDir);
  Command hungUp(run + " --trace 9");  // its terminal has gone
  ASSERT_TRUE(hungUp.says("ready: "));
  EXPECT_EQ(hungUp.stop(SIGHUP).exitCode, 0);
  EXPECT_FALSE(std::filesystem::exists(runDir + "/control"));

  // All that it traced is in its file, also what came before the file.
  std::string traceFile;
  for (const auto& file : std::filesystem::directory_iterator(runDir)) {
    if (file.path().extension() == ".zph") traceFile = file.path();
  }
  const auto lines = linesOf(Command("trace " + traceFile).wait().out);
  ASSERT_GT(lines.size(), 4U);
  EXPECT_THAT(lines[0], HasSubstr(" 9 RouteCacheAgent: virtual void RouteCacheAgent::Agent::doInit()"));
  EXPECT_THAT(lines[1], HasSubstr(" 1 RouteCacheAgent: zphPrefix is: RouteCache-%d.zph"));
  EXPECT_THAT(lines[2], HasSubstr(" 9 RouteCacheAgent: virtual void RouteCacheAgent::Agent::doMountsComplete("
                                  "Lattis::MountStatus, const Ptr&)"));
  EXPECT_THAT(lines[3], HasSubstr(" 9 RouteCacheAgent: void RouteCacheAgent::Agent::startStateMachines()"));
}

// Whether the process was stopped or killed; and a file that was damaged since is told, and the one before goes on.
TEST_F(RunTest, WhatWasSetOutlivesTheAgent) {
  const auto set = [this](const std::string& id) {
    EXPECT_EQ(Command("set vrf/vrfNameStatus nameToId[red] " + id + inRunDir).wait().exitCode, 0);
  };
  const std::string state = runDir + "/state.json";
  const auto isKept = [&](const std::string& id) {
    return eventually([&] { return contentOf(state).find("\"" + id + "\"") != std::string::npos; });
  };
  {
    Command first(run);
    ASSERT_TRUE(first.says("state from " + scenario));
    ASSERT_TRUE(first.says("ready: "));
    set("3");
    EXPECT_EQ(first.stop(SIGTERM).exitCode, 0) << "what is not written yet is written now";
  }
  {
    Command stopped(run);
    ASSERT_TRUE(stopped.says("state from " + state));
    ASSERT_TRUE(stopped.says("ready: "));
    EXPECT_EQ(redOfAgent().out, "3\n");
    set("4");
    EXPECT_TRUE(isKept("4"));
    stopped.stop(SIGKILL);
  }
  std::filesystem::resize_file(state, 20);
  {
    Command damaged(run);
    ASSERT_TRUE(damaged.says("state from " + state + ".old"));
    ASSERT_TRUE(damaged.says("ready: "));
    EXPECT_EQ(redOfAgent().out, "3\n");
    const Outcome outcome = damaged.stop(SIGTERM);
    EXPECT_THAT(outcome.err, HasSubstr(state + ": line 2: "));
    EXPECT_THAT(outcome.err, HasSubstr("the content before that is used"));
  }
  for (const char* options : {" --fresh", ""}) {
    Command again(run + options);
    ASSERT_TRUE(again.says("state from " + scenario));
    ASSERT_TRUE(again.says("ready: "));
    EXPECT_EQ(redOfAgent().out, "2\n");
    EXPECT_EQ(again.stop(SIGTERM).exitCode, 0);
  }
}

// The disk is full, or somebody has put something in the way: the agent goes on, says so once, and writes when it can.
TEST_F(RunTest, WhatCannotBeKeptIsTold) {
  Command agent(run);
  ASSERT_TRUE(agent.says("ready: "));
  const std::string inTheWay = runDir + "/state.json.new";
  std::filesystem::create_directories(inTheWay + "/x");
  EXPECT_EQ(Command("set vrf/vrfNameStatus nameToId[red] 3" + inRunDir).wait().exitCode, 0);
  EXPECT_TRUE(agent.complains(inTheWay));
  EXPECT_FALSE(std::filesystem::exists(runDir + "/state.json"));
  std::filesystem::remove_all(inTheWay);
  EXPECT_TRUE(eventually([this] { return std::filesystem::exists(runDir + "/state.json"); }));
  const Outcome outcome = agent.stop(SIGTERM);
  EXPECT_EQ(linesOf(outcome.err).size(), 1U) << outcome.err;
}

TEST_F(RunTest, AFileThatMayNotGrowIsAnError) {
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
  rlimit small = before;
  small.rlim_cur = 4096;
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
  Command loading("rib add 10.0.0.0/8 --vrf 2 --vtep 10.255.0.1 --vni 10010" + inRunDir);
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
  const Outcome outcome = loading.wait();
  EXPECT_THAT(outcome.err, HasSubstr("File too large"));
  EXPECT_TRUE(outcome.isOneComplaint()) << outcome.err;
  EXPECT_EQ(outcome.exitCode, 1);
  for (const auto& file : std::filesystem::directory_iterator(runDir + "/tables")) {
    EXPECT_EQ(file.path().extension(), ".lock") << file.path();
  }
}

}  // namespace
