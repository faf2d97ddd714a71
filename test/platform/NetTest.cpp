#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <random>

#include "platform/values/Net.h"

using Platform::fromText;
using Platform::TextForm;
using Platform::toText;

namespace {

template <class T>
void expectTexts(std::initializer_list<std::pair<const char*, const char*>> texts) {
  for (const auto& [given, canonical] : texts) {
    SCOPED_TRACE(given);
    const auto value = TextForm<T>::from(given);
    ASSERT_TRUE(value.has_value());
    EXPECT_EQ(toText(*value), canonical);
    EXPECT_EQ(fromText<T>(canonical), *value);
  }
}

template <class T>
void expectRefused(std::initializer_list<std::string_view> texts) {
  for (const auto text : texts) EXPECT_FALSE(TextForm<T>::from(text).has_value()) << "'" << text << "'";
}

TEST(NetTest, Ipv4TextsAreStrict) {
  expectTexts<IpAddr>({{"0.0.0.0", "0.0.0.0"}, {"10.0.0.1", "10.0.0.1"}, {"255.255.255.255", "255.255.255.255"}});
  EXPECT_EQ(fromText<IpAddr>("10.0.0.1").value(), 0x0a000001U);
  expectRefused<IpAddr>({"", "10", "10.0.0", "10.0.0.1.", ".10.0.0.1", "10.0.0.256", "10.0.0.01", "10.0.0.+1",
                         "-1.0.0.0", " 10.0.0.1", "10.0.0.1 ", "10..0.1", "10.0.0.1.2", "4294967306.0.0.1",
                         "0x0a.0.0.1", "::1"});
}

TEST(NetTest, Ipv6TextsFollowTheCanonicalForm) {
  expectTexts<Ip6Addr>({
      {"0:0:0:0:0:0:0:0", "::"},
      {"0:0:0:0:0:0:0:1", "::1"},
      {"1::", "1::"},
      {"2001:0DB8:0000:0000:0000:0000:0000:00AB", "2001:db8::ab"},  // lower case, no leading zeros
      {"2001:db8:0:1:1:1:1:1", "2001:db8:0:1:1:1:1:1"},             // a single zero group stays
      {"2001:db8::1:1:1:1:1", "2001:db8:0:1:1:1:1:1"},              // also where it was written as "::"
      {"2001:0:0:1:0:0:0:1", "2001:0:0:1::1"},                      // the longest run
      {"2001:db8:0:0:1:0:0:1", "2001:db8::1:0:0:1"},                // the first of two
      {"0:0:1:1:1:1:0:0", "::1:1:1:1:0:0"},
      {"1:1:1:1:1:1:0:0", "1:1:1:1:1:1::"},
      {"1:2:3:4:5:6:7::", "1:2:3:4:5:6:7:0"},
      {"::ffff:192.0.2.1", "::ffff:192.0.2.1"},  // IPv4-mapped
      {"::ffff:c000:201", "::ffff:192.0.2.1"},
      {"64:ff9b::192.0.2.33", "64:ff9b::c000:221"},
      {"1:2:3:4:5:6:1.2.3.4", "1:2:3:4:5:6:102:304"},
  });
  expectRefused<Ip6Addr>({"",
                          ":",
                          ":::",
                          "1",
                          "1:2:3:4:5:6:7",
                          "1:2:3:4:5:6:7:8:9",
                          "1:2:3:4:5:6:7:8::",
                          "::1:2:3:4:5:6:7:8",
                          "1::2::3",
                          "12345::",
                          "g::",
                          ":1::",
                          "1::2:",
                          "::1.2.3",
                          "::1.2.3.256",
                          "1.2.3.4::",
                          "1.2.3.4:5::",
                          "1:2:3:4:5:6:7:1.2.3.4",
                          "::1%eth0",
                          " ::1",
                          "::+1",
                          "10.0.0.1"});
}

TEST(NetTest, Ipv6TextsAgreeWithTheSystemsOwn) {
  std::mt19937_64 random(7);
  for (int i = 0; i < 20000; ++i) {
    Ip6Addr::Bytes bytes{};
    const auto zeroGroups = random();
    for (std::size_t at = 0; at < 16; ++at) {
      if ((zeroGroups >> (at / 2) & 1) == 0) bytes[at] = static_cast<std::uint8_t>(random() >> (random() % 8));
    }
    const Ip6Addr addr(bytes);
    Ip6Addr::Bytes read{};
    ASSERT_EQ(inet_pton(AF_INET6, toText(addr).c_str(), read.data()), 1) << addr;
    ASSERT_EQ(read, bytes) << addr;
    char text[INET6_ADDRSTRLEN];
    ASSERT_EQ(fromText<Ip6Addr>(inet_ntop(AF_INET6, bytes.data(), text, sizeof(text))), addr) << text;
  }
}

TEST(NetTest, PrefixesClearHostBitsAndRefuseImpossibleLengths) {
  expectTexts<Prefix>({{"10.0.0.0/8", "10.0.0.0/8"},
                       {"10.0.0.1/8", "10.0.0.0/8"},
                       {"255.255.255.255/0", "0.0.0.0/0"},
                       {"10.1.2.3/32", "10.1.2.3/32"}});
  expectTexts<Ip6Prefix>({{"2001:db8::1/32", "2001:db8::/32"},
                          {"ffff:ffff:ffff:ffff:ffff::/65", "ffff:ffff:ffff:ffff:8000::/65"},
                          {"::1/64", "::/64"},
                          {"1::1/0", "::/0"},
                          {"::1/128", "::1/128"}});
  expectRefused<Prefix>({"", "10.0.0.0", "10.0.0.0/", "/8", "10.0.0.0/33", "10.0.0.0/08", "10.0.0.0/+8", "10.0.0.0/-1",
                         "10.0.0.0/ 8", "10.0.0.0/8 ", "10.0.0.0/8/8", "::/8", "10.0.0.0/4294967304"});
  expectRefused<Ip6Prefix>({"::", "::/129", "::/-1", "10.0.0.0/8", "::/8x"});
  EXPECT_THROW(Prefix(IpAddr(0), 33), RangeError);
  EXPECT_THROW(Ip6Prefix(Ip6Addr(), 129), RangeError);
}

TEST(NetTest, CoveringStopsAtTheLength) {
  const struct {
    const char* outer;
    const char* inner;
    bool covers;
  } cases[] = {{"0.0.0.0/0", "10.0.0.0/8", true},     {"10.0.0.0/8", "10.0.0.0/8", true},
               {"10.0.0.0/8", "0.0.0.0/0", false},    {"10.0.0.0/9", "10.128.0.0/9", false},
               {"10.0.0.0/31", "10.0.0.1/32", true},  {"::/0", "1::/16", true},
               {"1::/63", "1:0:0:1::/64", true},      {"1::/64", "1:0:0:1::/64", false},
               {"1::/65", "1::8000:0:0:0/65", false}, {"1::/127", "1::1/128", true}};
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.outer) + " over " + c.inner);
    const auto outer = fromText<IpGenPrefix>(c.outer);
    const auto inner = fromText<IpGenPrefix>(c.inner);
    EXPECT_EQ(outer.isV4() ? outer.v4().covers(inner.v4()) : outer.v6().covers(inner.v6()), c.covers);
  }
}

TEST(NetTest, AddressesOfEitherFamilyKnowWhichAndOrderByIt) {
  const char* const ordered[] = {"", "0.0.0.0/0", "10.0.0.0/8", "10.0.0.0/9", "200.0.0.0/8", "::/0", "::/8", "a00::/8"};
  for (std::size_t i = 0; i < std::size(ordered); ++i) {
    const auto value = fromText<IpGenPrefix>(ordered[i]);
    EXPECT_EQ(toText(value), ordered[i]);
    EXPECT_EQ(value.isEmpty(), i == 0);
    for (std::size_t j = 0; j < std::size(ordered); ++j) {
      const auto other = fromText<IpGenPrefix>(ordered[j]);
      EXPECT_EQ(value < other, i < j) << ordered[i] << " and " << ordered[j];
      EXPECT_EQ(value.hash() == other.hash(), i == j) << ordered[i] << " and " << ordered[j];
    }
  }
  EXPECT_TRUE(fromText<IpGenAddr>("::").isV6());
  EXPECT_TRUE(fromText<IpGenAddr>("").isEmpty());
  EXPECT_LT(IpGenAddr(IpAddr(0xFFFFFFFF)), IpGenAddr(Ip6Addr()));
}

TEST(NetTest, SmallTypesReadWhatTheyWrite) {
  expectTexts<EthAddr>({{"00:1c:73:00:00:01", "00:1c:73:00:00:01"}, {"AA:BB:CC:DD:EE:FF", "aa:bb:cc:dd:ee:ff"}});
  expectRefused<EthAddr>({"", "00:1c:73:00:00", "00:1c:73:00:00:0g", "00-1c-73-00-00-01",
                          "00:1c:73:00:00:01:", "001c73000001", "0:1c:73:00:00:001"});
  expectTexts<IntfId>({{"", ""}, {"Vxlan1", "Vxlan1"}, {"Vxlan254", "Vxlan254"}});
  expectRefused<IntfId>({"Vxlan1234", "a\nb", std::string_view("a\0b", 3)});
  expectTexts<Vxlan::Vni>({{"0", "0"}, {"16777215", "16777215"}, {"none", "none"}});
  expectRefused<Vxlan::Vni>({"", "16777216", "-1", "None", "010"});
  expectTexts<Fib::FecId>(
      {{"5", "0x5"}, {"0x1800000080000005", "0x1800000080000005"}, {"18446744073709551615", "0xffffffffffffffff"}});
  expectRefused<Fib::FecId>({"", "0x", "0x-1", "-1", "18446744073709551616", "5 "});
  EXPECT_EQ(toText(L3::VrfName()), "default");
  EXPECT_TRUE(TextForm<L3::VrfName>::from(std::string(100, 'v')).has_value());
  EXPECT_FALSE(TextForm<L3::VrfName>::from(std::string(101, 'v')).has_value());
  EXPECT_THROW(L3::VrfName(std::string(101, 'v')), RangeError);
  for (const std::string_view bad :
       {std::string_view("\xff"), std::string_view("r\xc3"), std::string_view("a\0b", 3)}) {
    EXPECT_FALSE(TextForm<L3::VrfName>::from(bad).has_value());
  }
  EXPECT_THROW(IntfId("Ethernet1/1"), RangeError);
  EXPECT_LT(IntfId("Vxlan1"), IntfId("Vxlan10"));
  EXPECT_LT(IntfId("Vxlan10"), IntfId("Vxlan2"));
  EXPECT_EQ(IntfId::fromValue(0x4100FF0000000000).name(), "A??");  // bytes that came from elsewhere stay printable
}

}  // namespace
