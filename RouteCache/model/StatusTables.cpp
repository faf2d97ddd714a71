#include "RouteCache/model/StatusTables.h"

#include "platform/values/WireBytes.h"

using Platform::toText;
using Platform::WireReader;
using Platform::WireWriter;

namespace RouteCache {

namespace {

// The prefix's part of a key. Reading gives nothing for a length that there is not and for other host bits than the
// writer's, so that one key has one form.
void encodePrefix(WireWriter& writer, const Prefix& prefix) {
  writer.number(prefix.last().value()).number(static_cast<std::uint8_t>(Prefix::maxLength - prefix.length()));
}

void encodePrefix(WireWriter& writer, const Ip6Prefix& prefix) {
  writer.address(prefix.addr()).number(static_cast<std::uint8_t>(prefix.length()));
}

std::optional<Prefix> decodePrefix(WireReader& reader, const Prefix* /*family*/) {
  const IpAddr last(reader.number<std::uint32_t>());
  const auto hostBits = reader.number<std::uint8_t>();
  if (hostBits > Prefix::maxLength) return std::nullopt;
  const Prefix prefix(last, Prefix::maxLength - hostBits);
  return prefix.last() == last ? std::optional(prefix) : std::nullopt;
}

std::optional<Ip6Prefix> decodePrefix(WireReader& reader, const Ip6Prefix* /*family*/) {
  const Ip6Addr addr = reader.address6();
  const auto length = reader.number<std::uint8_t>();
  if (length > Ip6Prefix::maxLength) return std::nullopt;
  const Ip6Prefix prefix(addr, length);
  return prefix.addr() == addr ? std::optional(prefix) : std::nullopt;
}

}  // namespace

template <class Family>
void RouteKeyBytes<Family>::encodeKey(const Key& key, std::byte* out) {
  WireWriter writer(out);
  encodePrefix(writer, key.prefix());
  writer.number(key.vrfId());
}

template <class Family>
std::optional<BasicRouteVrfKey<Family>> RouteKeyBytes<Family>::decodeKey(const std::byte* in) {
  WireReader reader(in);
  const auto prefix = decodePrefix(reader, static_cast<const typename Family::Prefix*>(nullptr));
  if (!prefix) return std::nullopt;
  return Key(*prefix, reader.number<std::uint32_t>());
}

template struct RouteKeyBytes<Ipv4Family>;
template struct RouteKeyBytes<Ipv6Family>;

}  // namespace RouteCache

namespace Pondra {

using RouteCache::AdjId;
using RouteCache::BasicRoute;
using RouteCache::BasicVia;
using RouteCache::Ipv4ProgrammedRoute;
using RouteCache::Ipv4RouteHitBit;
using RouteCache::ViaIndex;

// --- Routes ----------------------------------------------------------------------------------------------------------

template <class Family>
std::size_t TableTraits<BasicRoute<Family>>::encode(const Value& value, std::byte* out) {
  const std::uint8_t inHw = value.inHw() ? 1 : 0;
  return WireWriter(out).number(value.adjId().value()).number(inHw).size();
}

template <class Family>
std::optional<BasicRoute<Family>> TableTraits<BasicRoute<Family>>::decode(const Key& key, Bytes in) {
  if (in.size() != maxValueSize) return std::nullopt;
  WireReader reader(in.data());
  const AdjId adjId(reader.number<std::uint32_t>());
  const auto inHw = reader.number<std::uint8_t>();
  if (inHw > 1) return std::nullopt;
  return Value(key, adjId, inHw == 1);
}

template <class Family>
TableFields TableTraits<BasicRoute<Family>>::fields(const Value& value) {
  return {{"key", value.key().shortText()}, {"adjId", toText(value.adjId())}, {"inHw", toText(value.inHw())}};
}

template struct TableTraits<RouteCache::Ipv4Route>;
template struct TableTraits<RouteCache::Ipv6Route>;

// --- Programmed routes and hit bits ----------------------------------------------------------------------------------

namespace {
constexpr std::uint8_t programmedMark = 1;
}  // namespace

std::size_t TableTraits<Ipv4ProgrammedRoute>::encode(const Value& /*value*/, std::byte* out) {
  return WireWriter(out).number(programmedMark).size();
}

std::optional<Ipv4ProgrammedRoute> TableTraits<Ipv4ProgrammedRoute>::decode(const Key& key, Bytes in) {
  if (in.size() != maxValueSize || WireReader(in.data()).number<std::uint8_t>() != programmedMark) return std::nullopt;
  return Value(key);
}

TableFields TableTraits<Ipv4ProgrammedRoute>::fields(const Value& value) {
  return {{"key", value.key().shortText()}};
}

std::size_t TableTraits<Ipv4RouteHitBit>::encode(const Value& value, std::byte* out) {
  return WireWriter(out).number(value.hitbit()).size();
}

std::optional<Ipv4RouteHitBit> TableTraits<Ipv4RouteHitBit>::decode(const Key& key, Bytes in) {
  if (in.size() != maxValueSize) return std::nullopt;
  return Value(key, WireReader(in.data()).number<std::uint32_t>());
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
