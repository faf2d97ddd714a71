// What the shared table is measured beside: LMDB, Abseil's maps, and its own bytes without the typed layer. All take
// the same: put(), erase(), finish() after many of them, entry(), lowerBound(), walk().
#pragma once

#include <absl/container/btree_map.h>
#include <absl/container/flat_hash_map.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "bench/harness/EncodedValue.h"
#include "bench/harness/LmdbStore.h"
#include "bench/rivals/RivalRoutes.h"
#include "lib/tables/TableView.h"
#include "lib/tables/TableWriter.h"
#include "linux/tables/TableFile.h"

namespace Bench {

using RivalRoute = RivalRoutes::Route;
using RivalKey = RivalRoutes::Key;
using RivalTraits = Pondra::TableTraits<RivalRoute>;

// What a search has found comes down to a number, so that it has to be found.
inline std::uint32_t told(const RivalRoute& route) {
  return route.adjId().value();
}

// --- The shared table ------------------------------------------------------------------------------------------------

class TypedStore {
 public:
  using Table = RouteCache::Ipv4RouteStatus;
  static constexpr const char* path = "bench/routes";

  explicit TypedStore(std::shared_ptr<Table> table) : table_(std::move(table)) {}
  void put(const RivalRoute& route) { table_->routeIs(route); }
  void erase(const RivalKey& key) { table_->routeDel(key); }
  void finish() {}
  std::optional<RivalRoute> entry(const RivalKey& key) const { return table_->route(key); }
  template <class Visit>
  void entries(std::span<const RivalKey> keys, Visit visit) const {
    table_->entries(keys, [&](std::size_t, const std::optional<RivalRoute>& route) { visit(route); });
  }
  std::optional<RivalRoute> lowerBound(const RivalKey& key) const {
    const auto found = table_->lowerBound(key);
    return found == table_->end() ? std::nullopt : std::optional(*found);
  }
  template <class Visit>
  void walk(Visit visit) const {
    for (const RivalRoute& route : *table_) visit(route);
  }

 private:
  std::shared_ptr<Table> table_;
};

// A route, or its key, as the bytes of the table have them.
template <std::size_t valueSize>
struct RawRoute {
  std::array<std::uint64_t, 2> key;
  std::array<std::byte, valueSize> value;
};
template <std::size_t valueSize>
std::uint32_t told(const RawRoute<valueSize>& route) {
  std::uint32_t number = 0;
  std::memcpy(&number, route.value.data(), sizeof number);
  return Platform::bigEndian(number);
}
inline std::array<std::uint64_t, 2> rawKey(const RivalKey& key) {
  const LinuxPlatform::KeyWords words = LinuxPlatform::keyWords(encodedKey<RivalRoute>(key));
  return {words.words[0], words.words[1]};
}
inline std::vector<std::array<std::uint64_t, 2>> rawKeys(const std::vector<RivalKey>& keys) {
  std::vector<std::array<std::uint64_t, 2>> raw;
  raw.reserve(keys.size());
  for (const RivalKey& key : keys) raw.push_back(rawKey(key));
  return raw;
}
// Longer values are filled up.
template <std::size_t valueSize>
std::vector<RawRoute<valueSize>> rawRoutes(const std::vector<RivalRoute>& routes) {
  std::vector<RawRoute<valueSize>> raw;
  raw.reserve(routes.size());
  for (const RivalRoute& route : routes) {
    RawRoute<valueSize>& made = raw.emplace_back(RawRoute<valueSize>{rawKey(route.key()), {}});
    RivalTraits::encode(route, made.value.data());
  }
  return raw;
}

inline constexpr const char* rawPath = "bench/raw";

// A table without service, types and followers: keys and values go in and come out as its bytes have them.
template <std::size_t valueSize>
class RawStore {
 public:
  using Route = RawRoute<valueSize>;
  using Key = std::array<std::uint64_t, 2>;

  // The writer's with a capacity; the directory of tables is there.
  RawStore(const std::string& runDirectory, const std::string& path, std::optional<std::uint32_t> capacity)
      : file_(open(runDirectory + "/tables", path, capacity)), view_(file_->image(), report_) {
    if (!capacity) return;
    writer_.emplace(file_->image(), *capacity, report_,
                    [this](std::size_t offset, std::size_t end) { return file_->reserve(offset, end); });
    file_->publish();
  }
  void put(const Route& route) { writer_->write(words(route.key), route.value); }
  void erase(const Key& key) { writer_->erase(words(key)); }
  void finish() {}
  std::optional<Route> entry(const Key& key) const { return entry(words(key)); }
  template <class Visit>
  void entries(std::span<const Key> keys, Visit visit) const {
    constexpr std::size_t group = 16;
    std::array<LinuxPlatform::KeyWords, group> wanted;
    for (; !keys.empty(); keys = keys.subspan(std::min(group, keys.size()))) {
      const std::size_t count = std::min(group, keys.size());
      for (std::size_t i = 0; i < count; ++i) wanted[i] = words(keys[i]);
      view_.expect(std::span(wanted).first(count));
      for (std::size_t i = 0; i < count; ++i) visit(entry(wanted[i]));
    }
  }
  std::optional<Route> lowerBound(const Key& key) const {
    LinuxPlatform::WalkCursor cursor;
    return seek(words(key), true, cursor);
  }
  template <class Visit>
  void walk(Visit visit) const {
    LinuxPlatform::WalkCursor cursor;
    std::optional<Route> route = seek({}, true, cursor);
    for (; route; route = seek(words(route->key), false, cursor)) visit(*route);
  }

 private:
  static LinuxPlatform::KeyWords words(const Key& key) { return {{key[0], key[1]}}; }
  static std::unique_ptr<LinuxPlatform::TableFile> open(const std::string& directory, const std::string& path,
                                                        std::optional<std::uint32_t> capacity) {
    const Pondra::TableLayout layout{"Bench::RawRoute", "route", 1, RivalTraits::keySize, valueSize, false};
    if (!capacity) return LinuxPlatform::TableFile::open(directory, path, layout, false);
    return LinuxPlatform::TableFile::create(directory, path, layout, *capacity, *capacity);
  }
  std::optional<Route> entry(const LinuxPlatform::KeyWords& key) const {
    Route route{{key.words[0], key.words[1]}, {}};
    LinuxPlatform::Entry found;
    if (!view_.find(key, route.value, found)) return std::nullopt;
    return route;
  }
  std::optional<Route> seek(const LinuxPlatform::KeyWords& from, bool inclusive,
                            LinuxPlatform::WalkCursor& cursor) const {
    Route route;
    LinuxPlatform::Entry found;
    if (!view_.seek(from, inclusive, route.value, cursor, found)) return std::nullopt;
    route.key = {found.key.words[0], found.key.words[1]};
    return route;
  }

  LinuxPlatform::DamageReport report_ = [](std::string_view what) { throw std::runtime_error(std::string(what)); };
  std::unique_ptr<LinuxPlatform::TableFile> file_;
  LinuxPlatform::TableView view_;
  std::optional<LinuxPlatform::TableWriter> writer_;
};

// --- The rivals ------------------------------------------------------------------------------------------------------

class LmdbRoutes {
 public:
  static constexpr unsigned writesPerTransaction = 1000;

  explicit LmdbRoutes(const std::string& directory)
      : store_(directory, std::size_t{2} << 30, writesPerTransaction), database_(store_.database("routes")) {}
  void put(const RivalRoute& route) { store_.putValue(database_, route); }
  void erase(const RivalKey& key) { store_.erase(database_, encodedKey<RivalRoute>(key)); }
  // A reader's, too: while it holds on to an old state, no page of that is used again.
  void finish() {
    store_.commit();
    store_.refresh();
  }
  std::optional<RivalRoute> entry(const RivalKey& key) {
    const auto bytes = store_.get(database_, encodedKey<RivalRoute>(key));
    return bytes ? RivalTraits::decode(key, *bytes) : std::nullopt;
  }
  template <class Visit>
  void walk(Visit visit) {
    store_.walk(database_, [&](LmdbStore::Bytes key, LmdbStore::Bytes value) {
      visit(*RivalTraits::decode(*RivalTraits::decodeKey(key.data()), value));
    });
  }

 private:
  LmdbStore store_;
  MDB_dbi database_;
};

// In the form that serves such maps best: under a number that orders as the key does, the value's bytes.
template <class Map>
class MapRoutes {
 public:
  void put(const RivalRoute& route) { RivalTraits::encode(route, map_[number(route.key())].data()); }
  void erase(const RivalKey& key) { map_.erase(number(key)); }
  void finish() {}
  std::optional<RivalRoute> entry(const RivalKey& key) const {
    const auto found = map_.find(number(key));
    return found == map_.end() ? std::nullopt : RivalTraits::decode(key, found->second);
  }
  std::optional<RivalRoute> lowerBound(const RivalKey& key) const {
    const auto found = map_.lower_bound(number(key));
    return found == map_.end() ? std::nullopt : route(*found);
  }
  template <class Visit>
  void walk(Visit visit) const {
    for (const auto& entry : map_) visit(*route(entry));
  }

 private:
  static constexpr unsigned vrfBits = 24;
  static std::uint64_t number(const RivalKey& key) {
    return RouteCache::Ipv4Family::rank(key.prefix()) << vrfBits | key.vrfId();
  }
  static std::optional<RivalRoute> route(const auto& entry) {
    const IpAddr last(static_cast<std::uint32_t>(entry.first >> (vrfBits + 8)));
    const Prefix prefix(last, Prefix::maxLength - (entry.first >> vrfBits & 0xff));
    return RivalTraits::decode({prefix, static_cast<std::uint32_t>(entry.first & ((1U << vrfBits) - 1))}, entry.second);
  }

  Map map_;
};
using MapValue = std::array<std::byte, RivalTraits::maxValueSize>;
using BtreeRoutes = MapRoutes<absl::btree_map<std::uint64_t, MapValue>>;
using HashRoutes = MapRoutes<absl::flat_hash_map<std::uint64_t, MapValue>>;

}  // namespace Bench
