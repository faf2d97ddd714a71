// An agent and the mirror of its routes, each a process that is killed and comes back, and the kernel of a network of
// the test's own between them; and the mirror's command at its edges.
#include <gmock/gmock.h>

#include <algorithm>
#include <csignal>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "test/support/Command.h"
#include "test/support/Eventually.h"
#include "test/support/OwnNetwork.h"
#include "test/support/TemporaryDirectory.h"

using nlohmann::json;
using testing::IsEmpty;

namespace {

constexpr const char* redTable = "1101";

class KernelProcessTest : public testing::Test {
 protected:
  void SetUp() override {
    if (!network.fault().empty()) GTEST_SKIP() << network.fault();
  }
  void startAgent() {
    agent.emplace("run --scenario " ROUTECACHE_EXAMPLES "/leaf.json --agent " ROUTECACHE_AGENT + inRunDir);
    ASSERT_TRUE(agent->says("ready: "));
  }
  void startMirror() {
    mirror.emplace("kernel --table hw --table-base 1000 --device vx" + inRunDir);
    ASSERT_TRUE(mirror->says("ready: "));
  }
  Outcome run(const std::string& arguments) const { return Command(arguments + inRunDir).wait(); }
  std::uint64_t figure(const char* name) const {
    const Outcome status = run("kernel --status --json");
    EXPECT_EQ(status.exitCode, 0) << status.err;
    return status.exitCode == 0 ? json::parse(status.out)[name].get<std::uint64_t>() : UINT64_MAX;
  }
  static std::size_t routesOf(const char* table) {
    const auto lines = OwnNetwork::ipOutput("-o route show table " + std::string(table));
    return static_cast<std::size_t>(std::ranges::count(lines, '\n'));
  }

  OwnNetwork network;
  const TemporaryDirectory directory;
  const std::string inRunDir = " --run-dir " + directory.path() + "/run";
  std::optional<Command> agent;
  std::optional<Command> mirror;
};

TEST_F(KernelProcessTest, RoutesStandWhoeverIsKilled) {
  startAgent();
  startMirror();
  EXPECT_EQ(run("rib load --generate 300 --within 10.0.0.0/8 --vrfs 2 --vteps 20 --vni 10010").exitCode, 0);
  EXPECT_EQ(run("rib add 2001:db8:1::/48 --vrf 2 --vtep 10.255.0.1,10.255.0.2 --vni 10010").exitCode, 0);
  ASSERT_TRUE(eventually([] { return routesOf(redTable) == 300; }));
  ASSERT_TRUE(eventually([] { return !OwnNetwork::ipOutput("-6 route show table " + std::string(redTable)).empty(); }));

  // What the kernel announces meanwhile; the last line is the test's own.
  Command monitor("monitor route", "", nullptr, "/sbin/ip");
  mirror->stop(SIGKILL);
  startMirror();
  ASSERT_TRUE(eventually([&] { return figure("comparisons") > 0 && figure("queued") == 0; }));
  EXPECT_EQ(figure("messagesSent"), 0U);
  EXPECT_EQ(figure("ipv4Routes"), 300U);
  agent->stop(SIGKILL);
  EXPECT_EQ(run("rib add 10.1.2.3/32 --vrf 2 --vtep 10.255.0.1 --vni 10010").exitCode, 0) << "while nobody is there";
  startAgent();
  ASSERT_TRUE(eventually([] { return routesOf(redTable) == 301; }));
  agent->stop(SIGKILL);
  mirror->stop(SIGKILL);
  startMirror();
  startAgent();
  EXPECT_EQ(run("rib del 10.1.2.3/32 --vrf 2").exitCode, 0);
  ASSERT_TRUE(eventually([] { return routesOf(redTable) == 300; }));
  ASSERT_TRUE(OwnNetwork::ip("route add blackhole 192.0.2.99/32 table 77"));
  ASSERT_TRUE(monitor.says("192.0.2.99"));
  for (const auto& line : linesOf(monitor.stop(SIGKILL).out)) {
    EXPECT_TRUE(line.find("proto 140") == std::string::npos || line.find("10.1.2.3") != std::string::npos) << line;
  }

  const Outcome second = run("kernel --table-base 1000");
  EXPECT_TRUE(second.exitCode == 1 && second.isOneComplaint()) << second.err;
  EXPECT_EQ(run("kernel --flush").exitCode, 1) << "a mirror would put it back";
  mirror->stop(SIGTERM);
  EXPECT_EQ(routesOf(redTable), 300U) << "its end takes nothing along";
  EXPECT_EQ(run("kernel --status").exitCode, 1);
  const Outcome flushed = run("kernel --flush --json");
  EXPECT_EQ(json::parse(flushed.out)["routes"], 301);
  EXPECT_EQ(routesOf(redTable), 0U);
  EXPECT_THAT(OwnNetwork::ipOutput("nexthop"), IsEmpty());
}

TEST_F(KernelProcessTest, WhatItCannotDoIsSaidAtOnce) {
  for (const char* misuse : {"",
                             "--table-base -1",
                             "--table-base nan",
                             "--table-base 4294967296",
                             "--table-base 1 --vni 10",
                             "--table-base 1 --vni 65536=1",
                             "--table-base 1 --vni 1=16777216",
                             "--table-base 1 --vni 1=2 --vni 1=3",
                             "--vrf-id 1=0",
                             "--vrf-id 1=255",
                             "--vrf-id 1=5 --vrf-id 2=5",
                             "--vrf-id 1=5 --vrf-id 1=6",
                             "--table-base 1 x",
                             "--table-base 1 --table foo",
                             "--table-base 1 --metric 0",
                             "--table-base 1 --compare-interval 0",
                             "--table-base 1 --compare-interval inf",
                             "--status --flush",
                             "--table-base 1 --json",
                             "--table-base 1 --device 0123456789abcdef",
                             "--table-base 1 --device ''"}) {
    const Outcome outcome = run("kernel " + std::string(misuse));
    EXPECT_EQ(outcome.exitCode, 2) << misuse << ": " << outcome.err;
    EXPECT_TRUE(outcome.isOneComplaint()) << misuse << ": " << outcome.err;
  }
}

}  // namespace
