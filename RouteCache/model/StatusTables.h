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
#pragma once

#include "RouteCache/model/Values.h"
#include "platform/services/AgentBase.h"
#include "platform/tables/SharedTable.h"

namespace RouteCache {

// The key's half of TableTraits, for tables keyed by route.
template <class Family>
struct RouteKeyBytes {
  using Key = BasicRouteVrfKey<Family>;
  static constexpr std::uint32_t keySize = sizeof(typename Family::Addr) + 1 + 4;
  static constexpr std::uint32_t layoutVersion = 1;
  static constexpr bool variableSize = false;
  static void encodeKey(const Key& key, std::byte* out);
  // Nothing: a length that there is not, or host bits that do not belong.
  static std::optional<Key> decodeKey(const std::byte* in);
};
extern template struct RouteKeyBytes<Ipv4Family>;
extern template struct RouteKeyBytes<Ipv6Family>;

}  // namespace RouteCache

namespace Pondra {

using TableFields = std::vector<std::pair<std::string, std::string>>;

template <class Family>
struct TableTraits<RouteCache::BasicRoute<Family>> : RouteCache::RouteKeyBytes<Family> {
  using Value = RouteCache::BasicRoute<Family>;
  using Key = typename Value::Key;
  static constexpr std::uint32_t maxValueSize = 4 + 1;
  static std::size_t encode(const Value& value, std::byte* out);
  static std::optional<Value> decode(const Key& key, Bytes in);
  static TableFields fields(const Value& value);
  static std::string text(const Value& value) { return Platform::toText(value); }
};
extern template struct TableTraits<RouteCache::Ipv4Route>;
extern template struct TableTraits<RouteCache::Ipv6Route>;

template <>
struct TableTraits<RouteCache::Ipv4ProgrammedRoute> : RouteCache::RouteKeyBytes<RouteCache::Ipv4Family> {
  using Value = RouteCache::Ipv4ProgrammedRoute;
  static constexpr std::uint32_t maxValueSize = 1;
  static std::size_t encode(const Value& value, std::byte* out);
  static std::optional<Value> decode(const Key& key, Bytes in);
  static TableFields fields(const Value& value);
  static std::string text(const Value& value) { return Platform::toText(value); }
};

template <>
struct TableTraits<RouteCache::Ipv4RouteHitBit> : RouteCache::RouteKeyBytes<RouteCache::Ipv4Family> {
  using Value = RouteCache::Ipv4RouteHitBit;
  static constexpr std::uint32_t maxValueSize = 4;
  static std::size_t encode(const Value& value, std::byte* out);
  static std::optional<Value> decode(const Key& key, Bytes in);
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
