// The tables that the benchmarks' processes share with an agent.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "platform/tables/SharedTable.h"

namespace Bench {

inline constexpr const char* hwRoutePath = "routecache/route/hw/ipv4";
inline constexpr const char* hwRoute6Path = "routecache/route/hw/ipv6";
inline constexpr const char* sfeRoutePath = "routecache/route/sfe/ipv4";
inline constexpr const char* adjPath = "routecache/adj/ipv4";
inline constexpr const char* adj6Path = "routecache/adj/ipv6";
inline constexpr const char* kernelRoutePath = "routecache/route/kernel";
inline constexpr const char* hwHitBitPath = "hardware/routecache/status/ipv4";
inline constexpr const char* sfeHitBitPath = "sfe/routecache/status/ipv4";

// One of the tables, kept by the service. `capacity` is a writer's.
template <class T>
std::shared_ptr<T> mounted(Pondra::TableService& tables, const char* path, Pondra::MountKind kind,
                           std::uint32_t capacity = 0) {
  std::optional<Pondra::CollectionInfo> info;
  if (kind == Pondra::MountKind::writer) info = Pondra::CollectionInfo{T::collectionName, capacity};
  tables.mount(path, T::typeName, kind, info);
  return tables.get<T>(path);
}

}  // namespace Bench
