#include <gmock/gmock.h>

#include <functional>
#include <random>
#include <sstream>
#include <vector>

#include "RouteCache/RouteCache.h"

using namespace RouteCache;
using Platform::fromText;
using Platform::TextForm;
using Platform::toText;
using testing::ThrowsMessage;

namespace {

Ipv4RouteVrfKey key4(std::string_view text) {
  return fromText<Ipv4RouteVrfKey>(text);
}
Ipv6RouteVrfKey key6(std::string_view text) {
  return fromText<Ipv6RouteVrfKey>(text);
}

const EthAddr mac = fromText<EthAddr>("00:1c:73:00:00:01");
const Ipv4Adjacency adjacency4(Fib::FecId(0x0100000000000007), 1000, mac, IntfId("Vxlan1"),
                               fromText<IpAddr>("192.0.2.1"));
const Ipv6Adjacency adjacency6(Fib::FecId(0x0200000000000008), 1001, mac, IntfId("Vxlan1"),
                               fromText<Ip6Addr>("2001:db8::1"));

// --- Identifiers -----------------------------------------------------------------------------------------------------

TEST(AdjIdTest, ClassBitsDecideTheFamilies) {
  const struct {
    const char* what;
    std::uint32_t value;
    bool v4, v6, mixed;
  } cases[] = {{"none", 0, true, false, false},
               {"IPv4", 5, true, false, false},
               {"IPv6", 0x80000005, false, true, false},
               {"mixed counts as both", 0xC0000005, true, true, true},
               {"class 01 is no family", 0x40000005, false, false, false}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const AdjId id(c.value);
    EXPECT_EQ(id.isAdjacencyV4(), c.v4);
    EXPECT_EQ(id.isAdjacencyV6(), c.v6);
    EXPECT_EQ(id.isAdjacencyMixed(), c.mixed);
    EXPECT_EQ(AdjId::getAdjIdFromFecId(id.getFecIdFromAdjId()), id);
    EXPECT_EQ(AdjId::getAdjIdFromGlobalFecId(Fib::GlobalFecId(id.getFecIdFromAdjId().value())), id);
    EXPECT_EQ(id.getFecIdFromAdjId().value() >> 56, 24U);
    EXPECT_EQ(fromText<AdjId>(toText(id)), id);
  }
  EXPECT_EQ(valueToStrep(AdjId(AdjId::adjacencyMixedConst | 1)), "3221225473");
}

TEST(AdjIdTest, FecsOfOtherTypesAreAsserted) {
  const char* const wrongType = "assertion failed: fecId.adjType\\(\\) == Pondra::Fib::AdjType::routeCacheFwdAdj_ \\(";
  const char* const noType = "assertion failed: \\(value_ >> Fib::adjTypePos\\(\\)\\) < Fib::adjTypeMax\\(\\) \\(";
  EXPECT_DEATH(AdjId::getAdjIdFromFecId(Fib::FecId(Pondra::Fib::AdjType::ipv4NexthopAdj_, 5)), wrongType);
  EXPECT_DEATH(AdjId::getAdjIdFromGlobalFecId(Fib::GlobalFecId(0)), wrongType);
  EXPECT_DEATH(AdjId::getAdjIdFromFecId(Fib::FecId(std::uint64_t{31} << 56)), noType);
  EXPECT_DEATH(AdjId::getAdjIdFromGlobalFecId(Fib::GlobalFecId(std::uint64_t{255} << 56)), noType);
  EXPECT_EQ(Fib::FecId(std::uint64_t{30} << 56).adjType(), static_cast<Pondra::Fib::AdjType>(30));
}

TEST(ViaIndexTest, RefusesWhatIsOutOfRange) {
  EXPECT_EQ(ViaIndex(31).value(), 31);
  ViaIndex index(7);
  const std::function<void()> attempts[] = {[] { ViaIndex(32); }, [] { ViaIndex(65536); }, [&] { index.valueIs(32); },
                                            [] { fromText<ViaIndex>("32"); }, [] { fromText<ViaIndex>("65536"); }};
  const std::string refusal =
      "RouteCache::ViaIndex::value < RouteCache::ViaIndex::min or > RouteCache::ViaIndex::max not allowed";
  for (const auto& attempt : attempts) EXPECT_THAT(attempt, ThrowsMessage<RangeError>(refusal));
  EXPECT_EQ(index.value(), 7);
  EXPECT_THROW(fromText<ViaIndex>("-1"), Platform::BadText);
}

// --- Keys ------------------------------------------------------------------------------------------------------------

// The order of IPv4 keys, step by step: what the keys' comparison and their bytes must agree with.
bool standsBefore(const Ipv4RouteVrfKey& a, const Ipv4RouteVrfKey& b) {
  if (a.prefix() == b.prefix()) return a.vrfId() < b.vrfId();
  const unsigned shorter = std::min(a.prefix().length(), b.prefix().length());
  const bool longerFirst = a.prefix().length() > b.prefix().length();
  if (shorter == 0) return longerFirst;
  const auto mask = ~std::uint32_t{0} << (32 - shorter);
  const auto addrA = a.prefix().addr().value() & mask;
  const auto addrB = b.prefix().addr().value() & mask;
  return addrA != addrB ? addrA < addrB : longerFirst;
}

template <class Key>
auto bytesOf(const Key& key) {
  using Traits = Pondra::TableTraits<std::conditional_t<std::is_same_v<Key, Ipv4RouteVrfKey>, Ipv4Route, Ipv6Route>>;
  std::array<std::byte, Traits::keySize> bytes;
  Traits::encodeKey(key, bytes.data());
  EXPECT_EQ(Traits::decodeKey(bytes.data()), key);
  return bytes;
}

// Random prefixes that are often the same, neighbours, or inside one another.
template <class P>
P randomPrefix(std::mt19937& random) {
  const std::uint64_t pattern[] = {0, ~std::uint64_t{0}, 0x0a00000000000000, 0x0a0a0a0a0a0a0a0a,
                                   random() << 32 | random()};
  const auto pick = [&] {
    return pattern[random() % std::size(pattern)] ^ (std::uint64_t{random() % 2} << random() % 64);
  };
  const auto length = random() % (P::maxLength + 1);
  if constexpr (P::maxLength == 32) {
    return P(IpAddr(static_cast<std::uint32_t>(pick() >> 32)), static_cast<unsigned>(length));
  } else {
    return P(Ip6Addr(pick(), pick()), static_cast<unsigned>(length));
  }
}

std::uint32_t randomVrf(std::mt19937& random) {
  return static_cast<std::uint32_t>(random() % 3) * 0x01000001;
}

TEST(RouteVrfKeyTest, Ipv4OrderIsTheSameInEveryForm) {
  std::mt19937 random(20);
  for (int i = 0; i < 200000; ++i) {
    const Ipv4RouteVrfKey a(randomPrefix<Prefix>(random), randomVrf(random));
    const Ipv4RouteVrfKey b(random() % 4 == 0 ? a.prefix() : randomPrefix<Prefix>(random), randomVrf(random));
    const bool before = standsBefore(a, b);
    ASSERT_EQ(a < b, before) << a << " " << b;
    ASSERT_EQ(bytesOf(a) < bytesOf(b), before) << a << " " << b;
    ASSERT_EQ(a == b, !before && !standsBefore(b, a)) << a << " " << b;
  }
}

TEST(RouteVrfKeyTest, Ipv6BytesKeepTheOrder) {
  std::mt19937 random(21);
  for (int i = 0; i < 100000; ++i) {
    const Ipv6RouteVrfKey a(randomPrefix<Ip6Prefix>(random), randomVrf(random));
    const Ipv6RouteVrfKey b(random() % 4 == 0 ? a.prefix() : randomPrefix<Ip6Prefix>(random), randomVrf(random));
    ASSERT_EQ(bytesOf(a) < bytesOf(b), a < b) << a << " " << b;
    const bool before = a.prefix() == b.prefix() ? a.vrfId() < b.vrfId() : a.prefix() < b.prefix();
    ASSERT_EQ(a < b, before) << a << " " << b;
  }
}

// --- Texts -----------------------------------------------------------------------------------------------------------

template <class T>
void expectText(const T& value, const std::string& text) {
  SCOPED_TRACE(text);
  EXPECT_EQ(valueToStrep(value), text);
  std::ostringstream out;
  out << value;
  EXPECT_EQ(out.str(), text);
  const auto read = TextForm<T>::from(text);
  ASSERT_TRUE(read.has_value());
  EXPECT_EQ(*read, value);
  EXPECT_EQ(read->hash(), value.hash());
  for (std::size_t cut = 0; cut < text.size(); ++cut) {  // no part of it is a text of its own
    if (TextForm<T>::from(text.substr(0, cut))) ADD_FAILURE() << "accepted: " << text.substr(0, cut);
  }
  EXPECT_FALSE(TextForm<T>::from(text + " ").has_value());
}

TEST(RouteCacheTextTest, ValuesReadBackFromTheirTexts) {
  const std::string k4 = "Value('RouteCache::Ipv4RouteVrfKey', ** {'prefix': 10.0.0.0/8, 'vrfId': 7})";
  const std::string k6 = "Value('RouteCache::Ipv6RouteVrfKey', ** {'prefix': 2001:db8::/32, 'vrfId': 4294967295})";
  const std::string fields = "'extendedVlanId': 1000, 'routerMac': 00:1c:73:00:00:01, 'vti': Vxlan1";
  expectText(key4("10.0.0.0/8@7"), k4);
  expectText(key6("2001:db8::/32@4294967295"), k6);
  expectText(Ipv4Route(key4("10.0.0.0/8@7"), AdjId(5), true),
             "Value('RouteCache::Ipv4Route', ** {'key': " + k4 + ", 'adjId': 5, 'inHw': true})");
  expectText(Ipv6Route(key6("2001:db8::/32@4294967295"), AdjId(0x80000005), false),
             "Value('RouteCache::Ipv6Route', ** {'key': " + k6 + ", 'adjId': 2147483653, 'inHw': false})");
  expectText(Ipv4RouteHitBit(key4("10.0.0.0/8@7"), 255),
             "Value('RouteCache::Ipv4RouteHitBit', ** {'key': " + k4 + ", 'hitbit': 255})");
  expectText(Ipv4ProgrammedRoute(key4("10.0.0.0/8@7")), k4);
  expectText(static_cast<const Adjacency&>(adjacency4),
             "Value('RouteCache::Adjacency', ** {'underlayFecId': 0x100000000000007, " + fields + "})");
  expectText(adjacency4, "Value('RouteCache::Ipv4Adjacency', ** {'underlayFecId': 0x100000000000007, " + fields +
                             ", 'remoteVtepIp': 192.0.2.1})");
  expectText(Ipv6Adjacency(),
             "Value('RouteCache::Ipv6Adjacency', ** {'underlayFecId': 0x0, 'extendedVlanId': 0, "
             "'routerMac': 00:00:00:00:00:00, 'vti': , 'remoteVtepIp': ::})");
}

TEST(RouteCacheTextTest, OnlyTheFormOfTheTypeIsRead) {
  const std::string_view texts[] = {
      "",
      "10.0.0.0/8",
      "10.0.0.0/8@",
      "@7",
      "10.0.0.0/8@7@7",
      "10.0.0.0/8@-1",
      "10.0.0.0/8@4294967296",
      "2001:db8::/32@7",
      "Value('RouteCache::Ipv6RouteVrfKey', ** {'prefix': 10.0.0.0/8, 'vrfId': 7})",
      "Value('RouteCache::Ipv4RouteVrfKey', ** {'vrfId': 7, 'prefix': 10.0.0.0/8})",
      "Value('RouteCache::Ipv4RouteVrfKey', ** {'prefix': 10.0.0.0/8})",
      "Value('RouteCache::Ipv4RouteVrfKey', ** {'prefix': 10.0.0.0/33, 'vrfId': 7})",
      "Value('RouteCache::Ipv4RouteVrfKey', ** {'prefix': 10.0.0.0/8, 'vrfId': 7, 'x': 1})"};
  for (const auto text : texts) EXPECT_FALSE(TextForm<Ipv4RouteVrfKey>::from(text).has_value()) << text;
}

TEST(RouteCacheTextTest, TracesSayTheSameAsTheTexts) {
  Platform::TraceVocabulary vocabulary;
  registerTraceWords(vocabulary);
  Platform::TraceRecord record;
  record.add(key4("10.0.0.0/8@7"));
  record.add(" ");
  record.add(key6("::/0@1"));
  record.add(AdjId(9));
  EXPECT_EQ(vocabulary.text(record.bytes()), toText(key4("10.0.0.0/8@7")) + " " + toText(key6("::/0@1")) + "9");
}

// --- Equality --------------------------------------------------------------------------------------------------------

template <class T>
void expectAllDiffer(const std::vector<T>& values) {
  for (std::size_t i = 0; i < values.size(); ++i) {
    for (std::size_t j = 0; j < values.size(); ++j) {
      EXPECT_EQ(values[i] == values[j], i == j) << values[i] << " " << values[j];
      EXPECT_EQ(values[i].hash() == values[j].hash(), i == j) << values[i] << " " << values[j];
    }
  }
}

TEST(EqualityTest, EachFieldTellsTwoValuesApart) {
  std::vector<Ipv4Adjacency> adjacencies(6, adjacency4);
  adjacencies[1].underlayFecIdIs(Fib::FecId());
  adjacencies[2].extendedVlanIdIs(7);
  adjacencies[3].routerMacIs(EthAddr());
  adjacencies[4].vtiIs(IntfId("Vxlan2"));
  adjacencies[5].remoteVtepIpIs(IpAddr(2));
  expectAllDiffer(adjacencies);
  const auto key = key4("10.0.0.0/8@7");
  expectAllDiffer<Ipv4Route>({{key, AdjId(5), true},
                              {key, AdjId(5), false},
                              {key, AdjId(6), true},
                              {key4("10.0.0.0/9@7"), AdjId(5), true},
                              {key4("10.0.0.0/8@8"), AdjId(5), true}});
}

// --- Vias ------------------------------------------------------------------------------------------------------------

TEST(ViaTest, CountFollowsTheHighestSlot) {
  Ipv4Via via(AdjId(5));
  via.viaKeyIs(ViaIndex(5), adjacency4);
  EXPECT_EQ(via.viaKey().size(), 6U);
  EXPECT_EQ(via.viaKey()[4], Ipv4Adjacency());
  via.viaKeyIs(ViaIndex(0), adjacency4);
  EXPECT_EQ(via.viaKey().size(), 6U);

  Ipv4Via other = via;
  other.viaKeyDelAll();
  EXPECT_EQ(other.viaKey().size(), 0U);
  EXPECT_NE(other, via);
  EXPECT_EQ(other, Ipv4Via(AdjId(5)));  // what unused slots still hold does not count
  EXPECT_EQ(other.hash(), Ipv4Via(AdjId(5)).hash());
  EXPECT_EQ(valueToStrep(other), "Value('RouteCache::Ipv4Via', ** {'key': 5, 'viaKey': []})");
  other.viaKeyIs(ViaIndex(0), adjacency4);
  EXPECT_EQ(valueToStrep(other),
            "Value('RouteCache::Ipv4Via', ** {'key': 5, 'viaKey': [" + valueToStrep(adjacency4) + "]})");
}

TEST(ViaTest, ArraysRefuseMoreThanTheyHold) {
  PodArray<int, 3> array;
  array.set(2, 1);
  EXPECT_THAT([&] { array.set(3, 1); }, ThrowsMessage<RangeError>("PodArray::set expected size <= 3"));
  EXPECT_EQ(array.size(), 3U);
}

TEST(ViaTest, CannotBeReadFromText) {
  EXPECT_DEATH(static_cast<void>(TextForm<Ipv4Via>::from("5")),
               "assertion failed: \"No String constructor for Ipv4Via - has collection\" == nullptr \\(");
  EXPECT_DEATH(static_cast<void>(TextForm<Ipv6Via>::from("5")),
               "assertion failed: \"No String constructor for Ipv6Via - has collection\" == nullptr \\(");
}

// --- Bytes in the tables ---------------------------------------------------------------------------------------------

template <class Value>
std::vector<std::byte> encoded(const Value& value) {
  using Traits = Pondra::TableTraits<Value>;
  std::vector<std::byte> bytes(Traits::maxValueSize);
  bytes.resize(Traits::encode(value, bytes.data()));
  return bytes;
}

template <class Value>
std::string hex(const Value& value) {
  std::string text;
  for (const std::byte byte : encoded(value)) {
    constexpr std::string_view digits = "0123456789abcdef";
    text += {digits[std::to_integer<std::size_t>(byte) >> 4], digits[std::to_integer<std::size_t>(byte) & 15]};
  }
  return text;
}

template <class Value>
void expectRoundTrip(const Value& value) {
  using Traits = Pondra::TableTraits<Value>;
  auto bytes = encoded(value);
  const auto decoded = Traits::decode(value.key(), bytes);
  ASSERT_TRUE(decoded.has_value());
  EXPECT_EQ(*decoded, value);
  bytes.push_back(std::byte{0});
  EXPECT_FALSE(Traits::decode(value.key(), bytes).has_value()) << "a byte too many";
  bytes.resize(bytes.size() - 2);
  EXPECT_FALSE(Traits::decode(value.key(), bytes).has_value()) << "a byte too few";
  EXPECT_FALSE(Traits::decode(value.key(), {}).has_value()) << "nothing";
}

TEST(TableBytesTest, AreTheDocumentedOnes) {
  const Ipv4Route route(key4("10.0.0.0/8@7"), AdjId(0xC0000001), true);
  EXPECT_EQ(hex(route), "c000000101");
  EXPECT_EQ(hex(Ipv6Route(key6("::/0@1"), AdjId(2), false)), "0000000200");
  EXPECT_EQ(hex(Ipv4RouteHitBit(route.key(), 0x01020304)), "01020304");
  EXPECT_EQ(hex(Ipv4ProgrammedRoute(route.key())), "01");

  const std::string overlay =
      "03e8001c730000015678"
      "6c616e310000";
  Ipv4Via via4(AdjId(5));
  via4.viaKeyIs(ViaIndex(0), adjacency4);
  EXPECT_EQ(hex(via4),
            "0000000500000001"
            "0100000000000007" +
                overlay + "c0000201");
  Ipv6Via via6(AdjId(0x80000006));
  via6.viaKeyIs(ViaIndex(1), adjacency6);
  EXPECT_EQ(hex(via6).substr(0, 16), "8000000600000002");
  EXPECT_EQ(hex(via6).substr(16, 80), std::string(80, '0'));
  EXPECT_EQ(hex(via6).substr(96 + 48), "20010db8000000000000000000000001");
}

TEST(TableBytesTest, ReadBackAndOtherSizesAreRefused) {
  expectRoundTrip(Ipv4Route(key4("10.0.0.0/8@7"), AdjId(1), true));
  expectRoundTrip(Ipv6Route(key6("::/0@7"), AdjId(1), false));
  expectRoundTrip(Ipv4RouteHitBit(key4("10.0.0.0/8@7"), 255));
  expectRoundTrip(Ipv4ProgrammedRoute(key4("10.0.0.0/8@7")));
  for (const unsigned count : {0U, 1U, 32U}) {
    Ipv4Via via4(AdjId(5));
    Ipv6Via via6(AdjId(0x80000005));
    for (unsigned i = 0; i < count; ++i) {
      via4.viaKeyIs(ViaIndex(i), adjacency4);
      via6.viaKeyIs(ViaIndex(i), adjacency6);
    }
    expectRoundTrip(via4);
    expectRoundTrip(via6);
    EXPECT_EQ(encoded(via4).size(), 8 + 28 * count);
    EXPECT_EQ(encoded(via6).size(), 8 + 40 * count);
  }
}

TEST(TableBytesTest, MalformedBytesAreNoValue) {
  const auto key = key4("10.0.0.0/8@7");
  auto route = encoded(Ipv4Route(key, AdjId(1), true));
  route.back() = std::byte{2};
  EXPECT_FALSE(Pondra::TableTraits<Ipv4Route>::decode(key, route).has_value()) << "a bool of 2";
  const std::byte noMark[1] = {};
  EXPECT_FALSE(Pondra::TableTraits<Ipv4ProgrammedRoute>::decode(key, noMark).has_value());

  std::vector<std::byte> via(8 + 33 * sizeof(Ipv4Adjacency), std::byte{1});
  std::fill_n(via.begin(), 8, std::byte{0});
  via[7] = std::byte{33};
  EXPECT_FALSE(Pondra::TableTraits<Ipv4Via>::decode(AdjId(0), via).has_value()) << "33 slots";
  via.assign(8, std::byte{0});
  EXPECT_TRUE(Pondra::TableTraits<Ipv4Via>::decode(AdjId(0), via).has_value());
  EXPECT_FALSE(Pondra::TableTraits<Ipv4Via>::decode(AdjId(1), via).has_value()) << "another key's via";

  auto bytes4 = bytesOf(key);
  bytes4[4] = std::byte{33};
  EXPECT_FALSE(Pondra::TableTraits<Ipv4Route>::decodeKey(bytes4.data()).has_value()) << "33 host bits";
  bytes4[4] = std::byte{25};
  EXPECT_FALSE(Pondra::TableTraits<Ipv4Route>::decodeKey(bytes4.data()).has_value()) << "not the last address";
  auto bytes6 = bytesOf(key6("2001:db8::/32@7"));
  bytes6[16] = std::byte{129};
  EXPECT_FALSE(Pondra::TableTraits<Ipv6Route>::decodeKey(bytes6.data()).has_value()) << "length 129";
  bytes6[16] = std::byte{28};
  EXPECT_FALSE(Pondra::TableTraits<Ipv6Route>::decodeKey(bytes6.data()).has_value()) << "host bits set";
}

}  // namespace
