// An agent killed after any of its writes leaves what its successor can take over.
#include <gtest/gtest.h>

#include "test/support/SimulatedSwitch.h"

namespace {

struct Picture {
  std::map<std::string, std::string> published;
  std::map<std::string, bool> hardware;
  std::set<std::string> unprogrammed, requests, kernel;
  std::size_t adjacencies = 0;
  bool operator==(const Picture&) const = default;
};

Picture pictureOf(const SimulatedSwitch& sw) {
  Picture picture{sw.published(), sw.hardware(), sw.unprogrammed(), sw.requests(), {}, sw.adjacencyIds().size()};
  for (const auto& route : *sw.reader<Routing::Rib::RouteConfig>("routecache/route/kernel")) {
    picture.kernel.insert(Platform::toText(route.key()));
  }
  return picture;
}

const std::vector<std::function<void(SimulatedSwitch&)>>& story() {
  static const std::vector<std::function<void(SimulatedSwitch&)>> steps{
      [](SimulatedSwitch& sw) {
        sw.via(1, {sw.nexthop("10.255.0.1", "Vxlan1", 10010)});
        sw.via(2, {sw.nexthop("10.255.0.1", "Vxlan1", 10010), sw.nexthop("2001:db8:ff::1")});
        sw.route("10.1.0.0/16", 1, 1);
        sw.route("10.2.0.0/16", 1, 2);
        sw.route("10.3.0.0/16", 2, 1);
        sw.route("2001:db8:1::/48", 1, 2);
        sw.route("10.9.0.0/16", 9, 1);  // its VRF never comes
      },
      [](SimulatedSwitch& sw) {
        sw.via(1, {sw.nexthop("10.255.0.1", "Vxlan1", 10010), sw.nexthop("10.255.0.2", "Vxlan1", 10010)});
        sw.route("10.1.0.0/16", 1, 1);
        sw.route("10.3.0.0/16", 2, 1);
      },
      [](SimulatedSwitch& sw) { sw.underlay("10.255.0.1/32", 9); },
      [](SimulatedSwitch& sw) {
        sw.hwVrf("red", 102);
        sw.hwVrf("blue", 101);
      },
      [](SimulatedSwitch& sw) {
        sw.routeGone("10.2.0.0/16", 1);
        sw.route("10.1.0.0/16", 1, 2);
      },
      [](SimulatedSwitch& sw) { sw.vtiDown("Vxlan1"); },
      [](SimulatedSwitch& sw) {
        sw.vti("Vxlan1", "192.0.2.1", "2001:db8::1");
        sw.routeGone("10.9.0.0/16", 9);
      },
      [](SimulatedSwitch& sw) {  // a part of a mixed adjacency, by itself
        sw.via(3, {sw.nexthop("10.255.0.1", "Vxlan1", 10010)});
        sw.route("10.3.0.0/16", 2, 3);
      },
      [](SimulatedSwitch& sw) {  // of the mixed one both parts go, one after the other
        sw.route("10.1.0.0/16", 1, 3);
        sw.route("2001:db8:1::/48", 1, 3);
      },
  };
  return steps;
}

// Tells the story to an agent that is killed after so many writes, and to its successor. False: it outlived the story.
bool tell(bool caching, std::uint64_t writesToLive, Picture& end) {
  SimulatedSwitch sw;
  sw.hwRouteCaching(caching);
  sw.capability(64, 64, 64);
  sw.underlay("10.255.0.0/16", 5);
  sw.underlay("2001:db8:ff::/48", 6);
  sw.vti("Vxlan1", "192.0.2.1", "2001:db8::1");
  sw.vlan("Vxlan1", 10, 10010);
  sw.vrf("red", 1, 101);
  sw.vrf("blue", 2, 102);
  bool killed = false;
  const auto unlessKilled = [&](const std::function<void()>& act) {
    try {
      act();
    } catch (const Killed&) {
      killed = true;
      for (const auto& [key, nexthops] : sw.published()) EXPECT_NE(nexthops, "no adjacency") << key;
      sw.stop();
      sw.start();
    }
  };
  unlessKilled([&] { sw.start(writesToLive); });
  for (const auto& step : story()) {
    step(sw);
    unlessKilled([&] { sw.advance(10); });
  }
  sw.advance(400);
  end = pictureOf(sw);
  return killed;
}

TEST(KilledAgentTest, ItsSuccessorEndsWhereItWouldHave) {
  for (const bool caching : {false, true}) {
    Picture undisturbed;
    ASSERT_FALSE(tell(caching, 0, undisturbed));
    ASSERT_EQ(undisturbed.published.size(), 3u);
    std::uint64_t writes = 1;
    for (Picture end; tell(caching, writes, end) && !testing::Test::HasFailure(); ++writes) {
      EXPECT_EQ(end, undisturbed) << (caching ? "caching, " : "") << "killed after write " << writes;
    }
    EXPECT_GT(writes, 40u) << "a story that is worth telling";
  }
}

}  // namespace
