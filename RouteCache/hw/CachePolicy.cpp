#include "RouteCache/hw/CachePolicy.h"

#include "RouteCache/hw/LevelsPolicy.h"
#include "platform/values/Printable.h"
#include "platform/values/Text.h"

namespace RouteCache {

namespace {

template <class Policy>
std::unique_ptr<CachePolicy> make(const CacheState& state) {
  return std::make_unique<Policy>(state);
}

constexpr CachePolicyKind cachePolicies[] = {
    {"levels", make<LevelsPolicy>},
};

}  // namespace

CachePolicyKind cachePolicyKind(std::string_view name) {
  std::string names;
  for (const CachePolicyKind& kind : cachePolicies) {
    if (kind.name == name) return kind;
    names.append(names.empty() ? "" : ", ").append(kind.name);
  }
  throw Platform::BadText("'" + Platform::printable(name) + "' is none of the cache policies: " + names);
}

std::uint32_t CacheState::percentUsed() const {
  const std::uint64_t used = capacity - spaceLeft;
  return static_cast<std::uint32_t>(used * 100 / capacity);
}

}  // namespace RouteCache
