// The hash index of a table: which slot a key is in, in one cache line for most keys and for most keys that are not
// there.
//
// A bucket is a line of 16 words. The first: in its low half how many entries have their home in this line or before it
// and lie in a line behind it, in its high half a check over the line. The other fifteen: 0, or slot number + 1 in the
// low bits (TableGeometry::slotBits) and a tag, the rest of the key's hash, in the high ones. An entry lies in the
// first line from its home on that had a place when it came, and stays there. A search goes on behind a line while the
// line's count says that entries have overflowed. Of 2^16 - 1 overflowed entries a line loses count, and every search
// that meets it goes on: keys that fall together are slow, never lost.
//
// A change stores a word and then the line's first one: between the two the check does not fit. A reader who meets that
// looks again; where no writer is at work the line is damaged, or its writer died there (TableView.h).
#pragma once

#include <bit>
#include <cstdint>
#include <optional>

#include "lib/tables/TableFormat.h"

namespace LinuxPlatform {

// What every process asks of it.
class HashIndex {
 public:
  static constexpr unsigned places = 15;

  explicit HashIndex(const TableImage& image)
      : image_(image),
        seed_(image.header().seed),
        buckets_(image.geometry().buckets),
        slotMask_((std::uint32_t{1} << image.geometry().slotBits) - 1) {}

  std::uint64_t hashOf(const KeyWords& key) const { return hashOf(key, image_.geometry().keyWordCount); }
  std::uint64_t hashOf(const KeyWords& key, unsigned keyWordCount) const {
    std::uint64_t hash = fold(key.words[0] ^ seed_, seed_ | 1);
    for (unsigned i = 1; i < keyWordCount; ++i) hash = fold(hash ^ key.words[i], 0x9e3779b97f4a7c15 ^ seed_);
    return hash * 0xc4ceb9fe1a85ec53;
  }
  std::uint32_t homeOf(std::uint64_t hash) const { return static_cast<std::uint32_t>((hash >> 32) * buckets_ >> 32); }
  std::uint32_t tagOf(std::uint64_t hash) const { return static_cast<std::uint32_t>(hash) & ~slotMask_; }
  std::uint32_t after(std::uint32_t line) const { return line + 1 == buckets_ ? 0 : line + 1; }
  // Slot of a word that is not 0; more than there are when it is damaged.
  std::uint32_t slotOf(std::uint32_t word) const { return (word & slotMask_) - 1; }
  bool isTagged(std::uint32_t word, std::uint32_t tag) const {
    return (word & slotMask_) != 0 && (word & ~slotMask_) == tag;
  }
  static std::uint32_t overflowOf(std::uint32_t first) { return first & 0xffff; }
  void expectLine(std::uint64_t hash) const { prefetch(image_.bucketLine(homeOf(hash))); }

  // The places of a line, as bits, that may hold the tag; whoever follows one loads its word again.
  std::uint32_t candidates(const std::uint32_t* line, std::uint32_t tag) const {
    return matches(line, tag, ~slotMask_);
  }
  // Whether the line is as a writer left it.
  static bool lineIsWhole(const std::uint32_t* line) {
    const std::uint32_t first = load(line[0]);
    return checkedLine(sumOf(line, places + 1) ^ first, overflowOf(first)) == first;
  }
  // What the first word of the line has to be.
  static std::uint32_t firstWord(const std::uint32_t* line, std::uint32_t overflow) {
    return checkedLine(sumOf(line, places + 1) ^ load(line[0]), overflow);
  }

 protected:
  static std::uint32_t matches(const std::uint32_t* line, std::uint32_t value, std::uint32_t mask);
  // The first word of a line whose others come to this sum.
  static constexpr std::uint32_t checkedLine(std::uint32_t sum, std::uint32_t overflow) {
    return ((sum ^ sum >> 16 ^ overflow ^ 0x5ac3) & 0xffff) << 16 | overflow;
  }

  TableImage image_;
  std::uint64_t seed_;
  std::uint32_t buckets_;
  std::uint32_t slotMask_;
};

#ifdef SHARED_TABLE_FOUR_WORDS_AT_A_TIME
// Four at a time. Aligned words are loaded whole on every machine that has these instructions.
inline std::uint32_t HashIndex::matches(const std::uint32_t* line, std::uint32_t value, std::uint32_t mask) {
  const __m128i wanted = _mm_set1_epi32(static_cast<int>(value));
  const __m128i kept = _mm_set1_epi32(static_cast<int>(mask));
  const auto* fours = reinterpret_cast<const __m128i*>(line);
  const auto equal = [&](int i) { return _mm_cmpeq_epi32(_mm_and_si128(_mm_load_si128(fours + i), kept), wanted); };
  const __m128i low = _mm_packs_epi32(equal(0), equal(1));
  const __m128i high = _mm_packs_epi32(equal(2), equal(3));
  std::atomic_signal_fence(std::memory_order_seq_cst);
  return static_cast<std::uint32_t>(_mm_movemask_epi8(_mm_packs_epi16(low, high))) & 0xfffe;
}
#else
inline std::uint32_t HashIndex::matches(const std::uint32_t* line, std::uint32_t value, std::uint32_t mask) {
  std::uint32_t found = 0;
  for (unsigned i = 1; i <= places; ++i) found |= std::uint32_t{(load(line[i]) & mask) == value} << i;
  return found;
}
#endif

// Its changes, by the one process that holds the table's lock.
class HashIndexWriter : public HashIndex {
 public:
  using HashIndex::HashIndex;

  struct Place {
    std::uint32_t line = 0;
    unsigned number = 0;  // 1 to 15; 0: none
    std::uint32_t slot = 0;
  };
  // Where the key's word is. `place.number` 0: nowhere. False: the index contradicts itself.
  bool find(const KeyWords& key, std::uint64_t hash, Place& place) const;
  // Entries; nothing when a line is not whole.
  std::optional<std::uint64_t> count() const;
  // Whether a search with the hash comes to the slot.
  bool leadsTo(std::uint64_t hash, std::uint32_t slot) const;
  // The key must not be there. False: there is no place, which cannot be.
  bool insert(std::uint64_t hash, std::uint32_t slot) const;
  void erase(std::uint64_t hash, const Place& place) const;
  // Behind a writer that died in a change of this key: takes out the word of the slot, if it is there, and puts right
  // what this change had left in the lines from the key's home on.
  void takeOut(std::uint64_t hash, std::uint32_t slot) const;
  // The key's entry, whose word is there, has moved to this slot.
  void redirect(std::uint64_t hash, const Place& place, std::uint32_t to) const;
  // Behind a writer that died in that, or before.
  void finishRedirect(std::uint64_t hash, std::uint32_t from, std::uint32_t to) const;
  // Empties it, by so many lines, or all. False: there are more behind them.
  bool clear(std::uint32_t first, std::uint32_t count) const;
  void clear() const { clear(0, buckets_); }
  // Whether every line is whole and leads to live slots with its tags, so many in all; for checks.
  bool agrees(std::uint64_t live) const;

 private:
  std::uint32_t before(std::uint32_t line) const { return line == 0 ? buckets_ - 1 : line - 1; }
  void takeOutOf(std::uint32_t line, std::uint32_t word) const;
  void put(std::uint32_t line, unsigned number, std::uint32_t word) const;
  void overflowIs(std::uint32_t line, std::uint32_t overflow) const;
  std::uint32_t countOverflow(std::uint32_t line) const;
};

}  // namespace LinuxPlatform
