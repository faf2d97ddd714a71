#include "lib/tables/TableWriter.h"

#include <algorithm>
#include <cstring>

#include "platform/values/Assert.h"

namespace LinuxPlatform {

using Pondra::WriteResult;

// --- Changes ---------------------------------------------------------------------------------------------------------

WriteResult TableWriter::write(const KeyWords& key, Bytes value) {
  if (!standAgain()) {
    Entry entry;
    return view_.has(key, entry) ? update(entry.slot, key, value) : WriteResult::full;
  }
  const std::uint64_t hash = hash_.hashOf(key);
  // What the last write was, this one probably is.
  hash_.expectLine(hash);
  if (inserts_) order_.expect(key);
  for (unsigned attempt = 0; attempt < 2; ++attempt) {
    HashIndexWriter::Place place;
    if (hash_.find(key, hash, place)) {
      inserts_ = place.number == 0;
      if (place.number != 0) return update(place.slot, key, value);
      if (verified() || !order_.find(key)) {
        if (liveCount_ >= capacity_ || !hasRoom(value.size())) return WriteResult::full;
        if (insert(key, hash, value)) return WriteResult::ok;
      }
    }
    repair("the index contradicts itself");
    if (!indexesStand()) return write(key, value);
  }
  refuse("the table is damaged while it is written");
}

bool TableWriter::erase(const KeyWords& key) {
  if (!standAgain()) return eraseWithoutIndexes(key);
  const std::uint64_t hash = hash_.hashOf(key);
  hash_.expectLine(hash);
  order_.expect(key);
  for (unsigned attempt = 0; attempt < 2; ++attempt) {
    HashIndexWriter::Place place;
    if (hash_.find(key, hash, place)) {
      if (place.number != 0) {
        if (!remove(place, key, hash)) repair("the index contradicts itself");
        return true;
      }
      if (!order_.find(key)) return false;  // rare enough to be asked of both
    }
    repair("the index contradicts itself");
    if (!indexesStand()) return eraseWithoutIndexes(key);
  }
  refuse("the table is damaged while it is written");
}

// Nobody reads the indexes, and whoever builds them goes by the slots.
bool TableWriter::eraseWithoutIndexes(const KeyWords& key) {
  Entry entry;
  if (!view_.has(key, entry)) return false;
  const auto extent = extentOf(entry.slot);
  liveCountIs(liveCount_ - 1);
  publish(entry.slot, key, versionWord(sequence_ + 1, SlotState::free));
  slots_.give(entry.slot);
  giveBack(extent);
  return true;
}

// Whether the indexes stand. Where there was no room to build them, that is tried again when there is some.
bool TableWriter::standAgain() {
  finishIndexes();
  if (!indexesStand() && order_.ready()) repair("the index could not be built before");
  return indexesStand();
}

void TableWriter::copyFrom(const TableView& other) {
  // A file that has counted half of what it can starts again: whoever follows it is told of another file anyway.
  sequence_ = other.headSequence() > maxSequence / 2 ? 0 : other.headSequence();
  storeNumber(image_.state().headSequence, sequence_);
  KeyWords from;
  Entry entry;
  WalkCursor cursor;
  for (bool first = true; other.seek(from, first, scratch_, cursor, entry); first = false) {
    from = entry.key;
    const Bytes value = Bytes(scratch_).first(entry.size);
    if (!hasRoom(value.size())) refuse("there is no room for its entries");
    PLATFORM_ASSERT(insert(from, hash_.hashOf(from), value));
  }
}

bool TableWriter::hasRoom(std::size_t valueSize) {
  if (!order_.ready() && order_.isLoose()) repair("the order has more nodes than it needs");
  return indexesStand() && slots_.ready(1) && order_.ready() &&
         (!image_.geometry().inHeap || heap_[image_.geometry().heapClassFor(valueSize)].ready(1));
}

SlotImage TableWriter::loadWords(std::uint32_t slot) const {
  SlotImage image{};
  const std::uint64_t* from = image_.slot(slot);
  for (unsigned i = 0; i < image_.geometry().slotWords; ++i) image.words[i] = load(from[i]);
  return image;
}

void TableWriter::storeWords(std::uint32_t slot, const SlotImage& from, unsigned first, unsigned end) {
  std::uint64_t* to = image_.slot(slot);
  for (unsigned i = first; i < end; ++i) store(to[i], from.words[i]);
}

WriteResult TableWriter::update(std::uint32_t slot, const KeyWords& key, Bytes value, Announced as) {
  const TableGeometry& geometry = image_.geometry();
  if (geometry.inHeap && !heap_[geometry.heapClassFor(value.size())].ready(1)) return WriteResult::full;
  const unsigned other = 1 - bufferOf(load(image_.version(slot)));
  if (geometry.isShort) {
    publish(slot, key, versionWord(sequence_ + 1, other, storeShort(slot, other, key, value)));
    return WriteResult::ok;
  }
  SlotImage words = loadWords(slot);
  const auto old = extentOf(slot);
  const std::uint32_t check = fillBuffer(words, other, key, value, sequence_ + 1);
  const unsigned begin = geometry.bufferAt(other);
  storeWords(slot, words, begin / 8, (begin + geometry.payload + geometry.checkBytes + 7) / 8);
  publish(slot, key, versionWord(sequence_ + 1, other, check), as);
  giveBack(old);
  return WriteResult::ok;
}

// What fillBuffer() does, in the slot itself, of a value that is eight bytes with its check.
std::uint32_t TableWriter::storeShort(std::uint32_t slot, unsigned number, const KeyWords& key, Bytes value) {
  const TableGeometry& geometry = image_.geometry();
  const TableGeometry::FirstWords& at = geometry.firstWords[number];
  const std::uint64_t bytes = wordOf(value.data(), value.size());
  const std::uint32_t check = checkIn(checkSum(key, geometry.keyWordCount, value.size(), bytes, sequence_ + 1));
  const std::uint64_t both = bytes | atHalfBehind(static_cast<std::uint16_t>(check >> 16), geometry.payload);
  const std::uint64_t mask = firstBytes(geometry.payload + geometry.checkBytes);
  const auto storeIn = [](std::uint64_t& word, std::uint64_t in, std::uint64_t stored) {
    store(word, (load(word) & ~in) | stored);
  };
  std::uint64_t* words = image_.slot(slot);
  storeIn(words[at.first], firstAcross(mask, at.shift), firstAcross(both, at.shift));
  if (geometry.straddles) storeIn(words[at.second], secondAcross(mask, at.shift), secondAcross(both, at.shift));
  return check;
}

bool TableWriter::insert(const KeyWords& key, std::uint64_t hash, Bytes value) {
  const std::uint32_t slot = slots_.take();
  TableState& state = image_.state();
  storeNumber(state.operation, std::uint64_t{slot} + 1);
  SlotImage words{};
  std::memcpy(words.bytes() + 8, key.words.data(), image_.geometry().keySize);
  const std::uint32_t check = fillBuffer(words, 0, key, value, sequence_ + 1);
  storeWords(slot, words, 1, image_.geometry().slotWords);
  store(image_.version(slot), versionWord(sequence_ + 1, SlotState::linked));
  if (!order_.insert(key, slot) || !hash_.insert(hash, slot)) {
    publish(slot, key, versionWord(sequence_ + 1, SlotState::free));  // nobody knew it; its sequence is used up
    return false;                                                     // all places are counted anew by the repair
  }
  liveCountIs(liveCount_ + 1);
  publish(slot, key, versionWord(sequence_ + 1, 0, check));
  storeNumber(state.operation, 0);
  return true;
}

bool TableWriter::remove(const HashIndexWriter::Place& place, const KeyWords& key, std::uint64_t hash) {
  const auto extent = extentOf(place.slot);
  storeNumber(image_.state().operation, std::uint64_t{place.slot} + 1);
  liveCountIs(liveCount_ - 1);
  publish(place.slot, key, versionWord(sequence_ + 1, SlotState::linked));
  const bool stood = order_.erase(key, place.slot);
  hash_.erase(hash, place);
  store(image_.version(place.slot), versionWord(sequence_, SlotState::free));
  storeNumber(image_.state().operation, 0);
  slots_.give(place.slot);
  giveBack(extent);
  return stood;
}

// Puts the value into the buffer, or where the buffer leads, and returns the entry's check.
std::uint32_t TableWriter::fillBuffer(SlotImage& slot, unsigned number, const KeyWords& key, Bytes value,
                                      std::uint64_t sequence) {
  const TableGeometry& geometry = image_.geometry();
  std::byte* buffer = slot.bytes() + geometry.bufferAt(number);
  if (geometry.inHeap) {
    const unsigned heapClass = geometry.heapClassFor(value.size());
    const HeapExtent extent(geometry.heap[heapClass].at(heap_[heapClass].take()), value.size());
    storeBytes(image_.words(extent.offset), value);
    const std::uint64_t descriptor = extent.descriptor();
    std::memcpy(buffer, &descriptor, sizeof descriptor);
  } else {
    copyBytes(buffer, value.data(), value.size());
  }
  const std::uint32_t check = entryCheck(key, geometry.keyWordCount, value, sequence);
  const auto high = static_cast<std::uint16_t>(check >> 16);
  if (geometry.checkBytes != 0) std::memcpy(buffer + geometry.payload, &high, sizeof high);
  return check;
}

// Where the slot's value lies in the heap. Nothing when its entry is damaged, for then nobody knows whose bytes these
// are: they stay taken until the next writer takes stock.
std::optional<HeapExtent> TableWriter::extentOf(std::uint32_t slot) {
  if (!image_.geometry().inHeap) return std::nullopt;
  if (!entryIsWhole(slot)) {
    report_("slot " + std::to_string(slot) + " holds a damaged entry");
    return std::nullopt;
  }
  return extentIn(loadWords(slot), image_.geometry());
}

void TableWriter::giveBack(const std::optional<HeapExtent>& extent) {
  if (!extent) return;
  const unsigned heapClass = image_.geometry().heapClassFor(extent->size);
  const PlaceSection& places = image_.geometry().heap[heapClass];
  heap_[heapClass].give(static_cast<std::uint32_t>((extent->offset - places.begin) / places.size));
}

// Shows a change to everybody: the ring's entry stands before the change, the head's sequence after it.
void TableWriter::publish(std::uint32_t slot, const KeyWords& key, std::uint64_t version, Announced as) {
  ++sequence_;
  announce(slot, key, as);
  store(image_.version(slot), version);
  storeNumber(image_.state().headSequence, sequence_);
}

void TableWriter::announce(std::uint32_t slot, const KeyWords& key, Announced as) {
  std::uint64_t* entry = image_.ring(sequence_);
  const std::uint32_t named = as == Announced::move ? slot | ringMoved : slot;
  store(*entry, ringWord(named, key, image_.geometry().keyWordCount, sequence_));
  image_.storeKey(entry + 1, key);
}

void TableWriter::liveCountIs(std::uint64_t count) {
  liveCount_ = count;
  storeNumber(image_.state().liveCount, count);
}

void TableWriter::refuse(const char* what) const {
  const TableHeader& header = image_.header();
  throw Pondra::TableError(std::string(header.path, strnlen(header.path, sizeof header.path)) + ": " + what);
}

// --- Checks ----------------------------------------------------------------------------------------------------------

std::uint32_t TableWriter::checkInvariants() const {
  const TableState& state = image_.state();
  PLATFORM_ASSERT(stateIsSound());
  PLATFORM_ASSERT(loadNumber(state.operation) == 0);
  PLATFORM_ASSERT((loadNumber(state.epoch) & 1) == 0);
  PLATFORM_ASSERT(loadNumber(state.liveCount) == liveCount_);
  PLATFORM_ASSERT(loadNumber(state.headSequence) == sequence_);
  PLATFORM_ASSERT(loadNumber(state.highWater) == slots_.used());
  PLATFORM_ASSERT(loadNumber(state.moving) == 0);
  PLATFORM_ASSERT(liveCount_ + slots_.free() == slots_.used());
  PLATFORM_ASSERT(hash_.agrees(liveCount_));
  std::uint32_t lost = 0;
  PLATFORM_ASSERT(order_.agrees(liveCount_, lost));
  Survey found;
  survey(0, slots_.used(), std::nullopt, Look::thorough, found);
  PLATFORM_ASSERT(found.live == liveCount_);
  PLATFORM_ASSERT(found.damaged.empty());
  PLATFORM_ASSERT(found.unannounced.empty());
  std::uint64_t places = 0;
  for (const PlacePool& pool : heap_) places += pool.used() - pool.free();
  PLATFORM_ASSERT(!image_.geometry().inHeap || places == liveCount_);
  return lost;
}

}  // namespace LinuxPlatform
