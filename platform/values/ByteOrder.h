// Words in network byte order, which compare with memcmp as the numbers order.
#pragma once

#include <bit>
#include <concepts>
#include <cstdint>

namespace Platform {

// The word whose bytes lie in memory as those of this one from the highest on; and the other way round.
template <std::unsigned_integral Word>
constexpr Word bigEndian(Word word) {
  if constexpr (std::endian::native == std::endian::big || sizeof(Word) == 1) return word;
  if constexpr (sizeof(Word) == 2) return __builtin_bswap16(word);
  if constexpr (sizeof(Word) == 4) return __builtin_bswap32(word);
  if constexpr (sizeof(Word) == 8) return __builtin_bswap64(word);
}

}  // namespace Platform
