#include "RouteCache/model/StatusTables.h"

#include "platform/values/WireBytes.h"

using Platform::toText;
using Platform::WireReader;
using Platform::WireWriter;

namespace Pondra {

using RouteCache::AdjId;
using RouteCache::BasicRoute;
using RouteCache::BasicVia;
using RouteCache::Ipv4ProgrammedRoute;
using RouteCache::Ipv4RouteHitBit;
using RouteCache::ViaIndex;

// --- Routes ----------------------------------------------------------------------------------------------------------

template <class Family>
TableFields TableTraits<BasicRoute<Family>>::fields(const Value& value) {
  return {{"key", value.key().shortText()}, {"adjId", toText(value.adjId())}, {"inHw", toText(value.inHw())}};
}

template struct TableTraits<RouteCache::Ipv4Route>;
template struct TableTraits<RouteCache::Ipv6Route>;

// --- Programmed routes and hit bits ----------------------------------------------------------------------------------

TableFields TableTraits<Ipv4ProgrammedRoute>::fields(const Value& value) {
  return {{"key", value.key().shortText()}};
}

TableFields TableTraits<Ipv4RouteHitBit>::fields(const Value& value) {
  return {{"key", value.key().shortText()}, {"hitbit", toText(value.hitbit())}};
}

// --- Vias ------------------------------------------------------------------------------------------------------------

namespace {

template <class Via>
constexpr std::size_t viaSize(std::size_t count) {
  return 8 + count * sizeof(typename Via::Adjacency);
}

}  // namespace

template <class Family>
void TableTraits<BasicVia<Family>>::encodeKey(const Key& key, std::byte* out) {
  WireWriter(out).number(key.value());
}

template <class Family>
AdjId TableTraits<BasicVia<Family>>::decodeKey(const std::byte* in) {
  return AdjId(WireReader(in).number<std::uint32_t>());
}

template <class Family>
std::size_t TableTraits<BasicVia<Family>>::encode(const Value& value, std::byte* out) {
  static_assert(std::is_trivially_copyable_v<Value>);
  const std::size_t size = viaSize<Value>(value.viaKey().size());
  std::memcpy(out, &value, size);
  return size;
}

template <class Family>
std::optional<BasicVia<Family>> TableTraits<BasicVia<Family>>::decode(const Key& key, Bytes in) {
  if (in.size() < viaSize<Value>(0)) return std::nullopt;
  WireReader reader(in.data());
  const AdjId storedKey(reader.number<std::uint32_t>());
  const auto count = reader.number<std::uint32_t>();
  if (storedKey != key || count > ViaIndex::max + 1U || in.size() != viaSize<Value>(count)) return std::nullopt;
  std::optional<Value> value(std::in_place);
  std::memcpy(static_cast<void*>(&*value), in.data(), in.size());
  return value;
}

template <class Family>
TableFields TableTraits<BasicVia<Family>>::fields(const Value& value) {
  return {{"key", toText(value.key())}, {"viaKey", toText(value.viaKey())}};
}

template struct TableTraits<RouteCache::Ipv4Via>;
template struct TableTraits<RouteCache::Ipv6Via>;

}  // namespace Pondra

namespace RouteCache {

void addTableTypes(Platform::TableTypes& types) {
  types.typeIs<Ipv4RouteStatus>();
  types.typeIs<Ipv6RouteStatus>();
  types.typeIs<Ipv4AdjacencyStatus>();
  types.typeIs<Ipv6AdjacencyStatus>();
  types.typeIs<Ipv4ProgrammedRouteStatus>();
  types.typeIs<Ipv4HitBitStatus>();
}

}  // namespace RouteCache
