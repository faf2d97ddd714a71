// `routecache show` as a person uses it: asking a running agent, from another process.
#include <gmock/gmock.h>

#include <algorithm>
#include <csignal>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "RouteCache/RouteCache.h"
#include "test/support/Command.h"
#include "test/support/Content.h"
#include "test/support/Eventually.h"
#include "test/support/TemporaryDirectory.h"

using nlohmann::json;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::SizeIs;
using testing::StartsWith;

namespace {

constexpr const char* routesHead =
    "Prefix             InHw NextHopId  VxlanId  Vni     MacAddress      Vlan RemoteVtep        UnderlayFEC\n";

// An agent with VRFs default (1) and red (2), hardware route caching off, and nothing to do but what a test gives it.
class ShowProcessTest : public testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(agent.says("ready: ")); }

  Outcome run(const std::string& arguments) const { return Command(arguments + inRunDir).wait(); }
  void expectDone(const std::string& arguments) const {
    const Outcome outcome = run(arguments);
    EXPECT_EQ(outcome.exitCode, 0) << arguments << ": " << outcome.err;
  }
  std::string shown(const std::string& arguments) const {
    const Outcome outcome = run("show " + arguments);
    EXPECT_EQ(outcome.exitCode, 0) << arguments << ": " << outcome.err;
    EXPECT_EQ(outcome.err, "") << arguments;
    return outcome.out;
  }
  json shownJson(const std::string& arguments) const { return json::parse(shown(arguments + " --json")); }

  // Routes of one VRF, made up, over four VTEPs.
  void load(unsigned count, unsigned vrf, unsigned seed) const {
    expectDone("rib load --generate " + std::to_string(count) + " --vrfs " + std::to_string(vrf) + " --seed " +
               std::to_string(seed) + " --vteps 4 --vni 10010 --capacity 100000");
  }
  void add(const std::string& prefixes, unsigned vrf) const {
    expectDone("rib add " + prefixes + " --vrf " + std::to_string(vrf) + " --vtep 10.255.0.1 --vni 10010");
  }
  bool isPublished(unsigned count) const {
    return eventually([&] { return shownJson("summary")["total"]["all"]["routesInHw"] == count; });
  }

  const TemporaryDirectory directory;
  const std::string inRunDir = " --run-dir " + directory.path() + "/run";
  Command agent{"run --scenario " ROUTECACHE_EXAMPLES "/leaf.json --agent " ROUTECACHE_AGENT + inRunDir};
};

// What the commands print is compared elsewhere; here, that each option of theirs reaches the agent.
TEST_F(ShowProcessTest, EachCommandAnswersInTextAndJson) {
  load(300, 2, 1);
  add("2001:db8:1::/48", 2);
  add("198.51.100.0/24", 2);
  add("192.0.2.0/24", 9);  // a VRF that there is not
  ASSERT_TRUE(isPublished(302));

  EXPECT_EQ(shown("threshold"), contentOf(ROUTECACHE_GOLDEN "/threshold.txt"));
  EXPECT_EQ(shown("threshold --json"), contentOf(ROUTECACHE_GOLDEN "/threshold.json"));
  EXPECT_EQ(shownJson("summary")["total"]["all"]["unprogrammedRoutes"], 1);
  EXPECT_THAT(linesOf(shown("summary --vrf all")), SizeIs(2 + 4 + 4 + 2));
  const json red = shownJson("summary --vrf red");
  EXPECT_EQ(red["summary"].size(), 1);
  EXPECT_EQ(red["summary"]["red"]["configuredRoutes"], 301);
  EXPECT_EQ(red["summaryIPv6"]["red"]["routesInHw"], 1);

  EXPECT_THAT(linesOf(shown("routes --vrf red")), SizeIs(2 + 301));
  EXPECT_EQ(shownJson("routes --vrf red")["vrfs"]["red"]["routes"].size(), 301);
  EXPECT_THAT(linesOf(shown("routes --vrf red 203.0.113.0/24")), SizeIs(2));
  // A prefix says by itself which family it is of, in any of its forms.
  const std::pair<const char*, const char*> listed[] = {{"198.51.100.0/24", "198.51.100.0/24    True "},
                                                        {"--ipv6", "2001:db8:1::/48    True "},
                                                        {"2001:db8:1::/48", "2001:db8:1::/48    True "},
                                                        {"2001:0DB8:1:0::/48", "2001:db8:1::/48    True "},
                                                        {"2001:db8:1::/48 --ipv6", "2001:db8:1::/48    True "}};
  for (const auto& [which, line] : listed) {
    SCOPED_TRACE(which);
    EXPECT_THAT(linesOf(shown("routes --vrf red " + std::string(which))),
                ElementsAre(testing::_, testing::_, StartsWith(line)));
  }
}

TEST_F(ShowProcessTest, WhatCannotBeShownIsOneLineAndAnExitCode) {
  const std::string elsewhere = " --run-dir " + directory.path() + "/elsewhere";
  const struct {
    const char* what;
    std::string arguments;
    int exitCode;
    std::string reason;
  } cases[] = {
      {"an unknown VRF's summary", "summary --vrf mauve" + inRunDir, 1, "routecache: VRF mauve not found."},
      {"an unknown VRF's routes", "routes --vrf mauve" + inRunDir, 1, "routecache: VRF mauve not found."},
      {"no agent", "threshold" + elsewhere, 1, "No such file or directory"},
      {"no VRF", "routes" + inRunDir, 2, "--vrf is required"},
      {"no name", "summary --vrf ''" + inRunDir, 2, "--vrf: "},
      {"a name that is too long", "routes --vrf " + std::string(101, 'r') + inRunDir, 2, "100 bytes"},
      {"a name that reads as a prefix", "routes --vrf a#Pb" + inRunDir, 2, "'#P'"},
      {"a name that reads as a command", "summary --vrf showRouteCacheThreshold" + inRunDir, 2, "'showRouteCacheT"},
      {"no prefix", "routes --vrf red 10.0.0.0/33" + inRunDir, 2, "'10.0.0.0/33'"},
      {"an empty prefix", "routes --vrf red ''" + inRunDir, 2, "''"},
      {"the other family", "routes --vrf red 10.0.0.0/8 --ipv6" + inRunDir, 2, "10.0.0.0/8 is an IPv4 prefix"},
      {"nothing to show", "", 2, "subcommand"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const Outcome outcome = Command("show " + c.arguments).wait();
    EXPECT_EQ(outcome.exitCode, c.exitCode);
    EXPECT_TRUE(outcome.isOneComplaint()) << outcome.out << outcome.err;
    EXPECT_THAT(outcome.err, HasSubstr(c.reason));
  }
  const Outcome inJson = run("show routes --vrf mauve --json");
  EXPECT_EQ(inJson.exitCode, 1);
  EXPECT_EQ(json::parse(inJson.out), (json{{"cmdErr", "VRF mauve not found."}}));
  EXPECT_EQ(inJson.err, "routecache: VRF mauve not found.\n");
}

// Far more than what fits between the agent and a reader that takes nothing.
constexpr unsigned manyRoutes = 20000;

TEST_F(ShowProcessTest, RouteProcessingGoesOnWhileAReaderStalls) {
  load(manyRoutes, 2, 1);
  ASSERT_TRUE(isPublished(manyRoutes));
  Command listing("show routes --vrf red" + inRunDir);
  Command listingJson("show routes --vrf red --json" + inRunDir);
  ASSERT_TRUE(listing.says(routesHead));
  ASSERT_TRUE(listingJson.says("\"routes\""));

  // Of another VRF, and of the listed one behind and ahead of where the readers have stalled.
  load(manyRoutes, 1, 2);
  add("0.0.0.1/32 223.255.255.255/32", 2);
  ASSERT_TRUE(isPublished(2 * manyRoutes + 2));

  const Outcome text = listing.wait();
  EXPECT_EQ(text.exitCode, 0) << text.err;
  std::vector<RouteCache::Ipv4RouteVrfKey> keys;
  const auto lines = linesOf(text.out);
  for (std::size_t i = 2; i < lines.size(); ++i) {
    keys.emplace_back(Platform::fromText<Prefix>(lines[i].substr(0, lines[i].find(' '))), 0);
  }
  EXPECT_EQ(keys.size(), manyRoutes + 1);
  EXPECT_EQ(std::ranges::adjacent_find(keys, std::ranges::greater_equal()), keys.end()) << "each once, in key order";
  EXPECT_EQ(Platform::toText(keys.back().prefix()), "223.255.255.255/32") << "the listing was still to come there";

  const Outcome asJson = listingJson.wait();
  EXPECT_EQ(asJson.exitCode, 0) << asJson.err;
  EXPECT_EQ(json::parse(asJson.out)["vrfs"]["red"]["routes"].size(), manyRoutes + 1);
}

TEST_F(ShowProcessTest, AnAgentThatGoesAwayEndsItsReader) {
  load(manyRoutes, 2, 1);
  ASSERT_TRUE(isPublished(manyRoutes));
  Command listing("show routes --vrf red" + inRunDir);
  ASSERT_TRUE(listing.says(routesHead));
  EXPECT_EQ(agent.stop(SIGTERM).exitCode, 0);
  const Outcome cutOff = listing.wait();
  EXPECT_EQ(cutOff.exitCode, 1);
  EXPECT_THAT(linesOf(cutOff.err), ElementsAre(StartsWith("routecache: ")));
}

}  // namespace
