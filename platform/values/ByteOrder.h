// Words in network byte order, which compare with memcmp as the numbers order.
#pragma once

#include <bit>
#include <cstdint>

namespace Platform {

// The word whose bytes lie in memory as those of this one from the highest on; and the other way round.
constexpr std::uint64_t bigEndian(std::uint64_t word) {
  return std::endian::native == std::endian::big ? word : __builtin_bswap64(word);
}

}  // namespace Platform
