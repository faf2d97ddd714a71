// What the entities that are maps have in common: looking up, putting in, and showing themselves as text.
#pragma once

#include <algorithm>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/state/Entity.h"

namespace RouteCache {

// Takes an operator's means of changing a collection away.
inline Lattis::CollectionField readOnly(Lattis::CollectionField field) {
  field.set = nullptr;
  field.del = nullptr;
  return field;
}

// The value, or the value type's default.
template <class Map, class Key>
typename Map::mapped_type valueOrDefault(const Map& map, const Key& key) {
  const auto found = map.find(key);
  return found == map.end() ? typename Map::mapped_type() : found->second;
}

// True when the entry is new or had another value.
template <class Map>
bool insertOrReplace(Map& map, const typename Map::key_type& key, typename Map::mapped_type value) {
  const auto [entry, inserted] = map.try_emplace(key, value);
  if (!inserted && entry->second == value) return false;
  entry->second = std::move(value);
  return true;
}

// The entries of a hashed map in key order: what is told or shown must not follow the order of a hash table.
template <class Map>
auto inOrder(const Map& map) {
  return std::map<typename Map::key_type, typename Map::mapped_type>(map.begin(), map.end());
}

// The keys alone.
template <class Map>
auto keysInOrder(const Map& map) {
  std::vector<typename Map::key_type> keys;
  keys.reserve(map.size());
  for (const auto& entry : map) keys.push_back(entry.first);
  std::sort(keys.begin(), keys.end());
  return keys;
}

// Fields over hashed maps, read only: `all` puts the entries in order, for their keys; what is asked of one entry is
// looked up.
template <class E, auto all>
Lattis::CollectionField hashedField(std::string name) {
  Lattis::CollectionField field;
  field.name = std::move(name);
  field.keys = [](const Lattis::Entity& e) {
    std::vector<std::string> keys;
    for (const auto& entry : (static_cast<const E&>(e).*all)()) keys.push_back(Platform::toText(entry.first));
    return keys;
  };
  return field;
}

template <class E, auto all, auto has, auto value>
Lattis::CollectionField hashedMapField(std::string name) {
  Lattis::CollectionField field = hashedField<E, all>(std::move(name));
  field.get = [](const Lattis::Entity& e, std::string_view key) -> std::optional<std::string> {
    const E& entity = static_cast<const E&>(e);
    const auto id = Platform::fromText<std::uint32_t>(key);
    return (entity.*has)(id) ? std::optional(Platform::toText((entity.*value)(id))) : std::nullopt;
  };
  return field;
}

template <class E, auto all, auto child>
Lattis::CollectionField hashedChildField(std::string name) {
  Lattis::CollectionField field = hashedField<E, all>(std::move(name));
  field.child = [](Lattis::Entity& e, std::string_view key) -> std::shared_ptr<Lattis::Entity> {
    return (static_cast<const E&>(e).*child)(Platform::fromText<std::uint32_t>(key));
  };
  return field;
}

}  // namespace RouteCache
