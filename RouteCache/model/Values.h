// The values that the route cache exchanges with other processes: route keys, adjacency identifiers, routes, vias, hit
// bits. Plain values: copied, compared, hashed, trivially copyable.
//
// Every type has a text (valueToStrep, operator<<, Platform::TextForm); those with named fields are written
// "Value('<type>', ** {'<field>': <text>, ...})". IPv4 and IPv6 twins are one template over a family.
#pragma once

#include <algorithm>
#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <ostream>
#include <span>
#include <string>
#include <type_traits>

#include "platform/trace/Trace.h"
#include "platform/values/Net.h"
#include "platform/values/ValueText.h"

namespace RouteCache {

// --- Families --------------------------------------------------------------------------------------------------------

struct Ipv4Family {
  using Addr = ::IpAddr;
  using Prefix = ::Prefix;
  static constexpr AddressFamily family = AddressFamily::ipv4;
  static Prefix prefix(const IpGenPrefix& prefix) { return prefix.v4(); }
  static constexpr const char* keyTypeName = "RouteCache::Ipv4RouteVrfKey";
  static constexpr const char* keyWhat = "an IPv4 route key (prefix@vrfId)";
  static constexpr const char* routeTypeName = "RouteCache::Ipv4Route";
  static constexpr const char* routeWhat = "an IPv4 route";
  static constexpr const char* adjacencyTypeName = "RouteCache::Ipv4Adjacency";
  static constexpr const char* adjacencyWhat = "an IPv4 adjacency";
  static constexpr const char* viaTypeName = "RouteCache::Ipv4Via";
  static constexpr const char* noViaFromText = "\"No String constructor for Ipv4Via - has collection\" == nullptr";

  // The order of the keys: a prefix stands before those that cover it. Two prefixes either have no address in common,
  // or one covers the other; so this is the order by the last address, and among equals the longer prefix comes first.
  static constexpr std::strong_ordering compare(const Prefix& a, const Prefix& b) { return rank(a) <=> rank(b); }
  static constexpr std::uint64_t rank(const Prefix& prefix) {
    return std::uint64_t{prefix.last().value()} << 8 | (Prefix::maxLength - prefix.length());
  }
  // Of all prefixes that this one covers, itself included, the first in the order of the keys. In either family they
  // stand together.
  static constexpr Prefix firstCovered(const Prefix& prefix) { return {prefix.addr(), Prefix::maxLength}; }
  static constexpr std::uint64_t hash(const Prefix& prefix) {
    std::uint32_t h = (prefix.addr().value() ^ prefix.length()) * 32767U - 1U;
    h ^= h >> 12;
    h *= 5;
    h ^= h >> 4;
    h *= 2057;
    h ^= h >> 16;
    return h;
  }
};

struct Ipv6Family {
  using Addr = ::Ip6Addr;
  using Prefix = ::Ip6Prefix;
  static constexpr AddressFamily family = AddressFamily::ipv6;
  static Prefix prefix(const IpGenPrefix& prefix) { return prefix.v6(); }
  static constexpr const char* keyTypeName = "RouteCache::Ipv6RouteVrfKey";
  static constexpr const char* keyWhat = "an IPv6 route key (prefix@vrfId)";
  static constexpr const char* routeTypeName = "RouteCache::Ipv6Route";
  static constexpr const char* routeWhat = "an IPv6 route";
  static constexpr const char* adjacencyTypeName = "RouteCache::Ipv6Adjacency";
  static constexpr const char* adjacencyWhat = "an IPv6 adjacency";
  static constexpr const char* viaTypeName = "RouteCache::Ipv6Via";
  static constexpr const char* noViaFromText = "\"No String constructor for Ipv6Via - has collection\" == nullptr";

  static constexpr std::strong_ordering compare(const Prefix& a, const Prefix& b) { return a <=> b; }
  static constexpr Prefix firstCovered(const Prefix& prefix) { return prefix; }
  static constexpr std::uint64_t hash(const Prefix& prefix) { return prefix.hash(); }
};

// --- Identifiers -----------------------------------------------------------------------------------------------------

// A route-cache adjacency identifier. Bits 31..30 are the class: 00 IPv4, 10 IPv6, 11 mixed (for routes of both
// families alike); 01 is never produced. Bits 20..0 are the adjacency's number. Text: the value in decimal.
class AdjId {
 public:
  static constexpr const char* typeName = "RouteCache::AdjId";

  static constexpr std::uint32_t adjacencyV6Const = 0x80000000;     // class bits of an IPv6 adjacency
  static constexpr std::uint32_t adjacencyMixedConst = 0xC0000000;  // class bits of a mixed adjacency
  static constexpr std::uint32_t adjacencyInvalid = 0;              // no adjacency
  static constexpr std::uint32_t adjacencyIdStart = 1;              // the first number handed out
  static constexpr std::uint32_t adjacencyIdMax = 0x1FFFFF;         // the last number handed out
  static constexpr std::uint32_t adjacencyIdMask = 0x1FFFFF;        // extracts the number

  constexpr AdjId() = default;
  constexpr explicit AdjId(std::uint32_t value) : value_(value) {}
  constexpr std::uint32_t value() const { return value_; }
  constexpr void valueIs(std::uint32_t value) { value_ = value; }

  // A mixed adjacency is both: ask isAdjacencyMixed() first for the exact class.
  constexpr bool isAdjacencyV6() const { return (value_ & adjacencyV6Const) != 0; }
  constexpr bool isAdjacencyV4() const { return (value_ & adjacencyMixedConst) == 0 || isAdjacencyMixed(); }
  constexpr bool isAdjacencyMixed() const { return (value_ & adjacencyMixedConst) == adjacencyMixedConst; }

  // A FEC of the route-cache forwarding type, with the whole value (class bits included) as its index, and back. Back
  // asserts the type.
  Fib::FecId getFecIdFromAdjId() const;
  static AdjId getAdjIdFromFecId(Fib::FecId fecId);
  static AdjId getAdjIdFromGlobalFecId(Fib::GlobalFecId fecId);

  constexpr auto operator<=>(const AdjId&) const = default;
  constexpr std::uint64_t hash() const { return Platform::hashOf(value_); }

 private:
  std::uint32_t value_ = 0;
};

// The slot of a next hop in a via: 0 to 31. Text: the value in decimal.
class ViaIndex {
 public:
  static constexpr const char* typeName = "RouteCache::ViaIndex";
  static constexpr std::uint16_t min = 0;
  static constexpr std::uint16_t max = 31;

  constexpr ViaIndex() = default;
  // Throws RangeError over max; wide, so that no number wraps into the range.
  explicit ViaIndex(std::uint64_t value) : value_(checked(value)) {}
  constexpr std::uint16_t value() const { return value_; }
  void valueIs(std::uint64_t value) { value_ = checked(value); }
  constexpr auto operator<=>(const ViaIndex&) const = default;
  constexpr std::uint64_t hash() const { return Platform::hashOf(value_); }

 private:
  static std::uint16_t checked(std::uint64_t value);
  std::uint16_t value_ = 0;
};

// --- Routes ----------------------------------------------------------------------------------------------------------

// The key of a cached route: a prefix in a VRF, given by its hardware VRF id. IPv4 keys are ordered so that a prefix
// stands before all that cover it (0.0.0.0/0 is the last), IPv6 keys as Ip6Prefix is; the VRF id breaks ties between
// identical prefixes. People may write the key short: "10.0.0.0/8@7".
template <class Family>
class BasicRouteVrfKey {
 public:
  using FamilyType = Family;
  using Prefix = typename Family::Prefix;
  static constexpr const char* typeName = Family::keyTypeName;
  static constexpr const char* what = Family::keyWhat;

  constexpr BasicRouteVrfKey() = default;
  constexpr BasicRouteVrfKey(const Prefix& prefix, std::uint32_t vrfId) : prefix_(prefix), vrfId_(vrfId) {}
  constexpr const Prefix& prefix() const { return prefix_; }
  constexpr void prefixIs(const Prefix& prefix) { prefix_ = prefix; }
  constexpr std::uint32_t vrfId() const { return vrfId_; }
  constexpr void vrfIdIs(std::uint32_t vrfId) { vrfId_ = vrfId; }

  constexpr bool operator==(const BasicRouteVrfKey&) const = default;
  constexpr std::strong_ordering operator<=>(const BasicRouteVrfKey& other) const {
    const auto order = Family::compare(prefix_, other.prefix_);
    return order != 0 ? order : vrfId_ <=> other.vrfId_;
  }
  constexpr std::uint64_t hash() const { return Platform::hashMix(Family::hash(prefix_), vrfId_); }

  static constexpr auto valueParts() {
    return std::tuple(Platform::valuePart("prefix", &BasicRouteVrfKey::prefix),
                      Platform::valuePart("vrfId", &BasicRouteVrfKey::vrfId));
  }
  std::string shortText() const { return Platform::toText(prefix_) + "@" + Platform::toText(vrfId_); }
  static std::optional<BasicRouteVrfKey> fromShortText(std::string_view text) {
    const auto at = text.find('@');
    if (at == std::string_view::npos) return std::nullopt;
    const auto prefix = Platform::TextForm<Prefix>::from(text.substr(0, at));
    const auto vrfId = Platform::TextForm<std::uint32_t>::from(text.substr(at + 1));
    if (!prefix || !vrfId) return std::nullopt;
    return BasicRouteVrfKey(*prefix, *vrfId);
  }

 private:
  Prefix prefix_;
  std::uint32_t vrfId_ = 0;
};
using Ipv4RouteVrfKey = BasicRouteVrfKey<Ipv4Family>;
using Ipv6RouteVrfKey = BasicRouteVrfKey<Ipv6Family>;

// One cached route.
template <class FamilyType>
class BasicRoute {
 public:
  using Family = FamilyType;
  using Key = BasicRouteVrfKey<Family>;
  static constexpr const char* typeName = Family::routeTypeName;
  static constexpr const char* what = Family::routeWhat;

  constexpr BasicRoute() = default;
  constexpr BasicRoute(const Key& key, AdjId adjId, bool inHw) : key_(key), adjId_(adjId), inHw_(inHw) {}
  constexpr const Key& key() const { return key_; }
  constexpr void keyIs(const Key& key) { key_ = key; }
  constexpr AdjId adjId() const { return adjId_; }  // adjacencyInvalid: none
  constexpr void adjIdIs(AdjId adjId) { adjId_ = adjId; }
  constexpr bool inHw() const { return inHw_; }  // is, or is to be, in the hardware's table
  constexpr void inHwIs(bool inHw) { inHw_ = inHw; }

  constexpr bool operator==(const BasicRoute&) const = default;
  constexpr std::uint64_t hash() const {
    return Platform::hashMix(Platform::hashMix(key_.hash(), adjId_.value()), inHw_ ? 1 : 0);
  }
  static constexpr auto valueParts() {
    return std::tuple(Platform::valuePart("key", &BasicRoute::key), Platform::valuePart("adjId", &BasicRoute::adjId),
                      Platform::valuePart("inHw", &BasicRoute::inHw));
  }

 private:
  Key key_;
  AdjId adjId_;
  bool inHw_ = false;
};
using Ipv4Route = BasicRoute<Ipv4Family>;
using Ipv6Route = BasicRoute<Ipv6Family>;

// A route that the software forwarding engine has programmed: nothing but its key. Text: that of the key.
class Ipv4ProgrammedRoute {
 public:
  static constexpr const char* typeName = "RouteCache::Ipv4ProgrammedRoute";

  constexpr Ipv4ProgrammedRoute() = default;
  constexpr explicit Ipv4ProgrammedRoute(const Ipv4RouteVrfKey& key) : key_(key) {}
  constexpr const Ipv4RouteVrfKey& key() const { return key_; }
  constexpr void keyIs(const Ipv4RouteVrfKey& key) { key_ = key; }
  constexpr bool operator==(const Ipv4ProgrammedRoute&) const = default;
  constexpr std::uint64_t hash() const { return key_.hash(); }

 private:
  Ipv4RouteVrfKey key_;
};

// What the hardware or the software forwarding engine says of a route's traffic: 0 is none, higher is more recent.
class Ipv4RouteHitBit {
 public:
  static constexpr const char* typeName = "RouteCache::Ipv4RouteHitBit";
  static constexpr const char* what = "an IPv4 route's hit bit";

  constexpr Ipv4RouteHitBit() = default;
  constexpr Ipv4RouteHitBit(const Ipv4RouteVrfKey& key, std::uint32_t hitbit) : key_(key), hitbit_(hitbit) {}
  constexpr const Ipv4RouteVrfKey& key() const { return key_; }
  constexpr void keyIs(const Ipv4RouteVrfKey& key) { key_ = key; }
  constexpr std::uint32_t hitbit() const { return hitbit_; }
  constexpr void hitbitIs(std::uint32_t hitbit) { hitbit_ = hitbit; }
  constexpr bool operator==(const Ipv4RouteHitBit&) const = default;
  constexpr std::uint64_t hash() const { return Platform::hashMix(key_.hash(), hitbit_); }
  static constexpr auto valueParts() {
    return std::tuple(Platform::valuePart("key", &Ipv4RouteHitBit::key),
                      Platform::valuePart("hitbit", &Ipv4RouteHitBit::hitbit));
  }

 private:
  Ipv4RouteVrfKey key_;
  std::uint32_t hitbit_ = 0;
};

// --- Adjacencies -----------------------------------------------------------------------------------------------------

// An unsigned number kept as its bytes in network order, at any address: records built of it have no gaps and read the
// same in every process.
template <class T>
class WireNumber {
 public:
  constexpr WireNumber() = default;
  constexpr explicit WireNumber(T value) {
    for (std::size_t i = 0; i < sizeof(T); ++i) {
      bytes_[i] = static_cast<std::uint8_t>(value >> (8 * (sizeof(T) - 1 - i)));
    }
  }
  constexpr T value() const {
    T value = 0;
    for (const std::uint8_t byte : bytes_) value = static_cast<T>(std::uint64_t{value} << 8 | byte);
    return value;
  }
  constexpr bool operator==(const WireNumber&) const = default;

 private:
  std::array<std::uint8_t, sizeof(T)> bytes_{};
};

// An overlay next hop as the hardware sees it. Lies in shared memory, packed, every number in network byte order:
//   offset  size  field
//        0     8  underlayFecId    the underlay route to the remote tunnel end point; 0: not resolved
//        8     2  extendedVlanId   the overlay's forwarding domain
//       10     6  routerMac        of the remote end point
//       16     8  vti              name of the VXLAN tunnel interface, zero filled
class Adjacency {
 public:
  static constexpr const char* typeName = "RouteCache::Adjacency";
  static constexpr const char* what = "an adjacency";

  constexpr Adjacency() = default;
  constexpr Adjacency(Fib::FecId underlayFecId, Bridging::ExtendedVlanId extendedVlanId, const EthAddr& routerMac,
                      IntfId vti)
      : underlayFecId_(underlayFecId.value()),
        extendedVlanId_(extendedVlanId),
        routerMac_(routerMac),
        vti_(vti.value()) {}
  constexpr Fib::FecId underlayFecId() const { return Fib::FecId(underlayFecId_.value()); }
  constexpr void underlayFecIdIs(Fib::FecId fecId) { underlayFecId_ = WireNumber(fecId.value()); }
  constexpr Bridging::ExtendedVlanId extendedVlanId() const { return extendedVlanId_.value(); }
  constexpr void extendedVlanIdIs(Bridging::ExtendedVlanId vlan) { extendedVlanId_ = WireNumber(vlan); }
  constexpr EthAddr routerMac() const { return routerMac_; }
  constexpr void routerMacIs(const EthAddr& mac) { routerMac_ = mac; }
  constexpr IntfId vti() const { return IntfId::fromValue(vti_.value()); }
  constexpr void vtiIs(IntfId vti) { vti_ = WireNumber(vti.value()); }

  constexpr bool operator==(const Adjacency&) const = default;
  constexpr std::uint64_t hash() const {
    const auto fecAndVlan = Platform::hashMix(underlayFecId().hash(), extendedVlanId());
    return Platform::hashMix(Platform::hashMix(fecAndVlan, routerMac_.value()), vti_.value());
  }
  static constexpr auto valueParts() {
    return std::tuple(Platform::valuePart("underlayFecId", &Adjacency::underlayFecId),
                      Platform::valuePart("extendedVlanId", &Adjacency::extendedVlanId),
                      Platform::valuePart("routerMac", &Adjacency::routerMac),
                      Platform::valuePart("vti", &Adjacency::vti));
  }

 private:
  WireNumber<std::uint64_t> underlayFecId_;
  WireNumber<Bridging::ExtendedVlanId> extendedVlanId_;
  EthAddr routerMac_;
  WireNumber<std::uint64_t> vti_;
};
static_assert(sizeof(Adjacency) == 24 && alignof(Adjacency) == 1, "other processes read these bytes");

// An Adjacency and the remote tunnel end point's address, behind it in network byte order:
//   offset  size  field
//       24     4  remoteVtepIp     in an Ipv4Adjacency
//       24    16  remoteVtepIp     in an Ipv6Adjacency
template <class Family>
class BasicAdjacency : public Adjacency {
 public:
  using Addr = typename Family::Addr;
  static constexpr const char* typeName = Family::adjacencyTypeName;
  static constexpr const char* what = Family::adjacencyWhat;

  constexpr BasicAdjacency() = default;
  constexpr BasicAdjacency(Fib::FecId underlayFecId, Bridging::ExtendedVlanId extendedVlanId, const EthAddr& routerMac,
                           IntfId vti, const Addr& remoteVtepIp)
      : Adjacency(underlayFecId, extendedVlanId, routerMac, vti), remoteVtepIp_(packed(remoteVtepIp)) {}
  constexpr Addr remoteVtepIp() const { return unpacked(remoteVtepIp_); }
  constexpr void remoteVtepIpIs(const Addr& addr) { remoteVtepIp_ = packed(addr); }

  constexpr bool operator==(const BasicAdjacency&) const = default;
  constexpr std::uint64_t hash() const { return Platform::hashMix(Adjacency::hash(), remoteVtepIp().hash()); }
  static constexpr auto valueParts() {
    return std::tuple_cat(Adjacency::valueParts(),
                          std::tuple(Platform::valuePart("remoteVtepIp", &BasicAdjacency::remoteVtepIp)));
  }

 private:
  static constexpr WireNumber<std::uint32_t> packed(IpAddr addr) { return WireNumber(addr.value()); }
  static constexpr Ip6Addr packed(const Ip6Addr& addr) { return addr; }
  static constexpr IpAddr unpacked(WireNumber<std::uint32_t> addr) { return IpAddr(addr.value()); }
  static constexpr Ip6Addr unpacked(const Ip6Addr& addr) { return addr; }
  decltype(packed(Addr())) remoteVtepIp_{};
};
using Ipv4Adjacency = BasicAdjacency<Ipv4Family>;
using Ipv6Adjacency = BasicAdjacency<Ipv6Family>;
static_assert(sizeof(Ipv4Adjacency) == 28 && sizeof(Ipv6Adjacency) == 40, "other processes read these bytes");

// An array of at most N values, with a count of those in use. Slots keep what they held when the count falls.
template <class T, std::uint32_t N>
class PodArray {
 public:
  static constexpr std::uint32_t capacity = N;
  constexpr std::uint32_t size() const { return count_.value(); }
  // The slots in use.
  constexpr std::span<const T> values() const { return {slots_.data(), size()}; }
  constexpr auto begin() const { return values().begin(); }
  constexpr auto end() const { return values().end(); }
  constexpr const T& operator[](std::size_t index) const { return slots_[index]; }  // index < N
  // Stores in the slot; the count grows to include it. Throws RangeError for an index of N or more.
  void set(std::size_t index, const T& value) {
    if (index >= N) throw RangeError("PodArray::set expected size <= " + std::to_string(N));
    slots_[index] = value;
    if (index >= size()) count_ = WireNumber(static_cast<std::uint32_t>(index + 1));
  }
  void clear() { count_ = WireNumber<std::uint32_t>(0); }
  constexpr bool operator==(const PodArray& other) const { return std::ranges::equal(values(), other.values()); }

 private:
  WireNumber<std::uint32_t> count_;
  std::array<T, N> slots_{};
};

// An adjacency identifier with its next hops: what an adjacency table holds. In shared memory, in network byte order;
// the table keeps the bytes up to the last slot in use:
//   offset          size  field
//        0             4  key      AdjId
//        4             4  count    slots in use, at most 32
//        8  count x slot  viaKey   Ipv4Adjacency (28 bytes each) or Ipv6Adjacency (40)
// Cannot be read from text: TextForm::from asserts.
template <class Family>
class BasicVia {
 public:
  using Adjacency = BasicAdjacency<Family>;
  using ViaKeys = PodArray<Adjacency, ViaIndex::max + 1>;
  static constexpr const char* typeName = Family::viaTypeName;

  constexpr BasicVia() = default;
  constexpr explicit BasicVia(AdjId key) : key_(key.value()) {}
  constexpr BasicVia(AdjId key, const ViaKeys& viaKey) : key_(key.value()), viaKey_(viaKey) {}
  constexpr AdjId key() const { return AdjId(key_.value()); }
  constexpr void keyIs(AdjId key) { key_ = WireNumber(key.value()); }
  constexpr const ViaKeys& viaKey() const { return viaKey_; }
  void viaKeyIs(ViaIndex index, const Adjacency& adjacency) { viaKey_.set(index.value(), adjacency); }
  void viaKeyDelAll() { viaKey_.clear(); }

  constexpr bool operator==(const BasicVia&) const = default;
  std::uint64_t hash() const {
    std::uint64_t h = key().hash();
    for (const Adjacency& adjacency : viaKey_) h = Platform::hashMix(h, adjacency.hash());
    return h;
  }

 private:
  WireNumber<std::uint32_t> key_;
  ViaKeys viaKey_;
};
using Ipv4Via = BasicVia<Ipv4Family>;
using Ipv6Via = BasicVia<Ipv6Family>;
static_assert(sizeof(Ipv4Via) == 904 && sizeof(Ipv6Via) == 1288, "other processes read these bytes");

// The words for this agent's values in traces.
void registerTraceWords(Platform::TraceVocabulary& vocabulary);

}  // namespace RouteCache

namespace Platform {

template <>
inline constexpr std::uint8_t traceCode<RouteCache::AdjId> = 32;
template <>
inline constexpr std::uint8_t traceCode<RouteCache::Ipv4RouteVrfKey> = 33;
template <>
inline constexpr std::uint8_t traceCode<RouteCache::Ipv6RouteVrfKey> = 34;

PLATFORM_TEXT_FORM(RouteCache::AdjId, "an adjacency id");
PLATFORM_TEXT_FORM(RouteCache::ViaIndex, "a via index (0 to 31)");  // from() throws RangeError for a number over 31
PLATFORM_TEXT_FORM(RouteCache::Ipv4ProgrammedRoute, "an IPv4 route key (prefix@vrfId)");

// The slots in use, between brackets; not read back.
template <class T, std::uint32_t N>
struct TextForm<RouteCache::PodArray<T, N>> {
  static std::string to(const RouteCache::PodArray<T, N>& values) {
    std::string text = "[";
    for (const T& value : values) {
      if (text.size() > 1) text += ", ";
      text += toText(value);
    }
    return text + "]";
  }
};

template <class Family>
struct TextForm<RouteCache::BasicVia<Family>> {
  static constexpr const char* what = "a via";
  static std::string to(const RouteCache::BasicVia<Family>& value);
  [[noreturn]] static std::optional<RouteCache::BasicVia<Family>> from(std::string_view text);
};
extern template struct TextForm<RouteCache::Ipv4Via>;
extern template struct TextForm<RouteCache::Ipv6Via>;

}  // namespace Platform

namespace RouteCache {

template <class T>
concept NamedValue = requires(const T& value) {
  T::typeName;
  { Platform::TextForm<T>::to(value) } -> std::same_as<std::string>;
};

// The canonical text.
template <NamedValue T>
std::string valueToStrep(const T& value) {
  return Platform::toText(value);
}

template <NamedValue T>
std::ostream& operator<<(std::ostream& out, const T& value) {
  return out << Platform::toText(value);
}

}  // namespace RouteCache
