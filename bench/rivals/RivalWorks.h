// What TableRivalsBench has every store do, and how it takes their times.
#pragma once

#include <cstdint>
#include <functional>
#include <nlohmann/json.hpp>
#include <span>
#include <string>
#include <vector>

#include "bench/rivals/RivalStores.h"

namespace Bench {

// One store's go at a work, and what it found: a number that must be the same for all.
struct Contender {
  const char* name;
  std::function<std::uint64_t()> work;
};
enum class Goes : std::uint8_t { once, andOnceBefore };  // the first is not measured, and fills the processor's caches
// One after the other: nanoseconds of processor time an entry, by name. Throws std::runtime_error when they disagree.
nlohmann::json race(const std::string& what, std::size_t entries, Goes goes, const std::vector<Contender>& contenders);

template <class Store, class Routes>
std::uint64_t putAll(Store& store, const Routes& routes) {
  for (const auto& route : routes) store.put(route);
  store.finish();
  return 0;
}

template <class Store, class Keys>
std::uint64_t eraseAll(Store& store, const Keys& keys) {
  for (const auto& key : keys) store.erase(key);
  store.finish();
  return 0;
}

template <class Store, class Keys>
std::uint64_t lookUpAll(Store& store, const Keys& keys) {
  std::uint64_t sum = 0;
  for (const auto& key : keys) {
    if (const auto found = store.entry(key)) sum += told(*found);
  }
  return sum;
}

// Which key is looked up next is known when the one before has been found: no number of an adjacency has its top bit
// set.
template <class Store, class Keys>
std::uint64_t lookUpInTurn(Store& store, const Keys& keys) {
  std::uint64_t sum = 0;
  for (std::size_t at = 0; at < keys.size();) {
    const auto found = store.entry(keys[at]);
    const std::uint32_t number = found ? told(*found) : 0;
    sum += number;
    at += 1 + (number >> 31);
  }
  return sum;
}

template <class Store, class Keys>
std::uint64_t lookUpInGroups(Store& store, const Keys& keys) {
  constexpr std::size_t group = 16;
  std::uint64_t sum = 0;
  for (std::span rest(keys); !rest.empty(); rest = rest.subspan(std::min(group, rest.size()))) {
    store.entries(rest.first(std::min(group, rest.size())), [&sum](const auto& found) {
      if (found) sum += told(*found);
    });
  }
  return sum;
}

template <class Store, class Keys>
std::uint64_t seekAll(Store& store, const Keys& keys) {
  std::uint64_t sum = 0;
  for (const auto& key : keys) {
    if (const auto found = store.lowerBound(key)) sum += told(*found);
  }
  return sum;
}

template <class Store>
std::uint64_t walkAll(Store& store) {
  std::uint64_t sum = 0;
  std::uint64_t place = 0;
  store.walk([&](const auto& found) { sum += ++place * told(found); });
  return sum;
}

}  // namespace Bench
