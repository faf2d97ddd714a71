// What HardwareBench is about: host routes of one VRF under one cached prefix, and a hardware table that they fill to
// 80 percent.
#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <optional>

#include "RouteCache/RouteCacheTables.h"
#include "platform/SharedTable.h"

namespace Bench {

inline constexpr const char* hwRoutePath = "routecache/route/hw/ipv4";
inline constexpr const char* sfeRoutePath = "routecache/route/sfe/ipv4";
inline constexpr const char* hwHitBitPath = "hardware/routecache/status/ipv4";
inline constexpr const char* sfeHitBitPath = "sfe/routecache/status/ipv4";

struct HardwareWorkload {
  using Key = RouteCache::Ipv4RouteVrfKey;
  static constexpr std::uint32_t hwVrfId = 1001;
  static constexpr std::uint32_t largest = 1'900'000;  // with the samples, 2^21 addresses, 8 apart, fill 10.0.0.0/8

  std::uint32_t routes = 1'000'000;

  std::uint32_t capacity() const { return routes + routes / 4; }
  // Routes beyond those, for each of the two measurements of latency: too few to move the utilisation by a percent.
  std::uint32_t samples() const { return std::min(2000U, routes / 250); }
  std::uint32_t sfeRoutes() const { return routes + 2 * samples(); }
  static Prefix cachedPrefix() { return {IpAddr(10U << 24), 8}; }
  // In the order of the tables' keys.
  static Key key(std::uint32_t index) { return {Prefix(IpAddr((10U << 24) + 8 * index), 32), hwVrfId}; }
  static RouteCache::Ipv4Route route(std::uint32_t index) {
    return {key(index), RouteCache::AdjId(1 + index % 20'000), false};
  }
  // More cached prefixes of the VRF, which cover none of the routes.
  std::uint32_t otherPrefixes() const { return routes / 10; }
  static Prefix otherPrefix(std::uint32_t index) { return {IpAddr((11U << 24) + 256 * index), 24}; }
};

// One of the tables, kept by the service.
template <class T>
std::shared_ptr<T> mounted(Pondra::TableService& tables, const char* path, Pondra::MountKind kind,
                           std::uint32_t capacity = 0) {
  std::optional<Pondra::CollectionInfo> info;
  if (kind == Pondra::MountKind::writer) info = Pondra::CollectionInfo{T::collectionName, capacity};
  tables.mount(path, T::typeName, kind, info);
  return tables.get<T>(path);
}

}  // namespace Bench
