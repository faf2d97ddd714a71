// The bytes of a table file, shared by one writing process and any number of reading ones, and the rules by which they
// may be touched. All numbers are in the machine's byte order; a file of another order is refused.
//
//   section        what lies there
//   header         TableHeader: what the table is; never changes, covered by a checksum
//   state          TableState: counters and the heads of the ordered list
//   versions       one 64-bit version word per slot
//   bodies         per slot: chain link, key, two value buffers
//   order          link of level 0 of the ordered list, one per slot; then the links of level 1, 2 ... in a quarter as
//                  many places each
//   buckets        heads of the hash chains
//   ring           the last changes, at change sequence modulo ring size: slot number and key, a word each
//   heap           values of variable size
//
// The slots are the truth; order, buckets, ring and heap space are derived from them and can be rebuilt. Slots are
// named by number; a *node* is a slot number + 1, so that 0 is "none", and as a predecessor the head of a list.
//
// Version word: sequence of the slot's last change in bits 63..3, bit 2 the value buffer in use, bits 1..0 the state:
//   free     not in the lists; its body may be rewritten at any time
//   linked   in some or all lists, not an entry: on its way in or out
//   live     an entry
// No sequence is used for two changes, so an unchanged version word means an unchanged entry.
//
// Writing: the buffer that is not in use is filled, then the version word is stored. Reading: the version word, the
// bytes, the version word again; when it differs the bytes are thrown away. A writer that stops anywhere leaves the
// version word on a whole value, so nobody waits for it.
//
// Every word is accessed as an atomic: stores release, loads acquire. That orders a buffer's words with the version
// word in both directions without fences: who sees a word of a newer value also sees that the version word has moved.
#pragma once

#include <array>
#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/tables/SharedTable.h"
#include "platform/values/Hash.h"

namespace LinuxPlatform {

using Pondra::Bytes;
using Pondra::MutableBytes;

// --- Words -----------------------------------------------------------------------------------------------------------

static_assert(std::atomic_ref<std::uint64_t>::is_always_lock_free &&
                  std::atomic_ref<std::uint32_t>::is_always_lock_free,
              "words are shared between processes");

// A test that compiles these files for itself stops a writer before any store, and a reader before any load.
#ifndef SHARED_TABLE_BEFORE_LOAD
#define SHARED_TABLE_BEFORE_LOAD() static_cast<void>(0)
#define SHARED_TABLE_BEFORE_STORE(word) static_cast<void>(0)
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

// Whole words: the last one is filled up with zero bytes.
void storeBytes(std::uint64_t* to, Bytes from);
void loadBytes(MutableBytes to, const std::uint64_t* from);

// --- Keys ------------------------------------------------------------------------------------------------------------

inline constexpr std::size_t maxKeyWords = Pondra::maxKeySize / 8;

// A key as it lies in a body: its bytes as big-endian words, filled up with zero bytes, so that keys of one size order
// as their words do. Only the first words, as many as the table's key has, mean anything.
struct KeyWords {
  std::array<std::uint64_t, maxKeyWords> words{};
};
KeyWords keyWords(Bytes key);
void keyBytes(const KeyWords& key, MutableBytes out);

// --- Version words ---------------------------------------------------------------------------------------------------

enum class SlotState : std::uint8_t { free = 0, linked = 1, live = 2 };

constexpr std::uint64_t versionWord(std::uint64_t sequence, unsigned buffer, SlotState state) {
  return sequence << 3 | std::uint64_t{buffer} << 2 | static_cast<std::uint64_t>(state);
}
constexpr std::uint64_t sequenceOf(std::uint64_t version) {
  return version >> 3;
}
constexpr unsigned bufferOf(std::uint64_t version) {
  return static_cast<unsigned>(version >> 2 & 1);
}
// 3 is no state: such a slot is damaged.
constexpr SlotState stateOf(std::uint64_t version) {
  return static_cast<SlotState>(version & 3);
}
constexpr bool isLive(std::uint64_t version) {
  return stateOf(version) == SlotState::live;
}

// No honest file comes near it.
inline constexpr std::uint64_t maxSequence = std::uint64_t{1} << 60;

// --- Header and state ------------------------------------------------------------------------------------------------

inline constexpr std::uint64_t tableMagic = 0x454c424154434f52;
inline constexpr std::uint32_t tableEndianTag = 0x01020304;
inline constexpr std::uint32_t tableFormatVersion = 1;
inline constexpr std::uint32_t maxSlots = Pondra::maxCapacity;
inline constexpr unsigned maxLevels = 16;

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
//     1264     8  checksum        over everything above
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
  std::uint64_t checksum;
};
static_assert(sizeof(TableHeader) == 1272, "other processes read these bytes");

// What changes, at tableStateOffset.
//   offset  size  field
//        0     8  headSequence    of the last change; its ring entry and its slot are visible before it
//        8     8  liveCount       entries
//       16     8  operation       node being linked or unlinked; 0: none
//       24     8  epoch           odd while order and buckets are being rebuilt: only the slots may be read then
//       32     8  highWater       slots from this number on have never been used
//       40     8  doorbell        written with write(2), never mapped stores: wakes those who watch the file
//       48    64  heads           first node of each level of the ordered list
//      112     8  generation      of the writer: counted on by each that takes the table over; 0: none has yet
//      120     8  reconciled      the generation whose writer has last said that the table holds what it should
struct TableState {
  std::uint64_t headSequence;
  std::uint64_t liveCount;
  std::uint64_t operation;
  std::uint64_t epoch;
  std::uint64_t highWater;
  std::uint64_t doorbell;
  std::uint32_t heads[maxLevels];
  std::uint64_t generation;
  std::uint64_t reconciled;
};
static_assert(sizeof(TableState) == 128, "other processes read these bytes");
inline constexpr std::size_t tableStateOffset = 2048;

// What the ordered index takes, beside the heads in the state.
struct OrderGeometry {
  OrderGeometry(std::uint32_t slots, std::size_t begin);

  unsigned slotBits;  // slots <= 2^slotBits
  unsigned levels;
  std::array<std::size_t, maxLevels> links{};  // offset of each level's links
  std::size_t end;
};

// Where everything lies; follows from the layout and the number of slots alone, so no offset is ever read from a file.
struct TableGeometry {
  TableGeometry(const Pondra::TableLayout& layout, std::uint32_t slotCount);

  std::uint32_t slots;
  std::uint32_t keySize;
  std::uint32_t maxValueSize;
  bool variableSize;
  unsigned keyWordCount;
  std::uint32_t buckets;      // a power of two
  std::uint32_t ringSize;     // a power of two
  std::uint32_t bufferWords;  // one value buffer with its head word
  std::uint32_t bodyWords;
  std::uint32_t ringWords;       // of one ring entry
  std::uint64_t heapSize;        // bytes
  std::size_t versions, bodies;  // these and the following: offsets in the file
  OrderGeometry order;
  std::size_t bucketHeads, ring, heap, fileSize;
};

// The header of a new table.
TableHeader tableHeader(const std::string& path, const Pondra::TableLayout& layout, std::uint32_t capacity,
                        std::uint32_t slots);
// Why these bytes are no header of this path and layout, in one line; empty: they are one.
std::string headerFault(const TableHeader& header, const std::string& path, const Pondra::TableLayout& layout);
// Why these bytes are no header of any table.
std::string headerFault(const TableHeader& header);

// Over an entry and the sequence it was written with, so that neither can be exchanged for another's.
std::uint32_t entryChecksum(const KeyWords& key, unsigned keyWordCount, Bytes value, std::uint64_t sequence);

// Slot contents that belong together.
struct SlotSnapshot {
  std::uint64_t version = 0;
  std::uint32_t next = 0;  // node of the hash chain
  KeyWords key;
};

// --- The mapped table ------------------------------------------------------------------------------------------------

// Names the words of a mapped table. Owns nothing; whoever has mapped the file read-only must not store through it.
// Slot, node and level numbers must be in range: whoever reads one from the file checks it first.
class TableImage {
 public:
  TableImage(std::byte* base, const TableGeometry& geometry) : base_(base), geometry_(&geometry) {}

  const TableGeometry& geometry() const { return *geometry_; }
  const TableHeader& header() const { return *reinterpret_cast<const TableHeader*>(base_); }
  TableState& state() const { return *reinterpret_cast<TableState*>(base_ + tableStateOffset); }

  std::uint64_t& version(std::uint32_t slot) const { return word64(geometry_->versions, slot); }
  // The body: a word whose low half is the next node of the hash chain, the key, two buffers.
  std::uint32_t& chainNext(std::uint32_t slot) const { return *reinterpret_cast<std::uint32_t*>(body(slot)); }
  std::uint64_t* key(std::uint32_t slot) const { return body(slot) + 1; }
  // A buffer: a word of value size (high half) and checksum (low half); then the value or its offset in the heap.
  std::uint64_t* buffer(std::uint32_t slot, unsigned number) const {
    return body(slot) + 1 + geometry_->keyWordCount + number * geometry_->bufferWords;
  }
  std::uint64_t* heap(std::uint64_t offset) const {
    return reinterpret_cast<std::uint64_t*>(base_ + geometry_->heap + offset);
  }

  std::uint32_t& bucket(std::uint32_t number) const { return word32(geometry_->bucketHeads, number); }
  // Slot number, then the words of the key.
  std::uint64_t* ring(std::uint64_t sequence) const {
    return &word64(geometry_->ring, (sequence & (geometry_->ringSize - 1)) * geometry_->ringWords);
  }
  // Of a section of such words.
  std::uint32_t& word32(std::size_t offset, std::uint64_t index) const {
    return *reinterpret_cast<std::uint32_t*>(base_ + offset + index * 4);
  }

  // Version, chain link and key of one moment; false when the slot kept changing.
  bool readSlot(std::uint32_t slot, SlotSnapshot& out) const {
    for (unsigned i = 0; i < slotTries; ++i) {
      out.version = load(version(slot));
      out.next = load(chainNext(slot));
      out.key = loadKey(slot);
      if (load(version(slot)) == out.version) return true;
    }
    return false;
  }
  KeyWords loadKey(const std::uint64_t* from) const {
    KeyWords loaded;
    for (unsigned i = 0; i < geometry_->keyWordCount; ++i) loaded.words[i] = load(from[i]);
    return loaded;
  }
  KeyWords loadKey(std::uint32_t slot) const { return loadKey(key(slot)); }
  void storeKey(std::uint64_t* to, const KeyWords& from) const {
    for (unsigned i = 0; i < geometry_->keyWordCount; ++i) store(to[i], from.words[i]);
  }
  // Negative, 0, positive: a before, equal to, after b.
  int compare(const KeyWords& a, const KeyWords& b) const {
    for (unsigned i = 0; i < geometry_->keyWordCount; ++i) {
      if (a.words[i] != b.words[i]) return a.words[i] < b.words[i] ? -1 : 1;
    }
    return 0;
  }
  std::uint32_t bucketOf(const KeyWords& key) const {
    std::uint64_t hash = 0;
    for (unsigned i = 0; i < geometry_->keyWordCount; ++i) hash = Platform::hashMix(hash, key.words[i]);
    return static_cast<std::uint32_t>(hash & (geometry_->buckets - 1));
  }
  // Slots that were ever used; never more than there are, whatever stands in the file.
  std::uint32_t highWater() const;

 private:
  // A writer at full speed changes one slot a few times while it is read; it does not do so this often.
  static constexpr unsigned slotTries = 1000;

  std::uint64_t* body(std::uint32_t slot) const {
    return &word64(geometry_->bodies, std::uint64_t{slot} * geometry_->bodyWords);
  }
  std::uint64_t& word64(std::size_t offset, std::uint64_t index) const {
    return *reinterpret_cast<std::uint64_t*>(base_ + offset + index * 8);
  }

  std::byte* base_;
  const TableGeometry* geometry_;
};

}  // namespace LinuxPlatform
