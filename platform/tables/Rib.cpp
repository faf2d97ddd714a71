#include "platform/tables/Rib.h"

#include "platform/values/WireBytes.h"

using Platform::WireReader;
using Platform::WireWriter;
using Routing::Rib::Route;
using Routing::Rib::RouteKey;
using Routing::Rib::RouteCache::Evpn::Via;
using Routing::Rib::RouteCache::Evpn::ViaNexthop;

namespace Platform {

std::string TextForm<RouteKey>::to(const RouteKey& value) {
  return toText(value.prefix()) + "@" + toText(value.vrfId());
}

std::optional<RouteKey> TextForm<RouteKey>::from(std::string_view text) {
  const auto at = text.rfind('@');
  if (at == std::string_view::npos) return std::nullopt;
  const auto prefix = TextForm<IpGenPrefix>::from(text.substr(0, at));
  const auto vrfId = TextForm<std::uint32_t>::from(text.substr(at + 1));
  if (!prefix || !vrfId) return std::nullopt;
  return RouteKey(*vrfId, *prefix);
}

}  // namespace Platform

namespace Pondra {

std::vector<std::pair<std::string, std::string>> TableTraits<Route>::fields(const Route& value) {
  return {{"key", Platform::toText(value.key())},
          {"viaKey", Platform::toText(value.viaKey())},
          {"preference", Platform::toText(value.preference())},
          {"metric", Platform::toText(value.metric())},
          {"tag", Platform::toText(value.tag())}};
}

namespace {

std::string valueText(const char* type, const std::vector<std::pair<std::string, std::string>>& fields) {
  std::string text = std::string("Value('") + type + "', ** {";
  for (const auto& [name, value] : fields) {
    if (text.back() != '{') text += ", ";
    text += "'" + name + "': " + value;
  }
  return text + "})";
}

}  // namespace

std::string TableTraits<Route>::text(const Route& value) {
  return valueText("Routing::Rib::Route", fields(value));
}

void TableTraits<Via>::encodeKey(const Key& key, std::byte* out) {
  WireWriter(out).number(key);
}

TableTraits<Via>::Key TableTraits<Via>::decodeKey(const std::byte* in) {
  return WireReader(in).number<std::uint64_t>();
}

std::size_t TableTraits<Via>::encode(const Via& value, std::byte* out) {
  if (value.nexthops().size() > Via::maxEntries) throw RangeError("a via holds at most 128 next hops");
  WireWriter writer(out);
  writer.number(static_cast<std::uint16_t>(value.nexthops().size()));
  for (const ViaNexthop& nexthop : value.nexthops()) {
    writer.address(nexthop.remoteVtep)
        .number(nexthop.vti.value())
        .number(nexthop.extendedVlanId)
        .number(nexthop.vni.value())
        .bytes(nexthop.routerMac.bytes().data(), 6);
  }
  return writer.size();
}

std::optional<Via> TableTraits<Via>::decode(const Key& key, Bytes in) {
  if (in.size() < 2) return std::nullopt;
  WireReader reader(in.data());
  const std::size_t count = reader.number<std::uint16_t>();
  if (count > Via::maxEntries || in.size() != 2 + count * nexthopSize) return std::nullopt;
  std::vector<ViaNexthop> nexthops(count);
  for (ViaNexthop& nexthop : nexthops) {
    nexthop.remoteVtep = reader.address();
    nexthop.vti = IntfId::fromValue(reader.number<std::uint64_t>());
    nexthop.extendedVlanId = reader.number<std::uint16_t>();
    const auto vni = reader.number<std::uint32_t>();
    if (vni <= Vxlan::Vni::max) nexthop.vni = Vxlan::Vni(vni);
    EthAddr::Bytes mac{};
    reader.bytes(mac.data(), mac.size());
    nexthop.routerMac = EthAddr(mac);
  }
  return Via(key, std::move(nexthops));
}

std::vector<std::pair<std::string, std::string>> TableTraits<Via>::fields(const Via& value) {
  std::string nexthops;
  for (const ViaNexthop& nexthop : value.nexthops()) {
    if (!nexthops.empty()) nexthops += ", ";
    nexthops += valueText("Routing::Rib::RouteCache::Evpn::ViaNexthop",
                          {{"remoteVtep", Platform::toText(nexthop.remoteVtep)},
                           {"vti", Platform::toText(nexthop.vti)},
                           {"extendedVlanId", Platform::toText(nexthop.extendedVlanId)},
                           {"vni", Platform::toText(nexthop.vni)},
                           {"routerMac", Platform::toText(nexthop.routerMac)}});
  }
  return {{"key", Platform::toText(value.key())}, {"nexthops", "[" + nexthops + "]"}};
}

std::string TableTraits<Via>::text(const Via& value) {
  return valueText("Routing::Rib::RouteCache::Evpn::Via", fields(value));
}

}  // namespace Pondra
