// Adjacency identifiers: the order in which numbers come out, what counts keep, and which reference finds which.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "RouteCache/sw/AdjacencyIds.h"
#include "lib/trace/TextTraceFacility.h"

namespace {

using RouteCache::AdjacencyIds;
using RouteCache::AdjId;
using RouteCache::FreeAdjIds;
using RouteCache::IpMixedNexthopRef;
using testing::ElementsAre;

class AdjIdsTest : public testing::Test {
 protected:
  std::uint32_t allocate() { return ids.allocateAdjId(false, true).value(); }
  std::uint32_t release(std::uint32_t adjId) { return ids.deallocateAdjId(AdjId(adjId)); }
  // A new reference to these next hops ("": no part of that family).
  static std::shared_ptr<IpMixedNexthopRef> ref(const std::string& v4, const std::string& v6 = "") {
    auto mixed = RouteCache::ipMixedNexthopRefFactory(!v4.empty(), !v6.empty());
    const EthAddr mac = Platform::fromText<EthAddr>("00:1c:73:00:00:01");
    if (!v4.empty()) {
      mixed->v4nhIs(RouteCache::ipv4NexthopRefFactory(true, false));
      mixed->v4nh()->viaIs({IntfId("Vxlan1"), 10, mac, Platform::fromText<IpAddr>(v4)});
    }
    if (!v6.empty()) {
      mixed->v6nhIs(RouteCache::ipv6NexthopRefFactory(false, true));
      mixed->v6nh()->viaIs({IntfId("Vxlan1"), 10, mac, Platform::fromText<Ip6Addr>(v6)});
    }
    return mixed;
  }

  LinuxPlatform::TextTraceFacility facility;
  Platform::TraceHandle trace{facility, "AdjIds"};
  AdjacencyIds ids{trace};
};

TEST_F(AdjIdsTest, WhatIsInUseWhenTheListIsFilledComesOnceWhenItIsFree) {
  // One of each class, one at the front, two in a row, one at the back.
  for (const std::uint32_t taken : {0x80000001u, 4u, 0xC0000005u, 0x1FFFFFu}) ids.adjIdRefCountIs(AdjId(taken), 0);
  ids.freeAdjIdFill();
  EXPECT_EQ(ids.freeAdjId().size(), 0x1FFFFFu - 4);
  EXPECT_EQ(ids.freeAdjIdBack(), AdjId(0x1FFFFE));
  release(0xC0000005);
  release(4);
  EXPECT_EQ(ids.freeAdjIdBack(), AdjId(4));
  for (const std::uint32_t expected : {2u, 3u, 6u, 7u}) EXPECT_EQ(allocate(), expected);
  // The rest of the sequence, then what became free, in that order, each once.
  FreeAdjIds rest = ids.freeAdjId();
  for (std::uint32_t number = 8; number < 0x1FFFFF; ++number) ASSERT_EQ(rest.freeAdjIdDeq().value(), number);
  EXPECT_EQ(rest.freeAdjIdDeq(), AdjId(5));
  EXPECT_EQ(rest.freeAdjIdDeq(), AdjId(4));
  EXPECT_EQ(rest.size(), 0u);
  EXPECT_EQ(rest.freeAdjIdFront(), AdjId());
  EXPECT_EQ(rest.freeAdjIdBack(), AdjId());
}

TEST_F(AdjIdsTest, BehindTheSequenceTheOldestFreedComesFirst) {
  for (const std::uint32_t number : {7u, 0x80000003u, 0xC0000009u}) ids.freeAdjIdEnq(AdjId(number));
  ids.freeAdjIdEnq(AdjId(0x80000000));  // no number
  EXPECT_EQ(ids.freeAdjId().size(), 3u);
  EXPECT_EQ(ids.freeAdjIdFront(), AdjId(7));
  EXPECT_EQ(ids.freeAdjIdBack(), AdjId(9));
  EXPECT_EQ(ids.allocateAdjId(true, true), AdjId(0xC0000007));  // a number changes its class
  EXPECT_EQ(release(0xC0000007), 0u);
  for (const std::uint32_t expected : {3u, 9u, 7u}) EXPECT_EQ(allocate(), expected);
}

TEST_F(AdjIdsTest, AnEmptyListGivesNumberZeroThatNeverGetsIntoIt) {
  const struct {
    bool v6, v4;
    std::uint32_t adjId;
  } requests[] = {{false, true, 0}, {true, false, 0x80000000}, {true, true, 0xC0000000}};
  for (const auto& request : requests) {
    EXPECT_EQ(ids.allocateAdjId(request.v6, request.v4), AdjId(request.adjId));
    EXPECT_EQ(ids.adjIdRefCount(AdjId(request.adjId)), 1u);
    EXPECT_EQ(release(request.adjId), 0u);
    EXPECT_EQ(ids.freeAdjId().size(), 0u);
  }
  // Nor does one that is in use when the list is filled take a number from it.
  ids.adjIdRefCountIs(AdjId(0x80000000), 1);
  ids.freeAdjIdFill();
  EXPECT_EQ(ids.freeAdjId().size(), 0x1FFFFFu);
}

TEST_F(AdjIdsTest, CountsFallToZeroAndTheNumberGoesBack) {
  ids.freeAdjIdFill();
  const std::uint32_t adjId = allocate();
  ids.adjIdRefCountIs(AdjId(adjId), 3);
  EXPECT_EQ(release(adjId), 2u);
  EXPECT_EQ(release(adjId), 1u);
  EXPECT_EQ(ids.freeAdjId().size(), 0x1FFFFFu - 1);
  EXPECT_EQ(release(adjId), 0u);
  EXPECT_FALSE(ids.adjIdRefCountHas(AdjId(adjId)));
  EXPECT_EQ(ids.freeAdjId().size(), 0x1FFFFFu);
  EXPECT_EQ(facility.count("de-allocated id: "), 1u);
  // Once more: tolerated, told, and the number then stands twice in the list.
  EXPECT_EQ(release(adjId), 0u);
  EXPECT_EQ(facility.count(" already 0 case, de-allocated id: "), 1u);
  EXPECT_EQ(ids.freeAdjId().size(), 0x1FFFFFu + 1);
}

TEST_F(AdjIdsTest, WhileUnreferencedOnesAreRetainedNoNumberGoesBack) {
  ids.adjIdRefCountIs(AdjId(1), 0);  // adopted
  ids.retainUnreferencedIs(true);
  ids.freeAdjIdFill();
  const AdjId own = ids.allocateAdjId(true, false);
  EXPECT_EQ(own, AdjId(0x80000002));
  ids.adjIdRefCountIs(AdjId(1), 1);  // a route has taken it
  EXPECT_THAT(ids.unreferenced(), testing::IsEmpty());
  EXPECT_EQ(release(1), 0u);
  EXPECT_EQ(release(own.value()), 0u);
  EXPECT_THAT(ids.unreferenced(), ElementsAre(AdjId(1), own));
  EXPECT_TRUE(ids.adjIdRefCountHas(own));
  EXPECT_EQ(allocate(), 3u);
  ids.retainUnreferencedIs(false);
  EXPECT_EQ(release(1), 0u);  // what a clean-up does
  EXPECT_THAT(ids.unreferenced(), ElementsAre(own));
  EXPECT_EQ(ids.freeAdjIdBack(), AdjId(1));
}

TEST_F(AdjIdsTest, EqualReferencesFindTheSameIdentifierOfTheirClass) {
  const struct {
    const char* what;
    std::string v4, v6;
    std::uint32_t first, second;  // of the class
  } cases[] = {{"IPv4", "10.0.0.1", "", 1, 2},
               {"IPv6", "", "2001:db8::1", 0x80000001, 0x80000002},
               {"mixed", "10.0.0.1", "2001:db8::1", 0xC0000001, 0xC0000002}};
  for (const auto& c : cases) ids.nexthopIs(ref(c.v4, c.v6), AdjId(c.first));
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const AdjId first(c.first), second(c.second);
    EXPECT_EQ(ids.adjId(ref(c.v4, c.v6)), first);
    EXPECT_TRUE(ids.nexthop(first)->sameContent(*ref(c.v4, c.v6)));
    // An equal reference gets an identifier of its own: the old one's end leaves it alone.
    ids.nexthopIs(ref(c.v4, c.v6), second);
    EXPECT_EQ(ids.adjId(ref(c.v4, c.v6)), second);
    ids.nexthopDel(first);
    EXPECT_EQ(ids.nexthop(first), nullptr);
    EXPECT_EQ(ids.adjId(ref(c.v4, c.v6)), second);
    ids.checkInvariants();
    ids.nexthopDel(second);
    EXPECT_EQ(ids.adjId(ref(c.v4, c.v6)), AdjId());
    EXPECT_EQ(ids.nexthop(second), nullptr);
    ids.nexthopDel(second);
  }
}

TEST_F(AdjIdsTest, AnAdjacencyIsCurrentUntilItsIdentifierEnds) {
  ids.freeAdjIdFill();
  const AdjId adjId = ids.allocateAdjId(false, true);
  EXPECT_FALSE(ids.current(adjId));
  ids.currentIs(adjId, true);
  ids.adjIdRefCountIs(adjId, 2);
  EXPECT_TRUE(ids.current(adjId));
  release(adjId.value());
  release(adjId.value());
  ids.adjIdRefCountIs(adjId, 1);  // the next life of the number
  EXPECT_FALSE(ids.current(adjId));
  ids.currentIs(AdjId(99), true);
  EXPECT_FALSE(ids.adjIdRefCountHas(AdjId(99)));
}

}  // namespace
