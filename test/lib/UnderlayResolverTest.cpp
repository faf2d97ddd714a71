#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>

#include "lib/resolver/UnderlayResolver.h"
#include "lib/tasks/SimulatedScheduler.h"

namespace {

class UnderlayResolverTest : public testing::TestWithParam<std::uint64_t> {
 protected:
  UnderlayResolverTest() { scheduler.yieldAfterEntriesIs(GetParam()); }
  static IpGenAddr addr(const char* text) { return Platform::fromText<IpGenAddr>(text); }
  static IpGenPrefix prefix(const char* text) { return Platform::fromText<IpGenPrefix>(text); }
  void request(const char* text) { requests->vrfIs("default")->nexthopIs(addr(text)); }
  // The answer after all is settled: 0 is unreachable.
  std::optional<std::uint64_t> answer(const char* text) {
    scheduler.advance(0);
    const auto fec = answers->vrf("default")->nexthop(addr(text));
    return fec ? std::optional(fec->value()) : std::nullopt;
  }

  LinuxPlatform::SimulatedScheduler scheduler;
  std::shared_ptr<Routing::NexthopConfig> requests = std::make_shared<Routing::NexthopConfig>("requests");
  std::shared_ptr<Routing::NexthopStatus> answers = std::make_shared<Routing::NexthopStatus>("answers");
  std::shared_ptr<Routing::UnderlayRouteConfig> routes = std::make_shared<Routing::UnderlayRouteConfig>("routes");
  LinuxPlatform::UnderlayResolver resolver{requests, answers, routes, scheduler};
};

TEST_P(UnderlayResolverTest, AnswersFollowTheLongestPrefixAsRoutesComeAndGo) {
  for (const char* text : {"10.0.0.1", "10.1.0.1", "10.1.255.255", "11.0.0.1", "2001:db8::1"}) request(text);
  EXPECT_EQ(answers->vrf("default")->nexthop().size(), 0U) << "never from inside the request";
  EXPECT_EQ(answer("10.1.0.1"), 0U);
  routes->routeIs(prefix("10.0.0.0/8"), Fib::FecId(8));
  routes->routeIs(prefix("10.1.0.0/16"), Fib::FecId(16));
  routes->routeIs(prefix("2001:db8::/32"), Fib::FecId(6));
  EXPECT_EQ(answer("10.0.0.1"), 8U);
  EXPECT_EQ(answer("10.1.0.1"), 16U);
  EXPECT_EQ(answer("10.1.255.255"), 16U);
  EXPECT_EQ(answer("11.0.0.1"), 0U);
  EXPECT_EQ(answer("2001:db8::1"), 6U);
  routes->routeDel(prefix("10.1.0.0/16"));
  EXPECT_EQ(answer("10.1.255.255"), 8U);
  routes->routeIs(prefix("0.0.0.0/0"), Fib::FecId(1));
  EXPECT_EQ(answer("11.0.0.1"), 1U);
  routes->routeIs(prefix("11.0.0.1/32"), Fib::FecId(32));
  EXPECT_EQ(answer("11.0.0.1"), 32U);
  EXPECT_EQ(answer("10.0.0.1"), 8U);
}

TEST_P(UnderlayResolverTest, WithdrawnRequestsAndVrfsLoseTheirAnswers) {
  request("10.0.0.1");
  request("10.0.0.2");
  EXPECT_EQ(answer("10.0.0.1"), 0U);
  requests->vrf("default")->nexthopDel(addr("10.0.0.1"));
  EXPECT_EQ(answer("10.0.0.1"), std::nullopt);
  EXPECT_EQ(answer("10.0.0.2"), 0U);
  request("10.0.0.3");
  requests->vrfDel("default");
  scheduler.advance(0);
  EXPECT_EQ(answers->vrf("default"), nullptr);
}

INSTANTIATE_TEST_SUITE_P(YieldAfter, UnderlayResolverTest, testing::Values(0U, 1U));

}  // namespace
