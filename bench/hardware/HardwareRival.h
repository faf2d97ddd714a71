// The same work done plainly, for HardwareBench to compare with.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <unordered_map>

#include "bench/hardware/HardwareWorkload.h"

namespace Bench {

// Time slices of the standard containers: one set of keys for each, and a map to find a key's slice. Nothing yields,
// nothing is said to the hardware.
class PlainSlices {
 public:
  using Key = HardwareWorkload::Key;
  PlainSlices(const RouteCache::Ipv4RouteStatus& routes, const RouteCache::Ipv4HitBitStatus& hitBits)
      : routes_(routes), hitBits_(hitBits) {}

  // Every route of the hardware table becomes a new addition.
  void fileAll();
  // Refiles every key by its hit bit.
  void scan();
  // The sum of all keys' slice numbers.
  std::uint64_t checksum() const;

 private:
  struct KeyHash {
    std::size_t operator()(const Key& key) const { return static_cast<std::size_t>(key.hash()); }
  };
  void file(const Key& key, std::uint16_t slice);
  void scanKey(const Key& key, std::uint16_t slice);

  const RouteCache::Ipv4RouteStatus& routes_;
  const RouteCache::Ipv4HitBitStatus& hitBits_;
  std::map<std::uint16_t, std::set<Key>> slices_;
  std::unordered_map<Key, std::uint16_t, KeyHash> sliceOf_;
};

#ifdef ROUTECACHE_LMDB
// Processor seconds for admitting all routes in one walk: for each its entry in the hardware table is looked up, its
// cached prefix found, and the hardware's entry written. Slices, yielding and being followed are left out. Throws
// std::runtime_error when not all were admitted.
double admitOverLmdb(const std::string& directory, const HardwareWorkload& workload);
#endif

}  // namespace Bench
