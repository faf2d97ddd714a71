#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <unordered_map>

#include "RouteCache/model/NexthopRef.h"

using namespace RouteCache;
using Platform::fromText;
using Platform::toText;

namespace {

const EthAddr mac1 = fromText<EthAddr>("00:1c:73:00:00:01");
const EthAddr mac2 = fromText<EthAddr>("00:1c:73:00:00:02");

Ipv4Nexthop nexthop4(std::string_view vtep) {
  return {IntfId("Vxlan1"), 1000, mac1, fromText<IpAddr>(vtep)};
}
Ipv6Nexthop nexthop6(std::string_view vtep) {
  return {IntfId("Vxlan1"), 1000, mac1, fromText<Ip6Addr>(vtep)};
}

std::shared_ptr<Ipv4NexthopRef> ref4(std::initializer_list<const char*> vteps) {
  auto ref = ipv4NexthopRefFactory(true, false);
  for (const char* vtep : vteps) ref->viaIs(nexthop4(vtep));
  return ref;
}

std::shared_ptr<IpMixedNexthopRef> mixed(std::shared_ptr<Ipv4NexthopRef> v4nh, std::shared_ptr<Ipv6NexthopRef> v6nh) {
  auto ref = ipMixedNexthopRefFactory(true, true);
  ref->v4nhIs(std::move(v4nh));
  ref->v6nhIs(std::move(v6nh));
  return ref;
}

TEST(NexthopTest, OrderGoesByInterfaceVlanMacAddress) {
  const IpAddr low(1);
  const IpAddr high(2);
  const Ipv4Nexthop ordered[] = {{IntfId("Vxlan1"), 1, mac1, high},
                                 {IntfId("Vxlan1"), 1, mac2, low},
                                 {IntfId("Vxlan1"), 300, mac1, low},
                                 {IntfId("Vxlan1"), 300, mac1, high},
                                 {IntfId("Vxlan2"), 1, mac1, low}};
  for (std::size_t i = 0; i < std::size(ordered); ++i) {
    for (std::size_t j = 0; j < std::size(ordered); ++j) {
      EXPECT_EQ(ordered[i] < ordered[j], i < j);
      EXPECT_EQ(ordered[i] == ordered[j], i == j);
      EXPECT_EQ(ordered[i].hash() == ordered[j].hash(), i == j);
    }
  }
  EXPECT_LT(Nexthop(IntfId("Vxlan1"), 1, mac1), Nexthop(IntfId("Vxlan1"), 1, mac2));
}

TEST(NexthopTest, IsFalseOnlyWhenEmpty) {
  EXPECT_FALSE(Nexthop());
  EXPECT_TRUE(Nexthop(IntfId("Vxlan1"), 0, EthAddr()));
  EXPECT_TRUE(Nexthop(IntfId(), 1, EthAddr()));
  EXPECT_TRUE(Nexthop(IntfId(), 0, mac1));
  EXPECT_FALSE(Ipv6Nexthop());
  EXPECT_TRUE(Ipv6Nexthop(IntfId(), 0, EthAddr(), fromText<Ip6Addr>("::1")));
}

TEST(NexthopTest, ReadsBackFromItsText) {
  const std::string fields = "', ** {'vti': Vxlan1, 'extendedVlanId': 1000, 'routerMac': 00:1c:73:00:00:01";
  const Nexthop nexthop(IntfId("Vxlan1"), 1000, mac1);
  EXPECT_EQ(valueToStrep(nexthop), "Value('RouteCache::Nexthop" + fields + "})");
  EXPECT_EQ(fromText<Nexthop>(valueToStrep(nexthop)), nexthop);
  const auto v4 = nexthop4("192.0.2.1");
  EXPECT_EQ(valueToStrep(v4), "Value('RouteCache::Ipv4Nexthop" + fields + ", 'remoteVtepIp': 192.0.2.1})");
  EXPECT_EQ(fromText<Ipv4Nexthop>(valueToStrep(v4)), v4);
  const auto v6 = nexthop6("2001:db8::1");
  EXPECT_EQ(valueToStrep(v6), "Value('RouteCache::Ipv6Nexthop" + fields + ", 'remoteVtepIp': 2001:db8::1})");
  EXPECT_EQ(fromText<Ipv6Nexthop>(valueToStrep(v6)), v6);
  // A name may hold what looks like the end of a field.
  const Nexthop odd(IntfId("', '})"), 1, mac1);
  EXPECT_EQ(fromText<Nexthop>(valueToStrep(odd)), odd);
}

TEST(NexthopRefTest, ViaIsASet) {
  const auto ref = ref4({"192.0.2.2", "192.0.2.1", "192.0.2.2"});
  EXPECT_FALSE(ref->partial());
  ASSERT_EQ(ref->via().size(), 2U);
  EXPECT_TRUE(std::is_sorted(ref->sortedVias().begin(), ref->sortedVias().end()));
  EXPECT_EQ(ref->viaIs(nexthop4("192.0.2.2")), nexthop4("192.0.2.2"));
  EXPECT_EQ(ref->via().size(), 2U);
  EXPECT_TRUE(ref->viaHas(nexthop4("192.0.2.1")));
  ref->viaDel(nexthop4("192.0.2.9"));
  ref->viaDel(nexthop4("192.0.2.1"));
  EXPECT_FALSE(ref->viaHas(nexthop4("192.0.2.1")));
  EXPECT_EQ(ref->contentHash(), ref4({"192.0.2.2"})->contentHash());
  ref->viaDelAll();
  EXPECT_TRUE(ref->via().empty());
  EXPECT_EQ(ref->contentHash(), ref4({})->contentHash());
}

TEST(AdjRefTest, EqualsByContent) {
  const Ipv4AdjRef none;
  const Ipv4AdjRef empty = ref4({});
  const Ipv4AdjRef one = ref4({"192.0.2.1"});
  const Ipv4AdjRef both = ref4({"192.0.2.1", "192.0.2.2"});
  const struct {
    const char* what;
    Ipv4AdjRef a, b;
    bool equal;
  } cases[] = {{"null and null", none, none, true},
               {"null and empty", none, empty, false},
               {"empty and empty", empty, ref4({}), true},
               {"the same object", one, one, true},
               {"the same set", one, ref4({"192.0.2.1"}), true},
               {"another order of making", both, ref4({"192.0.2.2", "192.0.2.1"}), true},
               {"a part of the set", both, one, false}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(c.a == c.b, c.equal);
    EXPECT_EQ(c.b == c.a, c.equal);
    EXPECT_EQ(c.a.hash() == c.b.hash(), c.equal);
  }
  // Flags say how the reference came about, not what it is.
  const auto partial = ref4({"192.0.2.1"});
  partial->partialIs(true);
  EXPECT_EQ(one, Ipv4AdjRef(partial));

  std::unordered_map<Ipv4AdjRef, AdjId, Platform::Hasher> ids{{one, AdjId(1)}, {both, AdjId(2)}};
  EXPECT_EQ(ids.at(ref4({"192.0.2.2", "192.0.2.1"})), AdjId(2));
}

TEST(AdjRefTest, MixedEqualsByBothParts) {
  const auto v6nh = ipv6NexthopRefFactory(false, true);
  v6nh->viaIs(nexthop6("2001:db8::1"));
  const auto otherV6nh = ipv6NexthopRefFactory(false, true);
  otherV6nh->viaIs(nexthop6("2001:db8::1"));
  const IpMixedAdjRef ref = mixed(ref4({"192.0.2.1"}), v6nh);
  const struct {
    const char* what;
    IpMixedAdjRef other;
    bool equal;
  } cases[] = {{"equal parts", mixed(ref4({"192.0.2.1"}), otherV6nh), true},
               {"another IPv4 part", mixed(ref4({"192.0.2.2"}), v6nh), false},
               {"no IPv4 part", mixed(nullptr, v6nh), false},
               {"no IPv6 part", mixed(ref4({"192.0.2.1"}), nullptr), false},
               {"no reference", IpMixedAdjRef(), false}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(ref == c.other, c.equal);
    EXPECT_EQ(ref.hash() == c.other.hash(), c.equal);
  }
  EXPECT_NE(IpMixedAdjRef(mixed(ref4({}), nullptr)), IpMixedAdjRef(mixed(nullptr, nullptr)));
  EXPECT_FALSE(ref.ref()->vtepResolutionNeeded());
}

TEST(AdjRefTest, TextIsThePointerAndOnlyALivingOneIsRead) {
  const auto object = ref4({"192.0.2.1"});
  std::vector living{ref4({"192.0.2.1"}), object};
  std::ostringstream pointer;
  pointer << static_cast<const void*>(object.get());
  const std::string text = valueToStrep(Ipv4AdjRef(object));
  EXPECT_EQ(text, pointer.str());
  EXPECT_EQ(adjRefFromText<Ipv4NexthopRef>(text, living)->ref(), object);
  EXPECT_EQ(adjRefFromText<Ipv4NexthopRef>(toText(Ipv4AdjRef()), living)->ref(), nullptr);
  for (const std::string& bad : {std::string("0x10"), std::string("x"), std::string(), text + "0", text.substr(2)}) {
    EXPECT_FALSE(adjRefFromText<Ipv4NexthopRef>(bad, living).has_value()) << bad;
  }
  living.pop_back();
  EXPECT_FALSE(adjRefFromText<Ipv4NexthopRef>(text, living).has_value());
}

}  // namespace
