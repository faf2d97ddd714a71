// The show commands over a switch with real tables. What they print is compared with the files of test/golden/, one for
// each command and format. After a change that is meant, write them anew and read the difference:
//
//   ROUTECACHE_WRITE_GOLDEN=1 routecache_tests --gtest_filter='ShowCommandsTest.*'
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <functional>
#include <nlohmann/json.hpp>
#include <random>
#include <sstream>

#include "lib/control/CommandRenderer.h"
#include "test/support/Content.h"
#include "test/support/SimulatedSwitch.h"

using Agent::OutputFormat;
using testing::HasSubstr;
using testing::ThrowsMessage;
using Json = nlohmann::ordered_json;

namespace {

// The reader of one reply.
class Reader final : public Agent::CommandSocket {
 public:
  int number() const override { return 5; }
  Platform::Renderer& renderer(OutputFormat format) override {
    if (!renderer_) renderer_ = LinuxPlatform::rendererOf(format, out_);
    return *renderer_;
  }
  bool shouldYield() override { return wantsPause && wantsPause(); }

  const std::string& out() const { return out_; }
  std::string error() const { return renderer_->commandError().value_or(""); }
  std::function<bool()> wantsPause;

 private:
  std::string out_;
  std::unique_ptr<LinuxPlatform::CommandRenderer> renderer_;
};

struct Reply {
  std::string out;
  std::string error;
  unsigned calls = 0;
};

class ShowCommandsTest : public testing::Test {
 protected:
  RouteCacheAgent::CliCallbackWithFormat& callback() { return *sw.agent().cliCallbackWithFormat(); }

  std::shared_ptr<Agent::AgentAsyncCommandRequestSm> command(const std::string& text, OutputFormat format) {
    return callback().createAgentAsyncCommandRequestSm(std::make_shared<Agent::AgentCommandRequest>(text, format));
  }
  // Runs the command to its end; `between` its calls something may happen.
  Reply show(
      const std::string& text, OutputFormat format = OutputFormat::text, const std::function<void()>& between = [] {}) {
    const auto sm = command(text, format);
    Reader reader;
    reader.wantsPause = wantsPause;
    Reply reply;
    while (!sm->executionCompleted()) {
      if (reply.calls++ > 0) between();
      sm->handleAsyncCommand(reader, format);
    }
    reply.out = reader.out();
    reply.error = reader.error();
    return reply;
  }

  void expectGolden(const std::string& name, const std::string& text) {
    SCOPED_TRACE(text);
    expectFile(name + ".txt", show(text).out);
    const std::string json = show(text, OutputFormat::json).out;
    expectFile(name + ".json", json);
    EXPECT_FALSE(Json::parse(json, nullptr, false).is_discarded());
  }
  static void expectFile(const std::string& name, const std::string& text) {
    const std::string path = std::string(ROUTECACHE_GOLDEN) + "/" + name;
    EXPECT_EQ(text, contentOf(path)) << path;  // as it was: to write it anew is no way to pass
    if (std::getenv("ROUTECACHE_WRITE_GOLDEN") != nullptr) std::ofstream(path) << text;
  }
  // The replies of all commands, one behind the other.
  std::string allReplies() {
    std::string replies;
    for (const char* text :
         {"showRouteCacheThreshold", "showRouteCacheSummary", "showRouteCacheSummary#V", "showRouteCacheSummary#Vall",
          "showRouteCacheSummary#Vnone", "showRouteCacheVrf#Vdefault", "showRouteCacheVrfV6#Vdefault",
          "showRouteCacheVrf#Vred", "showRouteCacheVrfV6#Vred", "showRouteCacheVrf#Vred#P10.0.0.0/24"}) {
      replies += show(text).out + show(text, OutputFormat::json).out;
    }
    return replies;
  }

  // Three VRFs; "green" has no hardware id yet. Two VLANs with a VNI; no underlay route for 192.0.2.1.
  void plug(bool caching) {
    sw.hwRouteCaching(caching);
    sw.vrf("default", 1, 0);
    sw.vrf("red", 2, 7);
    sw.vrf("blue", 3, 8);
    sw.piVrf("green", 4);
    sw.vti("Vxlan1", "10.255.255.254", "2001:db8:ff::fe");
    sw.vlan("Vxlan1", 10, 10010);
    sw.vlan("Vxlan1", 20, 10020);
    sw.underlay("10.255.0.0/16", 5);
    sw.underlay("2001:db8:ff::/48", 6);
    sw.via(1, {SimulatedSwitch::nexthop("10.255.0.1")});
    sw.via(2, {SimulatedSwitch::nexthop("10.255.0.2"), SimulatedSwitch::nexthop("10.255.0.3", "Vxlan1", 10020),
               SimulatedSwitch::nexthop("10.255.0.4", "Vxlan1", 0, 30, "00:1c:73:00:00:30")});
    sw.via(3, {SimulatedSwitch::nexthop("2001:db8:ff::3"), SimulatedSwitch::nexthop("10.255.0.5"),
               SimulatedSwitch::nexthop("2001:db8:ff::4")});
    sw.via(4, {SimulatedSwitch::nexthop("192.0.2.1")});
    sw.via(5, {SimulatedSwitch::nexthop("2001:db8:ff::5")});
  }
  void configure(std::uint32_t piVrfId, const std::vector<std::pair<const char*, std::uint64_t>>& routes) {
    for (const auto& [prefix, via] : routes) sw.route(prefix, piVrfId, via);
  }
  // Everything that the golden files show, with hardware route caching off. The table is changed behind the back of the
  // state machine that takes care of it, which has no run from then on.
  void plugAndConfigure() {
    plug(false);
    configure(1, {{"0.0.0.0/0", 1}, {"10.9.0.0/16", 1}, {"::/0", 5}});
    configure(2, {{"10.0.0.0/8", 1}, {"10.0.0.0/24", 2}, {"10.1.0.0/16", 3}, {"10.2.0.0/16", 4}, {"10.3.0.0/16", 9}});
    configure(2, {{"2001:db8::/32", 5}, {"2001:db8:1::/48", 3}, {"2001:db8:2::/48", 1}});
    configure(3, {{"10.0.0.0/24", 1}});
    configure(4, {{"10.4.0.0/16", 1}});
    sw.start();
    sw.advance(10);
    sw.checkEveryRunIs(false);
    sw.hwRoute("10.5.0.0/16", 7, RouteCache::AdjId(99), false);
  }

  SimulatedSwitch sw;
  std::function<bool()> wantsPause;
};

TEST_F(ShowCommandsTest, ThresholdsAreThoseInForceOrThoseThatWouldBe) {
  for (const bool caching : {true, false}) {
    sw.stop();
    plug(caching);
    sw.start();
    sw.advance(1);
    expectGolden("threshold", "showRouteCacheThreshold");
    const auto config = sw.entity<RouteCache::CliConfig>("routecache/cliconfig", "RouteCache::CliConfig");
    config->highThresholdIdleTimeIs(30);  // acts as 20: the idle clock's steps
    config->highThresholdHwUtilPercentageIs(99);
    expectGolden("threshold-configured", "showRouteCacheThreshold");
    config->highThresholdIdleTimeIs(100);
    config->highThresholdHwUtilPercentageIs(95);
  }
}

TEST_F(ShowCommandsTest, SummaryCountsByVrfAndAltogether) {
  plug(true);
  sw.capability(3, 100, 100);
  configure(1, {{"0.0.0.0/0", 1}, {"10.9.0.0/16", 1}, {"::/0", 5}});
  configure(2, {{"10.0.0.0/8", 1}, {"10.0.0.0/24", 2}, {"10.1.0.0/16", 3}, {"10.3.0.0/16", 9}, {"2001:db8::/32", 5}});
  configure(4, {{"10.4.0.0/16", 1}, {"2001:db8:4::/48", 1}});  // a VRF without a hardware id
  sw.start();
  sw.advance(10);
  expectGolden("summary-default", "showRouteCacheSummary");
  expectGolden("summary-red", "showRouteCacheSummary#Vred");
  expectGolden("summary-each", "showRouteCacheSummary#Vall");
  expectGolden("summary-together", "showRouteCacheSummary#V");
}

TEST_F(ShowCommandsTest, ARouteInTheOtherFamilysTableIsUnprogrammed) {
  plug(false);
  configure(2, {{"0.0.0.0/32", 1}, {"::/0", 5}});
  sw.start();
  sw.advance(10);
  sw.misplacedRoute("2001:db8::/32", 2);
  sw.misplacedRoute("2001:db8:1::/48", 2);
  sw.misplacedRoute("10.0.0.0/8", 2);
  const Json summary = Json::parse(show("showRouteCacheSummary#Vred", OutputFormat::json).out);
  const Json expected4{{"configuredRoutes", 3}, {"routesInSfe", 0}, {"routesInHw", 1}, {"unprogrammedRoutes", 2}};
  const Json expected6{{"configuredRoutes", 2}, {"routesInSfe", 0}, {"routesInHw", 1}, {"unprogrammedRoutes", 1}};
  EXPECT_EQ(summary["summary"]["red"], expected4);
  EXPECT_EQ(summary["summaryIPv6"]["red"], expected6);
}

TEST_F(ShowCommandsTest, RoutesAreListedWithTheirNextHops) {
  plugAndConfigure();
  expectGolden("summary-together-no-caching", "showRouteCacheSummary#V");
  expectGolden("routes-default", "showRouteCacheVrf#Vdefault");
  expectGolden("routes-red", "showRouteCacheVrf#Vred");
  expectGolden("routes-red-ipv6", "showRouteCacheVrfV6#Vred");
  expectGolden("routes-red-one", "showRouteCacheVrf#Vred#P10.1.0.0/16");
  expectGolden("routes-red-one-ipv6", "showRouteCacheVrfV6#Vred#P2001:db8::/32");
  expectGolden("routes-red-no-route", "showRouteCacheVrf#Vred#P10.7.0.0/16");
  expectGolden("routes-green-without-hardware-id", "showRouteCacheVrf#Vgreen");
}

TEST_F(ShowCommandsTest, UnknownVrfIsTheWholeReply) {
  plugAndConfigure();
  for (const char* text :
       {"showRouteCacheSummary#Vnone", "showRouteCacheVrf#Vnone", "showRouteCacheVrfV6#Vnone#P::/0"}) {
    SCOPED_TRACE(text);
    const Reply reply = show(text);
    EXPECT_EQ(reply.out, "");
    EXPECT_EQ(reply.error, "VRF none not found.");
    EXPECT_EQ(Json::parse(show(text, OutputFormat::json).out), Json({{"cmdErr", "VRF none not found."}}));
  }
}

// --- The command's text ----------------------------------------------------------------------------------------------

TEST_F(ShowCommandsTest, FirstNameThatTheTextHoldsDecides) {
  plugAndConfigure();
  const struct {
    const char* what;
    const char* text;
    const char* sameAs;
  } cases[] = {
      {"thresholds before all", "showRouteCacheVrf#VshowRouteCacheSummary showRouteCacheThreshold",
       "showRouteCacheThreshold"},
      {"the summary before routes", "showRouteCacheVrfV6 showRouteCacheSummary#Vred", "showRouteCacheSummary#Vred"},
      {"IPv6 is found anywhere", "showRouteCacheVrf showRouteCacheVrfV6#Vred", "showRouteCacheVrfV6#Vred"},
      {"the last VRF counts", "showRouteCacheVrf#Vblue#Vred", "showRouteCacheVrf#Vred"},
      {"the last prefix counts", "showRouteCacheVrf#P10.2.0.0/16#Vred#P10.1.0.0/16",
       "showRouteCacheVrf#Vred#P10.1.0.0/16"},
      {"an empty prefix is none", "showRouteCacheVrf#Vred#P", "showRouteCacheVrf#Vred"},
      {"no VRF is the default one", "showRouteCacheSummary", "showRouteCacheSummary#Vdefault"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(show(c.text).out, show(c.sameAs).out);
  }
  EXPECT_EQ(command("", OutputFormat::text), nullptr);
  EXPECT_EQ(command("showRouteCache#Vred", OutputFormat::text), nullptr);
}

TEST_F(ShowCommandsTest, MalformedTextIsRefused) {
  plugAndConfigure();
  const struct {
    const char* what;
    std::string text;
    const char* error;
  } cases[] = {
      {"no VRF", "showRouteCacheVrf", "basic_string::substr: showRouteCacheVrf without"},
      {"no VRF, but a prefix", "showRouteCacheVrfV6#P::/0", "basic_string::substr: showRouteCacheVrfV6 without"},
      {"prefix before VRF", "showRouteCacheVrf#P10.0.0.0/8#Vred", "basic_string::substr: showRouteCacheVrf with"},
      {"no prefix", "showRouteCacheVrf#Vred#Pten", "'ten' is not an IPv4 prefix"},
      {"too long a prefix", "showRouteCacheVrf#Vred#P10.0.0.0/33", "'10.0.0.0/33' is not an IPv4 prefix"},
      {"IPv6 for IPv4", "showRouteCacheVrf#Vred#P2001:db8::/32", "'2001:db8::/32' is not an IPv4 prefix"},
      {"IPv4 for IPv6", "showRouteCacheVrfV6#Vred#P10.0.0.0/8", "'10.0.0.0/8' is not an IPv6 prefix"},
      {"a VRF of 101 bytes", "showRouteCacheSummary#V" + std::string(101, 'v'), "VRF name over 100 bytes"},
      {"the same with routes", "showRouteCacheVrf#V" + std::string(101, 'v') + "#P::/0", "VRF name over 100 bytes"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_THAT([&] { command(c.text, OutputFormat::text); }, ThrowsMessage<std::exception>(HasSubstr(c.error)));
  }
}

// --- Yields ----------------------------------------------------------------------------------------------------------

TEST_F(ShowCommandsTest, EndedCallsChangeNothingInTheReply) {
  plugAndConfigure();
  const std::string expected = allReplies();
  const char* const red = "showRouteCacheVrf#Vred";
  ASSERT_EQ(show(red).calls, 1U);

  callback().yieldInTestIs(true);
  EXPECT_EQ(allReplies(), expected);
  // Eight entries are looked at and five printed. No call ends before the default VRF's default route, at the table's
  // end, or behind the last row.
  EXPECT_EQ(show(red).calls, 11U);
  // Twelve configured routes; four VRFs with two rows each.
  EXPECT_GE(show("showRouteCacheSummary#Vall").calls, 12U + 2 * 4 - 2);
  callback().yieldInTestIs(false);

  sw.clock->secondsPerLookIs(0.04);  // three looks take longer than a call may
  EXPECT_EQ(allReplies(), expected);
  EXPECT_EQ(show(red).calls, 4U);
  sw.clock->secondsPerLookIs(0);

  std::mt19937 random(1);
  wantsPause = [&] { return random() % 3 == 0; };
  EXPECT_EQ(allReplies(), expected);
  EXPECT_GT(show(red).calls, 1U);
}

// Random routes of one table, most of them for all time and in hardware; the others come and go.
template <class Table>
class RandomRoutes {
 public:
  using Key = typename Table::Key;
  using Family = typename Table::Value::Family;

  RandomRoutes(std::shared_ptr<Table> table, std::mt19937& random) : table_(std::move(table)), random_(random) {
    stable_ = {{{}, 0}, {{}, 7}};
    while (stable_.size() < 1000) stable_.insert(randomKey());
    for (const Key& key : stable_) table_->routeIs({key, RouteCache::AdjId(1), true});
  }
  std::vector<std::string> stable(std::uint32_t hwVrfId) const {
    std::vector<std::string> prefixes;
    for (const Key& key : stable_) {
      if (key.vrfId() == hwVrfId) prefixes.push_back(Platform::toText(key.prefix()));
    }
    return prefixes;
  }
  void disturb() {
    const Key key = randomKey();
    if (!stable_.contains(key)) table_->routeIs({key, RouteCache::AdjId(2), false});
    const auto gone = table_->lowerBound(randomKey());
    if (gone != table_->end() && !gone->inHw()) table_->routeDel(gone->key());
  }

 private:
  std::uint32_t pick(std::uint32_t below) { return static_cast<std::uint32_t>(random_() % below); }
  // Four VRFs; one prefix in four covers many others.
  Key randomKey() {
    const unsigned length = pick(pick(4) == 0 ? 3 : Family::Prefix::maxLength + 1);
    return {typename Family::Prefix(randomAddr(typename Family::Addr()), length), pick(3) == 0 ? 0 : 6 + pick(3)};
  }
  IpAddr randomAddr(IpAddr) { return IpAddr(static_cast<std::uint32_t>(random_())); }
  Ip6Addr randomAddr(const Ip6Addr&) { return {std::uint64_t{random_()} << 32, random_()}; }

  std::shared_ptr<Table> table_;
  std::mt19937& random_;
  std::set<Key> stable_;
};

// The prefixes of a listing, in its order, that are in hardware. Checks that all prefixes ascend.
template <class Key>
std::vector<std::string> prefixesInHw(const std::string& listing) {
  std::vector<std::string> prefixes;
  std::istringstream lines(listing);
  std::optional<Key> last;
  std::string line;
  for (int i = 0; std::getline(lines, line); ++i) {
    if (i < 2) continue;
    std::string prefix, inHw;
    std::istringstream(line) >> prefix >> inHw;
    const auto key = Key::fromShortText(prefix + "@0");
    EXPECT_TRUE(key && (!last || *last < *key)) << line;
    last = key;
    if (inHw == "True") prefixes.push_back(prefix);
  }
  return prefixes;
}

class RandomShowCommandsTest : public ShowCommandsTest, public testing::WithParamInterface<unsigned> {};
INSTANTIATE_TEST_SUITE_P(Seeds, RandomShowCommandsTest, testing::Range(1U, 4U));

TEST_P(RandomShowCommandsTest, WhatStaysIsListedOnceWhileOthersComeAndGo) {
  std::mt19937 random(GetParam());
  plug(false);
  sw.start();
  sw.advance(1);
  sw.checkEveryRunIs(false);
  callback().yieldInTestIs(true);
  RandomRoutes routes4(sw.agent().ipv4RouteStatus(), random);
  RandomRoutes routes6(sw.agent().ipv6RouteStatus(), random);
  for (const auto& [vrf, hwVrfId] : {std::pair("default", 0U), std::pair("red", 7U)}) {
    SCOPED_TRACE(vrf);
    const Reply ipv4 = show(std::string("showRouteCacheVrf#V") + vrf, OutputFormat::text, [&] { routes4.disturb(); });
    EXPECT_EQ(prefixesInHw<RouteCache::Ipv4RouteVrfKey>(ipv4.out), routes4.stable(hwVrfId));
    const Reply ipv6 = show(std::string("showRouteCacheVrfV6#V") + vrf, OutputFormat::text, [&] { routes6.disturb(); });
    EXPECT_EQ(prefixesInHw<RouteCache::Ipv6RouteVrfKey>(ipv6.out), routes6.stable(hwVrfId));
    // Each call has looked at one entry, of whatever VRF.
    EXPECT_GT(ipv4.calls, 1000U);
    EXPECT_GT(ipv6.calls, 1000U);
  }
}

// A VRF's count is not disturbed by what happens in others. These are passed over, not looked at.
TEST_F(ShowCommandsTest, SummaryCountsOnceWhileOtherVrfsChange) {
  plugAndConfigure();
  sw.piVrf("far", 1000);
  for (std::uint32_t i = 0; i < 300; ++i) {
    const std::uint32_t other = 10 + i;  // a VRF without a name, between those that have one
    sw.route("10.200." + std::to_string(i % 200) + ".0/24", i % 3 == 0 ? 2 : other, 1);
    sw.route("2001:db8:200:" + std::to_string(i) + "::/64", i % 3 == 1 ? 1000 : other, 1);
  }
  for (const char* text : {"showRouteCacheSummary#Vred", "showRouteCacheSummary#Vfar", "showRouteCacheSummary#Vall"}) {
    SCOPED_TRACE(text);
    callback().yieldInTestIs(false);
    const Reply expected = show(text);
    callback().yieldInTestIs(true);
    std::uint32_t step = 0;
    const Reply reply = show(text, OutputFormat::text, [&] {
      const std::string prefix = "10.201." + std::to_string(++step % 16) + ".0/24";
      step % 3 == 0 ? sw.routeGone(prefix, 10 + step % 100) : sw.route(prefix, 10 + step % 100, 1);
    });
    EXPECT_EQ(reply.out, expected.out);
    EXPECT_GT(reply.calls, 90U);
    EXPECT_LT(reply.calls, 250U);
  }
}

// --- The agent's side ------------------------------------------------------------------------------------------------

TEST_F(ShowCommandsTest, CommandsUnderWayEndWithTheStateMachineTheyHold) {
  plugAndConfigure();
  const auto door = sw.stateDb->entity("agent/routecache/cliCallbackWithFormat");
  ASSERT_EQ(door, sw.agent().cliCallbackWithFormat());
  door->entityType().attribute("yieldInTest")->set(*door, "true");
  const auto reply = sw.commands.commandReply("RouteCacheWithFormat", "showRouteCacheVrf#Vred", OutputFormat::text);
  std::string content;
  ASSERT_TRUE(reply->produce(content));

  const std::weak_ptr<RouteCache::SwRouteSm> swRouteSm = sw.agent().swRouteSm();
  sw.agent().swRouteSmDel();
  EXPECT_TRUE(swRouteSm.expired());
  EXPECT_THROW(reply->produce(content), std::exception);

  // The door stays open: what needs no routes is answered, the rest is refused.
  EXPECT_THAT(show("showRouteCacheThreshold").out, HasSubstr("medium"));
  EXPECT_THROW(command("showRouteCacheSummary", OutputFormat::text), std::runtime_error);
  EXPECT_THROW(command("showRouteCacheVrf#Vred", OutputFormat::text), std::runtime_error);
  EXPECT_NE(sw.commands.commandCallbackWithFormat("RouteCacheWithFormat"), nullptr);
  sw.stop();
  EXPECT_EQ(sw.commands.commandCallbackWithFormat("RouteCacheWithFormat"), nullptr);
}

}  // namespace
