// The six route-cache tables in shared memory and the bytes of their entries. All numbers are in network byte order.
//
//   table                      key bytes                                   value bytes
//   Ipv4RouteStatus            4 last address, 1 (32 - length), 4 vrfId    4 adjId, 1 inHw (0 or 1)
//   Ipv6RouteStatus            16 address, 1 length, 4 vrfId               4 adjId, 1 inHw (0 or 1)
//   Ipv4AdjacencyStatus        4 adjId                                     Ipv4Via: 8 + 28 for each slot in use
//   Ipv6AdjacencyStatus        4 adjId                                     Ipv6Via: 8 + 40 for each slot in use
//   Ipv4ProgrammedRouteStatus  4 last address, 1 (32 - length), 4 vrfId    1 (always 1: no value is empty)
//   Ipv4HitBitStatus           4 last address, 1 (32 - length), 4 vrfId    4 hitbit
//
// "Last address" is the highest address inside the prefix. Keys compare with memcmp as the typed keys order.
//
// What each lookup of a route goes through stands here, for the compiler to put it into the lookup.
#pragma once

#include "RouteCache/model/Values.h"
#include "platform/services/AgentBase.h"
#include "platform/tables/SharedTable.h"
#include "platform/values/WireBytes.h"

namespace RouteCache {

// The prefix's part of a key. Reading gives nothing for a length that there is not and for other host bits than the
// writer's, so that one key has one form.
inline void encodePrefix(Platform::WireWriter& writer, const Prefix& prefix) {
  writer.number(prefix.last().value()).number(static_cast<std::uint8_t>(Prefix::maxLength - prefix.length()));
}
inline void encodePrefix(Platform::WireWriter& writer, const Ip6Prefix& prefix) {
  writer.address(prefix.addr()).number(static_cast<std::uint8_t>(prefix.length()));
}
inline std::optional<Prefix> decodePrefix(Platform::WireReader& reader, const Prefix* /*family*/) {
  const IpAddr last(reader.number<std::uint32_t>());
  const auto hostBits = reader.number<std::uint8_t>();
  if (hostBits > Prefix::maxLength) return std::nullopt;
  const Prefix prefix(last, Prefix::maxLength - hostBits);
  return prefix.last() == last ? std::optional(prefix) : std::nullopt;
}
inline std::optional<Ip6Prefix> decodePrefix(Platform::WireReader& reader, const Ip6Prefix* /*family*/) {
  const Ip6Addr addr = reader.address6();
  const auto length = reader.number<std::uint8_t>();
  if (length > Ip6Prefix::maxLength) return std::nullopt;
  const Ip6Prefix prefix(addr, length);
  return prefix.addr() == addr ? std::optional(prefix) : std::nullopt;
}

// The key's half of TableTraits, for tables keyed by route.
template <class Family>
struct RouteKeyBytes {
  using Key = BasicRouteVrfKey<Family>;
  static constexpr std::uint32_t keySize = sizeof(typename Family::Addr) + 1 + 4;
  static constexpr std::uint32_t layoutVersion = 1;
  static constexpr bool variableSize = false;
  static void encodeKey(const Key& key, std::byte* out) {
    Platform::WireWriter writer(out);
    encodePrefix(writer, key.prefix());
    writer.number(key.vrfId());
  }
  // Nothing: a length that there is not, or host bits that do not belong.
  static std::optional<Key> decodeKey(const std::byte* in) {
    Platform::WireReader reader(in);
    const auto prefix = decodePrefix(reader, static_cast<const typename Family::Prefix*>(nullptr));
    if (!prefix) return std::nullopt;
    return Key(*prefix, reader.number<std::uint32_t>());
  }
};

}  // namespace RouteCache

namespace Pondra {

using TableFields = std::vector<std::pair<std::string, std::string>>;

template <class Family>
struct TableTraits<RouteCache::BasicRoute<Family>> : RouteCache::RouteKeyBytes<Family> {
  using Value = RouteCache::BasicRoute<Family>;
  using Key = typename Value::Key;
  static constexpr std::uint32_t maxValueSize = 4 + 1;
  static std::size_t encode(const Value& value, std::byte* out) {
    const std::uint8_t inHw = value.inHw() ? 1 : 0;
    return Platform::WireWriter(out).number(value.adjId().value()).number(inHw).size();
  }
  static std::optional<Value> decode(const Key& key, Bytes in) {
    if (in.size() != maxValueSize) return std::nullopt;
    Platform::WireReader reader(in.data());
    const RouteCache::AdjId adjId(reader.number<std::uint32_t>());
    const auto inHw = reader.number<std::uint8_t>();
    if (inHw > 1) return std::nullopt;
    return Value(key, adjId, inHw == 1);
  }
  static TableFields fields(const Value& value);
  static std::string text(const Value& value) { return Platform::toText(value); }
};
extern template struct TableTraits<RouteCache::Ipv4Route>;
extern template struct TableTraits<RouteCache::Ipv6Route>;

template <>
struct TableTraits<RouteCache::Ipv4ProgrammedRoute> : RouteCache::RouteKeyBytes<RouteCache::Ipv4Family> {
  using Value = RouteCache::Ipv4ProgrammedRoute;
  static constexpr std::uint32_t maxValueSize = 1;
  static constexpr std::byte mark{1};
  static std::size_t encode(const Value& /*value*/, std::byte* out) {
    *out = mark;
    return maxValueSize;
  }
  static std::optional<Value> decode(const Key& key, Bytes in) {
    if (in.size() != maxValueSize || in[0] != mark) return std::nullopt;
    return Value(key);
  }
  static TableFields fields(const Value& value);
  static std::string text(const Value& value) { return Platform::toText(value); }
};

template <>
struct TableTraits<RouteCache::Ipv4RouteHitBit> : RouteCache::RouteKeyBytes<RouteCache::Ipv4Family> {
  using Value = RouteCache::Ipv4RouteHitBit;
  static constexpr std::uint32_t maxValueSize = 4;
  static std::size_t encode(const Value& value, std::byte* out) {
    return Platform::WireWriter(out).number(value.hitbit()).size();
  }
  static std::optional<Value> decode(const Key& key, Bytes in) {
    if (in.size() != maxValueSize) return std::nullopt;
    return Value(key, Platform::WireReader(in.data()).number<std::uint32_t>());
  }
  static TableFields fields(const Value& value);
  static std::string text(const Value& value) { return Platform::toText(value); }
};

template <class Family>
struct TableTraits<RouteCache::BasicVia<Family>> {
  using Value = RouteCache::BasicVia<Family>;
  using Key = RouteCache::AdjId;
  static constexpr std::uint32_t keySize = 4;
  static constexpr std::uint32_t maxValueSize = sizeof(Value);
  static constexpr std::uint32_t layoutVersion = 1;
  static constexpr bool variableSize = true;
  static void encodeKey(const Key& key, std::byte* out);
  static Key decodeKey(const std::byte* in);
  static std::size_t encode(const Value& value, std::byte* out);
  static std::optional<Value> decode(const Key& key, Bytes in);
  static TableFields fields(const Value& value);
  static std::string text(const Value& value) { return Platform::toText(value); }
};
extern template struct TableTraits<RouteCache::Ipv4Via>;
extern template struct TableTraits<RouteCache::Ipv6Via>;

}  // namespace Pondra

namespace RouteCache {

// Published IPv4 routes: Ipv4RouteVrfKey -> Ipv4Route.
class Ipv4RouteStatus final : public Pondra::RouteTable<Ipv4Route> {
 public:
  static constexpr const char* typeName = "RouteCache::Ipv4RouteStatus";
  using RouteTable::RouteTable;
  Pondra::TableLayout layout() const override { return Pondra::layoutOf<Ipv4RouteStatus>(); }
};

// Published IPv6 routes: Ipv6RouteVrfKey -> Ipv6Route.
class Ipv6RouteStatus final : public Pondra::RouteTable<Ipv6Route> {
 public:
  static constexpr const char* typeName = "RouteCache::Ipv6RouteStatus";
  using RouteTable::RouteTable;
  Pondra::TableLayout layout() const override { return Pondra::layoutOf<Ipv6RouteStatus>(); }
};

// Adjacencies over IPv4 tunnels: AdjId -> Ipv4Via.
class Ipv4AdjacencyStatus final : public Pondra::AdjTable<Ipv4Via> {
 public:
  static constexpr const char* typeName = "RouteCache::Ipv4AdjacencyStatus";
  using AdjTable::AdjTable;
  Pondra::TableLayout layout() const override { return Pondra::layoutOf<Ipv4AdjacencyStatus>(); }
};

// Adjacencies over IPv6 tunnels: AdjId -> Ipv6Via.
class Ipv6AdjacencyStatus final : public Pondra::AdjTable<Ipv6Via> {
 public:
  static constexpr const char* typeName = "RouteCache::Ipv6AdjacencyStatus";
  using AdjTable::AdjTable;
  Pondra::TableLayout layout() const override { return Pondra::layoutOf<Ipv6AdjacencyStatus>(); }
};

// Routes that the software forwarding engine has programmed: Ipv4RouteVrfKey -> Ipv4ProgrammedRoute.
class Ipv4ProgrammedRouteStatus final : public Pondra::RouteTable<Ipv4ProgrammedRoute> {
 public:
  static constexpr const char* typeName = "RouteCache::Ipv4ProgrammedRouteStatus";
  using RouteTable::RouteTable;
  Pondra::TableLayout layout() const override { return Pondra::layoutOf<Ipv4ProgrammedRouteStatus>(); }
};

// Hit bits of routes: Ipv4RouteVrfKey -> Ipv4RouteHitBit.
class Ipv4HitBitStatus final : public Pondra::RouteHitBitTable<Ipv4RouteHitBit> {
 public:
  static constexpr const char* typeName = "RouteCache::Ipv4HitBitStatus";
  using RouteHitBitTable::RouteHitBitTable;
  Pondra::TableLayout layout() const override { return Pondra::layoutOf<Ipv4HitBitStatus>(); }
};

// Makes all six known to whoever mounts tables by their types' names.
void addTableTypes(Platform::TableTypes& types);

}  // namespace RouteCache
