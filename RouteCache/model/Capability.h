#pragma once

#include <cstdint>
#include <string>

#include "platform/state/Entity.h"

namespace RouteCache {

// "routecache/capability": the sizes, in entries, that the platform can support. Read once, when the agent starts; the
// defaults are those of a switch of middle size.
class Capability final : public Lattis::Entity {
 public:
  static constexpr const char* typeName = "RouteCache::Capability";
  // What the kernel's route table holds beyond hwRouteTableSize.
  static constexpr std::uint32_t kernelRouteBuffer = 2048;

  using Entity::Entity;
  std::uint32_t hwRouteTableSize() const { return hwRouteTableSize_; }
  void hwRouteTableSizeIs(std::uint32_t entries) { hwRouteTableSize_ = entries; }
  std::uint32_t sfeRouteTableSize() const { return sfeRouteTableSize_; }
  void sfeRouteTableSizeIs(std::uint32_t entries) { sfeRouteTableSize_ = entries; }
  std::uint32_t adjacencyTableSize() const { return adjacencyTableSize_; }
  void adjacencyTableSizeIs(std::uint32_t entries) { adjacencyTableSize_ = entries; }
  const Lattis::EntityType& entityType() const override;
  // A size that no table can have, the kernel's included.
  std::string fault() const override;

 private:
  std::uint32_t hwRouteTableSize_ = 131072;
  std::uint32_t sfeRouteTableSize_ = 1048576;
  std::uint32_t adjacencyTableSize_ = 65536;
};

}  // namespace RouteCache
