// Hashing of values: the same on every machine and in every run, so that golden values can be tested and a hash may be
// stored in a file.
#pragma once

#include <cstddef>
#include <cstdint>

namespace Platform {

// A 64-bit finaliser: every input bit changes every output bit with probability close to one half.
constexpr std::uint64_t hashOf(std::uint64_t x) {
  x ^= x >> 33;
  x *= 0xff51afd7ed558ccdULL;
  x ^= x >> 33;
  x *= 0xc4ceb9fe1a85ec53ULL;
  x ^= x >> 33;
  return x;
}

// Combines the hash of what came before with the next value. The order matters: hashMix(a, b) != hashMix(b, a).
constexpr std::uint64_t hashMix(std::uint64_t seed, std::uint64_t value) {
  return hashOf(seed * 0x9e3779b97f4a7c15ULL + value + 1);
}

// FNV-1a over bytes, finished with hashOf.
constexpr std::uint64_t hashBytes(const unsigned char* bytes, std::size_t length) {
  std::uint64_t h = 0xcbf29ce484222325ULL;
  for (std::size_t i = 0; i < length; ++i) h = (h ^ bytes[i]) * 0x100000001b3ULL;
  return hashOf(h);
}

// For std::unordered_map and friends over any type with a hash() member.
struct Hasher {
  template <class T>
  std::size_t operator()(const T& value) const {
    return static_cast<std::size_t>(value.hash());
  }
};

}  // namespace Platform
