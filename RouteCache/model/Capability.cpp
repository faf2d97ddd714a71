#include "RouteCache/model/Capability.h"

#include "platform/tables/SharedTable.h"

namespace RouteCache {

using Lattis::attributeField;

const Lattis::EntityType& Capability::entityType() const {
  using This = Capability;
  static const Lattis::EntityType type{
      typeName,
      {attributeField<This, &This::hwRouteTableSize, &This::hwRouteTableSizeIs>("hwRouteTableSize"),
       attributeField<This, &This::sfeRouteTableSize, &This::sfeRouteTableSizeIs>("sfeRouteTableSize"),
       attributeField<This, &This::adjacencyTableSize, &This::adjacencyTableSizeIs>("adjacencyTableSize")},
      {}};
  return type;
}

std::string Capability::fault() const {
  const struct {
    const char* name;
    std::uint32_t entries, most;
  } sizes[] = {{"hwRouteTableSize", hwRouteTableSize_, Pondra::maxCapacity - kernelRouteBuffer},
               {"sfeRouteTableSize", sfeRouteTableSize_, Pondra::maxCapacity},
               {"adjacencyTableSize", adjacencyTableSize_, Pondra::maxCapacity}};
  for (const auto& size : sizes) {
    if (size.entries >= 1 && size.entries <= size.most) continue;
    return std::string(size.name) + " must be 1 to " + std::to_string(size.most);
  }
  return {};
}

}  // namespace RouteCache
