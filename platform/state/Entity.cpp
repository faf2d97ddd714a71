#include "platform/state/Entity.h"

namespace Lattis {

const AttributeField* EntityType::attribute(std::string_view field) const {
  for (const auto& candidate : attributes) {
    if (candidate.name == field) return &candidate;
  }
  return nullptr;
}

const CollectionField* EntityType::collection(std::string_view field) const {
  for (const auto& candidate : collections) {
    if (candidate.name == field) return &candidate;
  }
  return nullptr;
}

}  // namespace Lattis
