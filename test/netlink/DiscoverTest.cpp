// A machine's links, addresses and routes as a switch's state: from messages, and in a network of the test's own with
// an agent that is killed and comes back.
#include <gmock/gmock.h>
#include <linux/if_bridge.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <csignal>
#include <fstream>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "netlink/discover/MachineMessages.h"
#include "netlink/discover/SwitchState.h"
#include "platform/state/Nexthop.h"
#include "platform/values/Paths.h"
#include "test/support/Command.h"
#include "test/support/Eventually.h"
#include "test/support/OwnNetwork.h"
#include "test/support/TemporaryDirectory.h"

namespace {

using namespace Netlink;
using nlohmann::json;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using Vxlan::Vni;

// --- Messages --------------------------------------------------------------------------------------------------------

const nlmsghdr& messageIn(const MessageBuffer& buffer) {
  Bytes rest = buffer.bytes();
  return *nextMessage(rest);
}

struct Tunnel {
  std::uint16_t vlan;
  std::uint32_t vni;
  std::uint16_t flags = 0;
};

MessageBuffer portWith(const std::vector<Tunnel>& tunnels, const std::vector<bridge_vlan_info>& vlans = {}) {
  MessageBuffer out;
  ifinfomsg header{};
  header.ifi_family = AF_BRIDGE;
  header.ifi_index = 7;
  out.messageBegins(RTM_NEWLINK, 0, 1, header);
  out.nestBegins(IFLA_AF_SPEC);
  for (const auto& vlan : vlans) out.addNumber(IFLA_BRIDGE_VLAN_INFO, vlan);
  for (const auto& tunnel : tunnels) {
    out.nestBegins(IFLA_BRIDGE_VLAN_TUNNEL_INFO);
    out.addNumber(IFLA_BRIDGE_VLAN_TUNNEL_ID, tunnel.vni);
    out.addNumber(IFLA_BRIDGE_VLAN_TUNNEL_VID, tunnel.vlan);
    out.addNumber(IFLA_BRIDGE_VLAN_TUNNEL_FLAGS, tunnel.flags);
    out.nestEnds();
  }
  out.nestEnds();
  out.messageEnds();
  return out;
}

TEST(DiscoverTest, ABridgesPortSaysWhichVniAVlanHas) {
  constexpr std::uint16_t begin = BRIDGE_VLAN_INFO_RANGE_BEGIN;
  constexpr std::uint16_t end = BRIDGE_VLAN_INFO_RANGE_END;
  const struct {
    const char* what;
    std::vector<Tunnel> tunnels;
    BridgePort::VlanToVni expected;
  } cases[] = {
      {"single ones", {{10, 10010}, {20, 10020}}, {{10, Vni(10010)}, {20, Vni(10020)}}},
      {"a range between",
       {{5, 7}, {10, 100, begin}, {12, 102, end}, {20, 1}},
       {{5, Vni(7)}, {10, Vni(100)}, {11, Vni(101)}, {12, Vni(102)}, {20, Vni(1)}}},
      {"an end without a beginning", {{12, 102, end}}, {{12, Vni(102)}}},
      {"a range that is backwards", {{12, 100, begin}, {10, 102, end}}, {{10, Vni(102)}}},
      {"up to the last VNI", {{1, Vni::max, begin}, {3, 0, end}}, {{1, Vni(Vni::max)}}},
      {"a VLAN that is none", {{4095, 1}}, {}},
  };
  for (const auto& c : cases) {
    const auto port = bridgePortIn(messageIn(portWith(c.tunnels)));
    ASSERT_TRUE(port) << c.what;
    EXPECT_EQ(port->index, 7U);
    EXPECT_EQ(port->tunnels, c.expected) << c.what;
    EXPECT_EQ(port->untaggedVlan, 0) << c.what;
  }
  const auto port = bridgePortIn(messageIn(portWith({}, {{0, 30}, {BRIDGE_VLAN_INFO_PVID, 40}})));
  EXPECT_EQ(port->untaggedVlan, 40);
}

// --- The state -------------------------------------------------------------------------------------------------------

std::vector<StateField> fieldsOf(const std::shared_ptr<Lattis::Entity>& wanted) {
  std::vector<StateField> fields;
  for (auto& change : differences(wanted, {})) fields.push_back({change.field, change.value});
  return fields;
}

std::string text(const std::vector<StateChange>& changes) {
  std::string text;
  for (const auto& change : changes) {
    text += (change.isDeleted ? "-" : "+") + change.field + (change.value ? "=" + *change.value : "") + " ";
  }
  return text;
}

TEST(DiscoverTest, WhatDiffersIsChangedAndNothingElse) {
  Survey survey;
  survey.tunnels["vx"] = {true, {{}, IpAddr(1), {}}, 0, {{10, Vni(10010)}}};
  survey.tunnels["vni7"] = {false, {Vni(7), {}, {}}, 0, {}};
  survey.loopback4 = IpAddr(2);
  std::vector<std::string> told;
  const auto stateOf = [&](const DiscoverSettings& settings) {
    return switchState(survey, settings, [&](const std::string& line) { told.push_back(line); });
  };
  const auto before = stateOf({});
  const auto held = fieldsOf(before.at(Paths::vtiStatusDir));
  EXPECT_EQ(text(differences(before.at(Paths::vtiStatusDir), held)), "");
  survey.tunnels.erase("vni7");
  survey.tunnels["vx"].isRunning = false;
  survey.tunnels["vx"].tunnels = {{20, Vni(10020)}};
  const auto after = stateOf({{{"red", 1001}}, {{20, Vni(5)}, {30, Vni(6)}}, {}, {}});
  EXPECT_EQ(text(differences(after.at(Paths::vtiStatusDir), held)),
            "-vtiStatus[vni7] -vtiStatus[vx].extendedVlanToVniMap[10] +vtiStatus[vx].operStatus=down "
            "+vtiStatus[vx].extendedVlanToVniMap[20]=10020 +vtiStatus[vx].extendedVlanToVniMap[30]=6 ");
  EXPECT_EQ(text(differences(after.at(Paths::hwRouteStatus), fieldsOf(before.at(Paths::hwRouteStatus)))),
            "+vrfStatus[red] +vrfStatus[red].hwVrfId=1001 ");
  EXPECT_EQ(text(differences(before.at(Paths::vrfNames), fieldsOf(after.at(Paths::vrfNames)))), "-nameToId[red] ");
  EXPECT_THAT(told, IsEmpty());
}

TEST(DiscoverTest, WhatCannotStandInASwitchIsLeftOutAndTold) {
  Survey survey;
  survey.tunnels["vxlan10010"] = {true, {Vni(10010), {}, {}}, 0, {}};
  survey.tunnels["vxlan100"] = {true, {Vni(100), {}, {}}, 40, {}};
  survey.vrfTables = {{"default", 30}, {"main", 254}, {"blue", 1001}, {"red", 7}, {"one", 1}};
  std::vector<std::string> told;
  const auto state =
      switchState(survey, {{{"red", 1001}}, {}, {}, {}}, [&](const std::string& line) { told.push_back(line); });
  EXPECT_THAT(told, ElementsAre(HasSubstr("blue"), HasSubstr("default"), HasSubstr("main"), HasSubstr("one"),
                                HasSubstr("vxlan10010")));
  EXPECT_EQ(text(differences(state.at(Paths::vrfNames), {})), "+nameToId[default]=1 +nameToId[red]=1001 ");
  EXPECT_THAT(text(differences(state.at(Paths::vtiStatusDir), {})),
              HasSubstr("vtiStatus[vxlan100].extendedVlanToVniMap[40]=100"));
}

// --- The process -----------------------------------------------------------------------------------------------------

class DiscoverProcessTest : public testing::Test {
 protected:
  void SetUp() override {
    if (!network.fault().empty()) GTEST_SKIP() << network.fault();
    for (const char* line :
         {"addr add 10.255.0.1/32 dev lo", "link add e0 type veth peer name e1", "link set e0 up", "link set e1 up",
          "addr add 10.0.0.1/30 dev e0", "link add f0 type veth peer name f1", "link set f0 up", "link set f1 up",
          "addr add 10.0.1.1/30 dev f0", "route add 10.255.0.2/32 nexthop via 10.0.0.2 nexthop via 10.0.1.2",
          "route add 10.255.0.3/32 via 10.0.0.2", "route add 10.255.0.4/32 via 10.0.0.2 metric 9",
          "route add 10.255.0.4/32 via 10.0.1.2 metric 10", "route add blackhole 10.255.0.5/32",
          "route add 10.9.0.0/16 via 10.0.0.2 table 1001"}) {
      ASSERT_TRUE(OwnNetwork::ip(line)) << line;
    }
  }
  void startAgent(const char* state) {
    agent.emplace(std::string("run --agent " ROUTECACHE_AGENT " --scenario ") + capability.path() + "/s.json " + state +
                  inRunDir);
    ASSERT_TRUE(agent->says("ready: "));
  }
  json entity(const char* path) const {
    const Outcome outcome = Command(std::string("get --json ") + path + inRunDir).wait();
    return outcome.exitCode == 0 ? json::parse(outcome.out) : json();
  }
  std::string fec(const char* prefix) const {
    const json routes = entity(Paths::underlayRoutes);
    return routes.contains("route") ? routes["route"].value(prefix, "") : "";
  }
  std::uint64_t figure(const char* name) const {
    const Outcome status = Command("discover --status --json" + inRunDir).wait();
    return status.exitCode == 0 ? json::parse(status.out)[name].get<std::uint64_t>() : UINT64_MAX;
  }

  OwnNetwork network;
  const TemporaryDirectory directory;
  const TemporaryDirectory capability;
  const std::string inRunDir = " --run-dir " + directory.path() + "/run";
  std::optional<Command> agent;
};

TEST_F(DiscoverProcessTest, TheStateIsTheMachinesWhoeverIsKilled) {
  {
    std::ofstream scenario(capability.path() + "/s.json");
    scenario << R"({"routecache/capability": {"hwRouteTableSize": 100}})";
  }
  std::optional<Command> discover;
  const auto startDiscover = [&] {
    discover.emplace("discover --vrf red=1001 --vni 10=10010" + inRunDir);
    ASSERT_TRUE(discover->says("ready: "));
  };
  startDiscover();
  ASSERT_TRUE(discover->complains("the agent in ")) << "there is none yet";
  startAgent("");
  ASSERT_TRUE(eventually([&] { return figure("kept") == 1; }));
  EXPECT_EQ(entity(Paths::vrfNames)["nameToId"], json({{"default", "1"}, {"red", "1001"}}));
  EXPECT_EQ(entity(Paths::hwRouteStatus)["vrfStatus"]["red"]["hwVrfId"], "1001");
  EXPECT_EQ(entity(Paths::vtiStatusDir)["vtiStatus"]["vx"], json({{"operStatus", "up"},
                                                                  {"ipv4Addr", "10.255.0.1"},
                                                                  {"ipv6Addr", "::"},
                                                                  {"extendedVlanToVniMap", {{"10", "10010"}}}}));
  const std::string both = fec("10.255.0.2/32");
  const std::string first = fec("10.255.0.3/32");
  EXPECT_TRUE(!both.empty() && !first.empty() && both != first) << both << " " << first;
  EXPECT_EQ(fec("10.255.0.4/32"), first) << "the lower metric";
  EXPECT_EQ(fec("10.255.0.5/32") + fec("10.9.0.0/16"), "");

  ASSERT_TRUE(OwnNetwork::ip("link set f1 down"));
  ASSERT_TRUE(eventually([&] { return fec("10.255.0.2/32") == first; })) << "the other leads nowhere";
  ASSERT_TRUE(OwnNetwork::ip("link set f1 up"));
  ASSERT_TRUE(eventually([&] { return fec("10.255.0.2/32") == both; }));
  ASSERT_TRUE(OwnNetwork::ip("link set vx down"));
  ASSERT_TRUE(eventually([&] { return entity(Paths::vtiStatusDir)["vtiStatus"]["vx"]["operStatus"] == "down"; }));

  agent->stop(SIGKILL);
  startAgent("--fresh");
  ASSERT_TRUE(eventually([&] { return fec("10.255.0.2/32") == both; })) << "it is told anew";
  discover->stop(SIGKILL);
  ASSERT_TRUE(OwnNetwork::ip("link set vx up"));
  ASSERT_TRUE(OwnNetwork::ip("route del 10.255.0.3/32"));
  startDiscover();
  ASSERT_TRUE(eventually([&] { return figure("kept") == 1; }));
  EXPECT_EQ(figure("changes"), 2U) << "what has changed meanwhile, and nothing else";
  EXPECT_EQ(fec("10.255.0.3/32"), "");
  const Outcome second = Command("discover" + inRunDir).wait();
  EXPECT_TRUE(second.exitCode == 1 && second.isOneComplaint()) << second.err;
}

TEST_F(DiscoverProcessTest, WhatItCannotDoIsSaidAtOnce) {
  for (const char* misuse : {"--vrf red",
                             "--vrf =5",
                             "--vrf red=x",
                             "--vrf red=254",
                             "--vrf red=0",
                             "--vrf red=1",
                             "--vrf red=7 --vrf blue=7",
                             "--vrf red=7 --vrf red=8",
                             "--vrf ''",
                             "--vni 10",
                             "--vni 0=5",
                             "--vni 10=16777216",
                             "--vni 1=2 --vni 1=3",
                             "--source x",
                             "--source 10.0.0.1 --source 10.0.0.2",
                             "--compare-interval nan",
                             "--compare-interval 0",
                             "--json",
                             "--switch x",
                             "extra"}) {
    const Outcome outcome = Command("discover " + std::string(misuse) + inRunDir).wait();
    EXPECT_EQ(outcome.exitCode, 2) << misuse << ": " << outcome.err;
    EXPECT_TRUE(outcome.isOneComplaint()) << misuse << ": " << outcome.err;
  }
}

}  // namespace
