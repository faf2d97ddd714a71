// What the routing process configures: static route-cache routes and the EVPN vias they name, in shared tables.
#pragma once

#include <cstdint>
#include <vector>

#include "platform/tables/SharedTable.h"
#include "platform/trace/Trace.h"
#include "platform/values/Net.h"
#include "platform/values/WireBytes.h"

namespace Routing::Rib {

// The VRF id that stands for the absence of a VRF.
inline constexpr std::uint32_t noVrfId = 0xFFFFFF;

// A route of one VRF, either family. `vrfId` is a platform (pi) VRF id. Ordered by VRF, then family, address, length.
// The default value is the empty key (no VRF, no prefix). Text: "10.0.0.0/8@7".
class RouteKey {
 public:
  constexpr RouteKey() = default;
  constexpr RouteKey(std::uint32_t vrfId, const IpGenPrefix& prefix) : vrfId_(vrfId), prefix_(prefix) {}
  constexpr std::uint32_t vrfId() const { return vrfId_; }
  constexpr const IpGenPrefix& prefix() const { return prefix_; }
  constexpr bool isEmpty() const { return *this == RouteKey(); }
  constexpr auto operator<=>(const RouteKey&) const = default;
  constexpr bool operator==(const RouteKey&) const = default;
  constexpr std::uint64_t hash() const {
    const Ip6Addr addr = prefix_.addr().v6();
    const auto family = static_cast<std::uint64_t>(prefix_.family());
    return Platform::hashMix(Platform::hashMix(addr.high(), addr.low()),
                             std::uint64_t{vrfId_} << 16 | std::uint64_t{prefix_.length()} << 8 | family);
  }

 private:
  std::uint32_t vrfId_ = noVrfId;
  IpGenPrefix prefix_;
};

using ViaKey = std::uint64_t;  // 0 names no via

// A configured route. Plain value.
class Route {
 public:
  Route() = default;
  explicit Route(const RouteKey& key, ViaKey viaKey = 0, std::uint8_t preference = 0, std::uint32_t metric = 0,
                 std::uint32_t tag = 0)
      : key_(key), viaKey_(viaKey), metric_(metric), tag_(tag), preference_(preference) {}
  const RouteKey& key() const { return key_; }
  ViaKey viaKey() const { return viaKey_; }
  void viaKeyIs(ViaKey viaKey) { viaKey_ = viaKey; }
  std::uint8_t preference() const { return preference_; }  // administrative distance, lower is better
  std::uint32_t metric() const { return metric_; }
  std::uint32_t tag() const { return tag_; }
  bool operator==(const Route&) const = default;

 private:
  RouteKey key_;
  ViaKey viaKey_ = 0;
  std::uint32_t metric_ = 0;
  std::uint32_t tag_ = 0;
  std::uint8_t preference_ = 0;
};

namespace RouteCache::Evpn {

// One overlay next hop of a via: a remote VTEP reached through a VXLAN tunnel interface.
struct ViaNexthop {
  IpGenAddr remoteVtep;
  IntfId vti;
  Bridging::ExtendedVlanId extendedVlanId = 0;  // the forwarding domain, used when there is no VNI
  Vxlan::Vni vni;                               // when present, the domain is the interface's VLAN for it
  EthAddr routerMac;                            // of the remote endpoint
  bool operator==(const ViaNexthop&) const = default;
};

// A via: up to `maxNexthops` next hops that a route spreads over. The table admits more (`maxEntries`), so that an
// over-long via is met whole and can be refused as what it is.
class Via {
 public:
  static constexpr std::size_t maxNexthops = 32;
  static constexpr std::size_t maxEntries = 128;
  Via() = default;
  explicit Via(ViaKey key) : key_(key) {}
  Via(ViaKey key, std::vector<ViaNexthop> nexthops) : key_(key), nexthops_(std::move(nexthops)) {}
  ViaKey key() const { return key_; }
  const std::vector<ViaNexthop>& nexthops() const { return nexthops_; }
  void nexthopAdd(const ViaNexthop& nexthop) { nexthops_.push_back(nexthop); }
  bool operator==(const Via&) const = default;

 private:
  ViaKey key_ = 0;
  std::vector<ViaNexthop> nexthops_;
};

}  // namespace RouteCache::Evpn
}  // namespace Routing::Rib

namespace Platform {
template <>
inline constexpr std::uint8_t traceCode<Routing::Rib::RouteKey> = 11;
PLATFORM_TEXT_FORM(Routing::Rib::RouteKey, "a route key such as 10.0.0.0/8@7 (prefix@vrfId)");
}  // namespace Platform

namespace Pondra {

// Order key: vrfId (big endian), family, address (16 bytes, IPv4 in the last 4), length.
template <>
struct TableTraits<Routing::Rib::Route> {
  using Key = Routing::Rib::RouteKey;
  static constexpr std::uint32_t keySize = 4 + 1 + 16 + 1;
  static constexpr std::uint32_t maxValueSize = 8 + 4 + 4 + 1;
  static constexpr std::uint32_t layoutVersion = 1;
  static constexpr bool variableSize = false;
  static void encodeKey(const Key& key, std::byte* out) {
    Platform::WireWriter(out)
        .number(key.vrfId())
        .address(key.prefix().addr())
        .number(static_cast<std::uint8_t>(key.prefix().length()));
  }
  // Nothing: no family that there is, a length over the family's, or host bits set. Such a key would not lead back to
  // its own bytes.
  static std::optional<Key> decodeKey(const std::byte* in) {
    Platform::WireReader reader(in);
    const auto vrfId = reader.number<std::uint32_t>();
    const IpGenAddr addr = reader.address();
    const IpGenPrefix prefix = prefixOf(addr, reader.number<std::uint8_t>());
    if (prefix.isEmpty() || !(prefix.addr() == addr)) return std::nullopt;
    return Key(vrfId, prefix);
  }
  static std::size_t encode(const Routing::Rib::Route& value, std::byte* out) {
    return Platform::WireWriter(out)
        .number(value.viaKey())
        .number(value.metric())
        .number(value.tag())
        .number(value.preference())
        .size();
  }
  static std::optional<Routing::Rib::Route> decode(const Key& key, Bytes in) {
    if (in.size() != maxValueSize) return std::nullopt;
    Platform::WireReader reader(in.data());
    const auto viaKey = reader.number<std::uint64_t>();
    const auto metric = reader.number<std::uint32_t>();
    const auto tag = reader.number<std::uint32_t>();
    return Routing::Rib::Route(key, viaKey, reader.number<std::uint8_t>(), metric, tag);
  }
  static std::vector<std::pair<std::string, std::string>> fields(const Routing::Rib::Route& value);
  static std::string text(const Routing::Rib::Route& value);

 private:
  // Of these parts; the empty one when they are none.
  static IpGenPrefix prefixOf(const IpGenAddr& addr, unsigned length) {
    if (addr.isV4() && length <= Prefix::maxLength) return Prefix(addr.v4(), length);
    if (addr.isV6() && length <= Ip6Prefix::maxLength) return Ip6Prefix(addr.v6(), length);
    return {};
  }
};

// A via takes a count (16 bits) and 37 bytes for each next hop: family 1, address 16, vti 8, VLAN 2, VNI 4, MAC 6.
template <>
struct TableTraits<Routing::Rib::RouteCache::Evpn::Via> {
  using Value = Routing::Rib::RouteCache::Evpn::Via;
  using Key = Routing::Rib::ViaKey;
  static constexpr std::uint32_t keySize = 8;
  static constexpr std::uint32_t nexthopSize = 37;
  static constexpr std::uint32_t maxValueSize = 2 + nexthopSize * Value::maxEntries;
  static constexpr std::uint32_t layoutVersion = 1;
  static constexpr bool variableSize = true;
  static void encodeKey(const Key& key, std::byte* out);
  static Key decodeKey(const std::byte* in);
  static std::size_t encode(const Value& value, std::byte* out);  // RangeError over maxEntries
  static std::optional<Value> decode(const Key& key, Bytes in);
  static std::vector<std::pair<std::string, std::string>> fields(const Value& value);
  static std::string text(const Value& value);
};

}  // namespace Pondra

namespace Routing::Rib {

// The routes of one table, both families: RouteKey -> Route.
class RouteConfig final : public Pondra::RouteTable<Route> {
 public:
  static constexpr const char* typeName = "Routing::Rib::RouteConfig";
  using RouteTable::RouteTable;
  Pondra::TableLayout layout() const override { return Pondra::layoutOf<RouteConfig>(); }
};

namespace RouteCache::Evpn {

// ViaKey -> Via.
class ViaConfig final : public Pondra::ViaTable<Via> {
 public:
  static constexpr const char* typeName = "Routing::Rib::RouteCache::Evpn::ViaConfig";
  using ViaTable::ViaTable;
  Pondra::TableLayout layout() const override { return Pondra::layoutOf<ViaConfig>(); }
};

}  // namespace RouteCache::Evpn
}  // namespace Routing::Rib
