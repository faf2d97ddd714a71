#include "client/WritableTables.h"

#include "platform/values/Paths.h"

namespace Client {

namespace {

using Pondra::Bytes;

template <class Table>
WritableTable writable() {
  using Traits = typename Table::Traits;
  using Key = typename Traits::Key;
  static constexpr auto decoded = [](Bytes key) -> std::optional<Key> { return Traits::decodeKey(key.data()); };
  return {Pondra::layoutOf<Table>(), [](Bytes key) { return decoded(key).has_value(); },
          [](Bytes key, Bytes value) { return Traits::decode(*decoded(key), value).has_value(); }};
}

}  // namespace

const WritableTable* writableTable(const std::string& path) {
  static const WritableTable ribRoutes = writable<Routing::Rib::RouteConfig>();
  static const WritableTable ribVias = writable<Routing::Rib::RouteCache::Evpn::ViaConfig>();
  static const WritableTable fib = writable<Pondra::Fib::RouteStatus>();
  static const WritableTable fib6 = writable<Pondra::Fib6::RouteStatus>();
  static const WritableTable hitBits = writable<RouteCache::Ipv4HitBitStatus>();
  static const WritableTable programmed = writable<RouteCache::Ipv4ProgrammedRouteStatus>();
  const auto isOfVrf = [&](std::string_view prefix) { return path.starts_with(prefix) && path.size() > prefix.size(); };
  if (path == Paths::ribRoutes || path == Paths::rib6Routes) return &ribRoutes;
  if (path == Paths::ribVias) return &ribVias;
  if (path == Paths::fib || isOfVrf(Paths::fibOfVrf)) return &fib;
  if (path == Paths::fib6 || isOfVrf(Paths::fib6OfVrf)) return &fib6;
  if (path == Paths::hwHitBits || path == Paths::sfeHitBits) return &hitBits;
  if (path == Paths::sfeProgrammed) return &programmed;
  return nullptr;
}

}  // namespace Client
