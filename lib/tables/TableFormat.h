// The bytes of a table file, shared by one writing process and any number of reading ones, and the rules by which they
// may be touched. All numbers are in the machine's byte order; a file of another order is refused.
//
//   section        what lies there (each begins on a page of its own)
//   header         TableHeader: what the table is; never changes, covered by a checksum
//   state          TableState: counters, and where the order begins
//   buckets        the hash index: lines of 16 words (HashIndex.h)
//   ring           the last changes, at change sequence modulo ring size: slot number, its check, and key
//   slots          the entries: 32 or 64 bytes each
//   nodes          the ordered index: nodes of four sizes (RadixNode.h)
//   heap           values that do not fit a slot, in places of up to maxHeapClasses sizes
//
// The slots are the truth; buckets, ring, nodes and free places are derived from them and can be rebuilt. Slots, nodes
// and heap are used from their beginnings on, to a high-water mark each.
//
// A slot lies in one cache line:
//   bytes        field
//   8            version word
//   keySize      key, as it compares with memcmp
//   payload      buffer 0: the value; of one in the heap its offset in the file / 8 in bits 63..24, its size in 23..0
//   checkBytes   high half of the check of buffer 0's entry; 0 bytes where it would not fit the line
//   payload      buffer 1
//   checkBytes   likewise
// Version word:
//   bits 63..19  sequence of the slot's last change
//   bits 18..3   low half of the check of its entry
//   bit 2        the buffer in use
//   bits 1..0    the state
// States:
//   free     no index leads there; all zero: never used
//   linked   in some or all indexes, not an entry: on its way in or out
//   live     an entry
// The check of a slot that is not live covers sequence and state, so that no flipped bit takes an entry away in
// silence. No sequence is used for two changes, so an unchanged version word means an unchanged entry.
//
// Writing: the buffer that is not in use is filled, then the version word is stored. Reading: the version word, the
// bytes, the version word again; when it differs the bytes are thrown away. A writer that stops anywhere leaves the
// version word on a whole value, so nobody waits for it. A word that holds bytes of both buffers, or of key and buffer,
// is stored whole: the bytes of the others are stored as they were, by the only process that stores at all.
//
// Every word is accessed as an atomic: stores release, loads acquire. That orders a buffer's words with the version
// word in both directions without fences, on weakly ordered machines, too: a reader who sees a word of a newer value
// has acquired what its writer stored before, the version word of the change in between included, and so finds that it
// moved. Where a search compares two or four neighbouring words in one access, and where the root's reference is loaded
// as half of its word, that access is a hint: what it leads to is loaded again by itself, or its check is.
//
// No load and no store meets a page that the filesystem has no room for: header, state, buckets and ring have theirs
// when the file gets its name, slots, nodes and heap before their high-water mark passes it (Reserve).
//
// Giving memory back: what lies at the end of a section is moved into free places before it, the mark goes down, the
// epoch is counted on by two, and then the pages from the mark on are given back (Release): they read as zero bytes.
//   entry   is written into the free slot as a new one, under a sequence of its own; for a moment both are live and
//           the same. Then the hash index's word and the order's reference are stored, one store each, then the head's
//           sequence, and then the old slot is free. A search that was led to the old slot finds it live, or finds
//           that what had led there leads elsewhere by now, or that changes have come since.
//   value   in the heap: as if it were changed to what it is.
//   node    is copied, and the one reference that led to it stored; like any change of the order.
// The ring says of the first two that nothing has changed (ringMoved). Whoever looks at all slots may have passed the
// new one before the entry came and meet the old one when it has gone: the ring tells.
// Zero bytes are no entry (a free slot), no damage (an index that leads there has changed since, or is wrong) and no
// node (its check does not fit). The versions of nodes in pages that come back begin anew: a search in the order during
// which the epoch has moved starts again.
#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <utility>

#include "platform/tables/SharedTable.h"
#include "platform/values/ByteOrder.h"
#include "platform/values/Hash.h"
#include "platform/values/Prefetch.h"

#if defined(__SSE2__) && !defined(__SANITIZE_THREAD__) && !defined(SHARED_TABLE_BEFORE_LOAD)
#define SHARED_TABLE_FOUR_WORDS_AT_A_TIME
#include <emmintrin.h>
#endif

namespace LinuxPlatform {

using Pondra::Bytes;
using Pondra::MutableBytes;

// --- Words -----------------------------------------------------------------------------------------------------------

static_assert(std::atomic_ref<std::uint64_t>::is_always_lock_free &&
                  std::atomic_ref<std::uint32_t>::is_always_lock_free,
              "words are shared between processes");

// A test that compiles these files for itself puts a writer's changes between two loads of a reader, or stops a writer
// before a store; pages are so small there that small tables have some to give back.
#ifndef SHARED_TABLE_BEFORE_LOAD
#define SHARED_TABLE_BEFORE_LOAD() static_cast<void>(0)
#define SHARED_TABLE_BEFORE_STORE(word) static_cast<void>(0)
#define SHARED_TABLE_PAGE 4096
#endif

template <class Word>
Word load(const Word& word) {
  SHARED_TABLE_BEFORE_LOAD();
  // atomic_ref of a const word comes with a later standard; a lock-free load writes nothing.
  return std::atomic_ref<Word>(const_cast<Word&>(word)).load(std::memory_order_acquire);
}
template <class Word>
void store(Word& word, Word value) {
  SHARED_TABLE_BEFORE_STORE(word);
  std::atomic_ref<Word>(word).store(value, std::memory_order_release);
}

using Platform::prefetch;

// Whole words: the last one is filled up with zero bytes.
void storeBytes(std::uint64_t* to, Bytes from);
void loadBytes(MutableBytes to, const std::uint64_t* from);

// Up to 8 bytes as a word, the others of which are zero, and the other way round. No call for a size that is not known
// beforehand: this is on the way of every lookup. In pieces that lie side by side (platform/values/WireBytes.h).
inline std::uint64_t wordOf(const std::byte* from, std::size_t size) {
  std::uint64_t word = 0;
  if (size >= 8) {
    std::memcpy(&word, from, 8);
    return word;
  }
  const auto piece = [&](auto part, std::size_t at) {
    std::memcpy(&part, from + at, sizeof part);
    const std::size_t shift = std::endian::native == std::endian::big ? 64 - 8 * (at + sizeof part) : 8 * at;
    word |= std::uint64_t{part} << shift;
  };
  if ((size & 4) != 0) piece(std::uint32_t{}, 0);
  if ((size & 2) != 0) piece(std::uint16_t{}, size & 4);
  if ((size & 1) != 0) piece(std::uint8_t{}, size & 6);
  return word;
}
inline void putWord(std::byte* to, std::uint64_t word, std::size_t size) {
  const auto* from = reinterpret_cast<const std::byte*>(&word);
  if (size >= 8) {
    std::memcpy(to, from, 8);
    return;
  }
  if ((size & 4) != 0) std::memcpy(to, from, 4);
  if ((size & 2) != 0) std::memcpy(to + (size & 4), from + (size & 4), 2);
  if ((size & 1) != 0) to[size & 6] = from[size & 6];
}
// As memcpy; quick for the sizes that values have.
inline void copyBytes(std::byte* to, const std::byte* from, std::size_t size) {
  if (size > 32) {
    std::memcpy(to, from, size);
    return;
  }
  for (; size >= 8; to += 8, from += 8, size -= 8) std::memcpy(to, from, 8);
  if ((size & 4) != 0) std::memcpy(to, from, 4), to += 4, from += 4;
  if ((size & 2) != 0) std::memcpy(to, from, 2), to += 2, from += 2;
  if ((size & 1) != 0) *to = *from;
}

// What the words come to, each exclusive-or-ed with the others: a multiple of four, at a multiple of 16 bytes. Several
// at a time, for lines and nodes are summed up often; aligned ones are loaded whole on every machine that has these
// instructions.
inline std::uint32_t sumOf(const std::uint32_t* words, unsigned count) {
#ifdef SHARED_TABLE_FOUR_WORDS_AT_A_TIME
  const auto* fours = reinterpret_cast<const __m128i*>(words);
  __m128i sums = _mm_load_si128(fours);
#pragma GCC unroll 4
  for (unsigned i = 1; i < count / 4; ++i) sums = _mm_xor_si128(sums, _mm_load_si128(fours + i));
  sums = _mm_xor_si128(sums, _mm_srli_si128(sums, 8));
  sums = _mm_xor_si128(sums, _mm_srli_si128(sums, 4));
  std::atomic_signal_fence(std::memory_order_seq_cst);
  return static_cast<std::uint32_t>(_mm_cvtsi128_si32(sums));
#else
  std::uint32_t sum = 0;
  for (unsigned i = 0; i < count; ++i) sum ^= load(words[i]);
  return sum;
#endif
}

// Every bit of both words has a say in every bit of the result.
inline std::uint64_t fold(std::uint64_t a, std::uint64_t b) {
  __extension__ using Wide = unsigned __int128;
  const Wide product = Wide{a} * b;
  return static_cast<std::uint64_t>(product) ^ static_cast<std::uint64_t>(product >> 64);
}

// A word of the state that shows when it is damaged: a number below 2^48 and 16 bits of check.
constexpr unsigned checkedBits = 48;
constexpr std::uint64_t checkedWord(std::uint64_t number) {
  return Platform::hashOf(number + 0x9e3779b97f4a7c15) << checkedBits | number;
}
constexpr std::uint64_t numberIn(std::uint64_t word) {
  return word & ((std::uint64_t{1} << checkedBits) - 1);
}
constexpr bool isSound(std::uint64_t word) {
  return word == checkedWord(numberIn(word));
}
inline void storeNumber(std::uint64_t& word, std::uint64_t number) {
  store(word, checkedWord(number));
}
inline std::uint64_t loadNumber(const std::uint64_t& word) {
  return numberIn(load(word));
}

// --- Keys ------------------------------------------------------------------------------------------------------------

inline constexpr std::size_t maxKeyWords = Pondra::maxKeySize / 8;

// A key as it lies in a slot: its bytes, filled up with zero bytes to whole words. Only the first words, as many as the
// table's key has, mean anything.
struct KeyWords {
  std::array<std::uint64_t, maxKeyWords> words{};
  const unsigned char* bytes() const { return reinterpret_cast<const unsigned char*>(words.data()); }
};
inline KeyWords keyWords(Bytes key) {
  KeyWords result;
  const std::byte* from = key.data();
  std::size_t left = key.size();
  std::uint64_t* to = result.words.data();
  for (; left > 8; from += 8, left -= 8) *to++ = wordOf(from, 8);
  *to = wordOf(from, left);
  return result;
}
inline void keyBytes(const KeyWords& key, MutableBytes out) {
  copyBytes(out.data(), reinterpret_cast<const std::byte*>(key.words.data()), out.size());
}
// The word with all but its first `count` bytes cleared keeps these bits; count 0 to 8.
constexpr std::uint64_t firstBytes(unsigned count) {
  if (count == 0) return 0;
  const std::uint64_t all = ~std::uint64_t{0};
  return std::endian::native == std::endian::little ? all >> (64 - 8 * count) : all << (64 - 8 * count);
}

// --- Version words ---------------------------------------------------------------------------------------------------

enum class SlotState : std::uint8_t { free = 0, linked = 1, live = 2 };

inline constexpr unsigned sequenceShift = 19;
// So many changes a file can count: thirteen months of a million a second. A writer's mount that finds a file past half
// of them starts a new one.
inline constexpr std::uint64_t maxSequence = (std::uint64_t{1} << (64 - sequenceShift)) - 1;

// `check`: of a live entry, entryCheck(); its low half stands in the word.
constexpr std::uint64_t versionWord(std::uint64_t sequence, unsigned buffer, std::uint32_t check) {
  return sequence << sequenceShift | std::uint64_t{check & 0xffff} << 3 | std::uint64_t{buffer} << 2 |
         static_cast<std::uint64_t>(SlotState::live);
}
constexpr std::uint64_t versionWord(std::uint64_t sequence, SlotState state) {
  const std::uint64_t check = Platform::hashMix(sequence, static_cast<std::uint64_t>(state)) & 0xffff;
  return sequence << sequenceShift | check << 3 | static_cast<std::uint64_t>(state);
}
constexpr std::uint64_t sequenceOf(std::uint64_t version) {
  return version >> sequenceShift;
}
constexpr unsigned bufferOf(std::uint64_t version) {
  return static_cast<unsigned>(version >> 2 & 1);
}
constexpr std::uint32_t checkOf(std::uint64_t version) {
  return static_cast<std::uint32_t>(version >> 3 & 0xffff);
}
// 3 is no state: such a slot is damaged.
constexpr SlotState stateOf(std::uint64_t version) {
  return static_cast<SlotState>(version & 3);
}
constexpr bool isLive(std::uint64_t version) {
  return stateOf(version) == SlotState::live;
}
// Of a slot that is not live: whether the word is one that a writer has stored.
constexpr bool isSoundWithoutEntry(std::uint64_t version) {
  return version == 0 || (stateOf(version) != static_cast<SlotState>(3) && !isLive(version) &&
                          version == versionWord(sequenceOf(version), stateOf(version)));
}

// --- Header and state ------------------------------------------------------------------------------------------------

inline constexpr std::uint64_t tableMagic = 0x454c424154434f52;
inline constexpr std::uint32_t tableEndianTag = 0x01020304;
inline constexpr std::uint32_t tableFormatVersion = 3;
inline constexpr std::uint32_t maxSlots = Pondra::maxCapacity;
inline constexpr unsigned nodeKinds = 4;
inline constexpr unsigned maxHeapClasses = 28;
// The largest value that a table can hold, in bytes.
inline constexpr std::uint32_t maxTableValueSize = std::uint32_t{1} << 16;

// What the table is; set once, before the file gets its name.
//   offset  size  field
//        0     8  magic
//        8     4  endianTag
//       12     4  formatVersion   of this file's layout
//       16     4  layoutVersion   of the values
//       20     4  keySize         bytes
//       24     4  maxValueSize    bytes
//       28     4  variableSize    0 or 1
//       32     4  capacity        entries
//       36     4  slots           at least capacity; more after a migration that found more entries
//       40     8  fileSize        bytes
//       48   128  typeName        texts end with a zero byte
//      176    64  collection
//      240  1024  path            the mount path
//     1264     8  seed            of the hash index: nobody chooses keys that fall together in it
//     1272     8  checksum        over everything above
struct TableHeader {
  std::uint64_t magic;
  std::uint32_t endianTag;
  std::uint32_t formatVersion;
  std::uint32_t layoutVersion;
  std::uint32_t keySize;
  std::uint32_t maxValueSize;
  std::uint32_t variableSize;
  std::uint32_t capacity;
  std::uint32_t slots;
  std::uint64_t fileSize;
  char typeName[128];
  char collection[64];
  char path[1024];
  std::uint64_t seed;
  std::uint64_t checksum;
};
static_assert(sizeof(TableHeader) == 1280, "other processes read these bytes");

// What changes, at tableStateOffset. Words marked * are checkedWord()s.
//   offset  size  field
//        0     8  headSequence *  of the last change; its ring entry and its slot are visible before it
//        8     8  liveCount *     entries
//       16     8  operation *     slot + 1 that is being put into the indexes or taken out; 0: none
//       24     8  epoch *         odd while the indexes are being rebuilt: only the slots may be read then;
//                                 counted on by two before pages are given back
//       32     8  root *          reference to the first node of the order (RadixNode.h); 0: no entries
//       40     8  highWater *     slots from this number on hold nothing
//       48     8  doorbell        written with write(2), never mapped stores: wakes those who watch the file
//       56    32  nodesUsed *     nodes of each kind from this number on hold nothing
//       88   224  heapUsed *      places of each size of the heap, likewise
//      312     8  generation      of the writer: counted on by each that takes the table over; 0: none has yet
//      320     8  reconciled      the generation whose writer has last said that the table holds what it should
//      328     8  looseOrder *    1: nodes of the order may be larger than need be; no room was left for smaller ones
//      336     8  moving *        while `operation` names the slot that an entry moves to: slot + 1 that it comes from;
//                                 0: that is no move
//      344     8  nodesMoved *    how often a node of the order has been moved
struct TableState {
  std::uint64_t headSequence;
  std::uint64_t liveCount;
  std::uint64_t operation;
  std::uint64_t epoch;
  std::uint64_t root;
  std::uint64_t highWater;
  std::uint64_t doorbell;
  std::uint64_t nodesUsed[nodeKinds];
  std::uint64_t heapUsed[maxHeapClasses];
  std::uint64_t generation;
  std::uint64_t reconciled;
  std::uint64_t looseOrder;
  std::uint64_t moving;
  std::uint64_t nodesMoved;
};
static_assert(sizeof(TableState) == 352, "other processes read these bytes");
inline constexpr std::size_t tableStateOffset = 2048;

// Makes sure that these bytes of the file have room on its filesystem. False: they have not, and what needs them is not
// done.
using Reserve = std::function<bool(std::size_t begin, std::size_t end)>;
// Gives the pages of these bytes, which nothing leads to, back to the filesystem: they are zero bytes from then on.
// False: it keeps them.
using Release = std::function<bool(std::size_t begin, std::size_t end)>;
inline constexpr std::size_t tablePage = SHARED_TABLE_PAGE;  // bytes; sections begin on one

// Places of one size in the file, numbered from 0.
struct PlaceSection {
  std::size_t begin = 0;   // offset in the file
  std::uint32_t size = 0;  // bytes of a place
  std::uint32_t count = 0;
  std::size_t at(std::uint64_t number) const { return begin + number * size; }
  std::size_t end() const { return at(count); }
};

// Where everything lies; follows from the layout and the number of slots alone, so no offset is ever read from a file.
struct TableGeometry {
  TableGeometry(const Pondra::TableLayout& layout, std::uint32_t slotCount);

  std::uint32_t slots;  // number
  std::uint32_t keySize;
  std::uint32_t maxValueSize;
  bool variableSize;
  unsigned keyWordCount;
  std::uint64_t lastKeyWord;      // the bytes of the last word of a key that are the key's
  bool inHeap;                    // values lie there
  unsigned payload;               // bytes of a buffer that are the value's, or lead to it
  std::uint64_t lastPayloadWord;  // the bytes of its last word that are the value's
  unsigned checkBytes;            // 0 or 2
  bool isShort;                   // value and check: no more than eight bytes
  unsigned slotWords;             // 64-bit words of a slot that mean anything
  std::uint32_t buckets;          // lines
  unsigned slotBits;              // of a bucket's word
  std::uint32_t ringSize;         // a power of two
  std::uint32_t ringWords;        // of one ring entry
  std::size_t bucketLines, ring;  // offsets in the file
  PlaceSection slotPlaces;
  std::array<PlaceSection, nodeKinds> nodes;
  std::array<PlaceSection, maxHeapClasses> heap;
  unsigned heapClasses;
  std::size_t fileSize;

  // Of a buffer: the words in which its first eight bytes lie; the first begins so many bits before it.
  struct FirstWords {
    unsigned first, second, shift;
  };
  std::array<FirstWords, 2> firstWords;
  bool straddles;  // short ones lie in two words, too

  unsigned bufferAt(unsigned number) const { return 8 + keySize + number * (payload + checkBytes); }
  // Whether a reference can name every node and a descriptor every place of the heap.
  bool isRepresentable() const;
  // The smallest places that hold so many bytes, at most maxValueSize.
  unsigned heapClassFor(std::size_t size) const;
};

// Where a value lies in the heap; a slot holds it in one word.
struct HeapExtent {
  std::uint64_t offset = 0;  // in the file, bytes
  std::size_t size = 0;      // of the value, bytes
  HeapExtent(std::uint64_t at, std::size_t bytes) : offset(at), size(bytes) {}
  explicit HeapExtent(std::uint64_t descriptor) : offset(descriptor >> 24 << 3), size(descriptor & 0xffffff) {}
  std::uint64_t descriptor() const { return offset >> 3 << 24 | size; }
  // Whether a value can lie there.
  bool isPlaceIn(const TableGeometry& geometry) const;
};

// The header of a new table. `seed` is nobody's to guess.
TableHeader tableHeader(const std::string& path, const Pondra::TableLayout& layout, std::uint32_t capacity,
                        std::uint32_t slots, std::uint64_t seed);
// Why these bytes are no header of this path and layout, in one line; empty: they are one.
std::string headerFault(const TableHeader& header, const std::string& path, const Pondra::TableLayout& layout);
// Why these bytes are no header of any table.
std::string headerFault(const TableHeader& header);

// The check of an entry, over all that it holds and the sequence it was written with, so that neither can be exchanged
// for another's. Products of words that do not depend on each other: no chain of latencies.
inline constexpr std::uint64_t checkOdd[4] = {0x9e3779b97f4a7c15, 0xff51afd7ed558ccd, 0xc4ceb9fe1a85ec53,
                                              0xd6e8feb86659fd93};
constexpr std::uint32_t checkIn(std::uint64_t sum) {
  return static_cast<std::uint32_t>(sum ^ sum >> 32);
}
// All of it for a value of up to eight bytes, the missing ones zero. What has to be waited for, value and sequence,
// comes last.
[[gnu::always_inline]] inline std::uint64_t checkSum(const KeyWords& key, unsigned keyWordCount, std::size_t valueSize,
                                                     std::uint64_t firstValueWord, std::uint64_t sequence) {
  std::uint64_t sum = valueSize * checkOdd[3];
  for (unsigned i = 0; i < keyWordCount; i += 2) {
    const std::uint64_t second = i + 1 < keyWordCount ? key.words[i + 1] : 0;
    sum = std::rotl(sum, 13) + fold(key.words[i] ^ checkOdd[1], second ^ checkOdd[2]);
  }
  return sum + fold(firstValueWord ^ checkOdd[0], sequence ^ checkOdd[3]);
}
// `valueWord(i)`: eight bytes of the value each, the missing ones of the last zero.
template <class ValueWord>
std::uint32_t entryCheck(const KeyWords& key, unsigned keyWordCount, std::size_t valueSize, ValueWord valueWord,
                         std::uint64_t sequence) {
  const std::size_t valueWords = (valueSize + 7) / 8;
  std::uint64_t sum = checkSum(key, keyWordCount, valueSize, valueWords != 0 ? valueWord(0) : 0, sequence);
  for (std::size_t i = 1; i < valueWords; i += 2) {
    const std::uint64_t second = i + 1 < valueWords ? valueWord(i + 1) : 0;
    sum = std::rotl(sum, 17) + fold(valueWord(i) ^ checkOdd[2], second ^ checkOdd[3]);
  }
  return checkIn(sum);
}
std::uint32_t entryCheck(const KeyWords& key, unsigned keyWordCount, Bytes value, std::uint64_t sequence);

// Eight bytes as they lie in memory, so many bits behind the beginning of the first of two neighbouring words.
constexpr std::uint64_t wordAcross(std::uint64_t first, std::uint64_t second, unsigned shift) {
  if constexpr (std::endian::native == std::endian::big) return first << shift | second >> 1 >> (63 - shift);
  return first >> shift | second << 1 << (63 - shift);
}

// What of the eight bytes comes to lie in the first word, and in the second.
constexpr std::uint64_t firstAcross(std::uint64_t eight, unsigned shift) {
  return std::endian::native == std::endian::big ? eight >> shift : eight << shift;
}
constexpr std::uint64_t secondAcross(std::uint64_t eight, unsigned shift) {
  return std::endian::native == std::endian::big ? eight << 1 << (63 - shift) : eight >> 1 >> (63 - shift);
}
// Of such eight bytes the two behind the first `count`, as a number; and a number as those.
constexpr std::uint64_t atHalfBehind(std::uint16_t half, unsigned count) {
  return std::uint64_t{half} << (std::endian::native == std::endian::big ? 48 - 8 * count : 8 * count);
}
constexpr std::uint16_t halfBehind(std::uint64_t word, unsigned count) {
  return static_cast<std::uint16_t>(std::endian::native == std::endian::big ? word << 8 * count >> 48
                                                                            : word >> 8 * count);
}

// The words of a slot, of one moment; of a slot of 32 bytes the first four.
struct SlotImage {
  std::array<std::uint64_t, 8> words;
  std::uint64_t version() const { return words[0]; }
  const std::byte* bytes() const { return reinterpret_cast<const std::byte*>(words.data()); }
  std::byte* bytes() { return reinterpret_cast<std::byte*>(words.data()); }
  // Eight bytes from this one on; those behind the slot may be any. By whole words: a processor waits for bytes that it
  // has just stored as parts of two.
  std::uint64_t wordAt(unsigned at) const {
    return wordAcross(words[at / 8], words[std::min(at / 8 + 1, 7U)], at % 8 * 8);
  }
};

// Where the value of the entry in a slot lies, when values lie in the heap.
inline HeapExtent extentIn(const SlotImage& slot, const TableGeometry& geometry) {
  return HeapExtent(slot.wordAt(geometry.bufferAt(bufferOf(slot.version()))));
}

// --- The mapped table ------------------------------------------------------------------------------------------------

// Names the words of a mapped table. Owns nothing; whoever has mapped the file read-only must not store through it.
// Slot and place numbers must be in range: whoever reads one from the file checks it first.
class TableImage {
 public:
  TableImage(std::byte* base, const TableGeometry& geometry) : base_(base), geometry_(&geometry) {}

  const TableGeometry& geometry() const { return *geometry_; }
  const TableHeader& header() const { return *reinterpret_cast<const TableHeader*>(base_); }
  TableState& state() const { return *reinterpret_cast<TableState*>(base_ + tableStateOffset); }
  const std::byte* base() const { return base_; }

  std::uint64_t* slot(std::uint32_t number) const { return words(geometry_->slotPlaces.at(number)); }
  std::uint64_t& version(std::uint32_t number) const { return *slot(number); }
  // 16 words: what overflowed, then 15 places.
  std::uint32_t* bucketLine(std::uint32_t number) const {
    return reinterpret_cast<std::uint32_t*>(base_ + geometry_->bucketLines + std::size_t{number} * 64);
  }
  // Slot number in the low half, with ringMoved or without, its check in the high one; then the words of the key.
  std::uint64_t* ring(std::uint64_t sequence) const {
    return words(geometry_->ring + (sequence & (geometry_->ringSize - 1)) * geometry_->ringWords * 8);
  }
  std::uint32_t* node(unsigned kind, std::uint32_t number) const {
    return reinterpret_cast<std::uint32_t*>(base_ + geometry_->nodes[kind].at(number));
  }
  std::uint64_t* words(std::size_t offset) const { return reinterpret_cast<std::uint64_t*>(base_ + offset); }

  // The words of one moment; false when the slot kept changing.
  bool readSlot(std::uint32_t number, SlotImage& out) const {
    const std::uint64_t* from = slot(number);
    for (unsigned i = 0; i < slotTries; ++i) {
      copyWords<0, 4>(out, from);
      if (geometry_->slotWords > 4) copyWords<4, 8>(out, from);
      if (load(from[0]) == out.words[0]) return true;
    }
    return false;
  }
  KeyWords keyIn(const SlotImage& slot) const {
    KeyWords key;
    const unsigned last = geometry_->keyWordCount - 1;
    for (unsigned i = 0; i < last; ++i) key.words[i] = slot.words[1 + i];
    key.words[last] = slot.words[1 + last] & geometry_->lastKeyWord;
    return key;
  }
  bool hasKey(const SlotImage& slot, const KeyWords& key) const {
    const unsigned last = geometry_->keyWordCount - 1;
    for (unsigned i = 0; i < last; ++i) {
      if (slot.words[1 + i] != key.words[i]) return false;
    }
    return (slot.words[1 + last] & geometry_->lastKeyWord) == key.words[last];
  }
  // The same of a slot's words, as they are now.
  bool holds(const std::uint64_t* slot, const KeyWords& key, unsigned keyWordCount) const {
    std::uint64_t differs = (load(slot[keyWordCount]) & geometry_->lastKeyWord) ^ key.words[keyWordCount - 1];
    for (unsigned i = 0; i + 1 < keyWordCount; ++i) differs |= load(slot[1 + i]) ^ key.words[i];
    return differs == 0;
  }
  // For the writer, under whom no slot changes.
  KeyWords keyOf(std::uint32_t number) const {
    KeyWords key;
    const std::uint64_t* from = slot(number) + 1;
    const unsigned last = geometry_->keyWordCount - 1;
    for (unsigned i = 0; i <= last; ++i) key.words[i] = load(from[i]);
    key.words[last] &= geometry_->lastKeyWord;
    return key;
  }
  KeyWords loadKey(const std::uint64_t* from) const {
    KeyWords loaded;
    for (unsigned i = 0; i < geometry_->keyWordCount; ++i) loaded.words[i] = load(from[i]);
    return loaded;
  }
  void storeKey(std::uint64_t* to, const KeyWords& from) const {
    for (unsigned i = 0; i < geometry_->keyWordCount; ++i) store(to[i], from.words[i]);
  }
  // Negative, 0, positive: a before, equal to, after b.
  int compare(const KeyWords& a, const KeyWords& b) const { return compare(a, b, geometry_->keyWordCount); }
  static int compare(const KeyWords& a, const KeyWords& b, unsigned keyWordCount) {
    for (unsigned i = 0; i < keyWordCount; ++i) {
      if (a.words[i] != b.words[i]) return Platform::bigEndian(a.words[i]) < Platform::bigEndian(b.words[i]) ? -1 : 1;
    }
    return 0;
  }
  // A prefetch is no access: the number may be any.
  void expectSlot(std::uint32_t number) const { prefetch(base_ + geometry_->slotPlaces.at(number)); }
  // Slots from here on hold nothing; all that there are when the mark is damaged.
  std::uint32_t highWater() const;

 private:
  // A writer at full speed changes one slot a few times while it is read; it does not do so this often.
  static constexpr unsigned slotTries = 1000;

  template <unsigned begin, unsigned end>
  static void copyWords(SlotImage& to, const std::uint64_t* from) {
    [&]<std::size_t... i>(std::index_sequence<i...>) {
      ((to.words[begin + i] = load(from[begin + i])), ...);
    }
    (std::make_index_sequence<end - begin>());
  }

  std::byte* base_;
  const TableGeometry* geometry_;
};

// Beside the slot of a ring entry: the entry or its value has been moved, and is what it was.
inline constexpr std::uint32_t ringMoved = std::uint32_t{1} << 31;
constexpr std::uint32_t ringSlot(std::uint64_t word) {
  return static_cast<std::uint32_t>(word) & ~ringMoved;
}
constexpr bool isMove(std::uint64_t word) {
  return (word & ringMoved) != 0;
}
// A ring entry's first word: its check in the high half. `slot`: with ringMoved or without.
inline std::uint64_t ringWord(std::uint32_t slot, const KeyWords& key, unsigned keyWordCount, std::uint64_t sequence) {
  const std::uint64_t sum = checkSum(key, keyWordCount, 0, 0, sequence ^ std::uint64_t{slot} << 32);
  return std::uint64_t{checkIn(sum)} << 32 | slot;
}

// Makes an empty table of these zero bytes; their header stands already. By so many lines of the hash index: false when
// there are more behind them, which are asked for in turn.
bool formatTable(const TableImage& image, std::uint32_t firstLine = 0, std::uint32_t lines = ~std::uint32_t{0});

}  // namespace LinuxPlatform
