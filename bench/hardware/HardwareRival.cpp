#include "bench/hardware/HardwareRival.h"

#include <algorithm>
#include <stdexcept>
#include <vector>

#include "RouteCache/hw/HitBitTimeSlices.h"
#include "bench/harness/BenchDirectory.h"
#include "platform/tables/Trie.h"
#ifdef ROUTECACHE_LMDB
#include "bench/harness/LmdbStore.h"
#endif

namespace Bench {

void PlainSlices::fileAll() {
  for (const auto& route : routes_) file(route.key(), RouteCache::timeSliceNewAdditions);
}

void PlainSlices::file(const Key& key, std::uint16_t slice) {
  const auto [known, isNew] = sliceOf_.try_emplace(key, slice);
  if (!isNew) slices_[known->second].erase(key);
  known->second = slice;
  slices_[slice].insert(key);
}

void PlainSlices::scan() {
  for (std::uint16_t slice = 0; slice < RouteCache::timeSliceInvalid; ++slice) {
    auto& keys = slices_[slice];
    for (auto next = keys.begin(); next != keys.end();) {
      const Key key = *next++;  // before its node may go
      scanKey(key, slice);
    }
  }
}

void PlainSlices::scanKey(const Key& key, std::uint16_t slice) {
  const auto route = routes_.route(key);
  const auto hit = hitBits_.routeHitBit(key);
  if (!route || !hit) throw std::runtime_error("a route or its hit bit is not there");
  const auto reported = static_cast<std::uint16_t>(std::min<std::uint32_t>(hit->hitbit(), RouteCache::timeSliceMax));
  if (reported != slice) file(key, reported);
}

std::uint64_t PlainSlices::checksum() const {
  std::uint64_t sum = 0;
  for (const auto& [slice, keys] : slices_) sum += slice * keys.size();
  return sum;
}

#ifdef ROUTECACHE_LMDB
double admitOverLmdb(const std::string& directory, const HardwareWorkload& workload) {
  using RouteCache::Ipv4Route;
  using Traits = Pondra::TableTraits<Ipv4Route>;
  const BenchDirectory own(directory);
  LmdbStore store(own.path(), std::size_t{workload.routes} * 1024 + (std::size_t{64} << 20));
  const MDB_dbi sfe = store.database("sfe");
  const MDB_dbi hardware = store.database("hardware");
  for (std::uint32_t i = 0; i < workload.routes; ++i) store.putValue(sfe, HardwareWorkload::route(i));
  store.commit();
  Routing::Trie trie;
  trie.routeIs(HardwareWorkload::cachedPrefix(), true);

  std::uint32_t admitted = 0;
  const Stopwatch stopwatch;
  store.walk(sfe, [&](LmdbStore::Bytes keyBytes, LmdbStore::Bytes bytes) {
    const std::optional<Traits::Key> key = Traits::decodeKey(keyBytes.data());
    const auto route = Traits::decode(key.value(), bytes).value();
    if (store.get(hardware, keyBytes) || !trie.longestMatch(key->prefix())) return;
    store.putValue(hardware, Ipv4Route(*key, route.adjId(), true));
    ++admitted;
  });
  store.commit();
  const double seconds = stopwatch.cpuSeconds();
  if (admitted != workload.routes) throw std::runtime_error("the rival has not done the job");
  return seconds;
}
#endif

}  // namespace Bench
