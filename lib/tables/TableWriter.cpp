#include "lib/tables/TableWriter.h"

#include <algorithm>
#include <stdexcept>

#include "platform/values/Assert.h"

namespace LinuxPlatform {

using Pondra::WriteResult;

TableWriter::TableWriter(const TableImage& image, std::uint32_t capacity, DamageReport report)
    : image_(image),
      order_(image),
      report_(std::move(report)),
      capacity_(capacity),
      heap_(image.geometry().heapSize),
      scratch_(image.geometry().maxValueSize) {
  bool sound = (load(image_.state().epoch) & 1) == 0;
  if (!sound) report_("the last writer ended while it rebuilt the index");
  sound = finishOperation() && sound;
  sound = adoptSlots() && sound;
  if (!sound || !indexesAgree()) {
    report_("the index is rebuilt from the entries");
    rebuildIndexes();
  }
  store(image_.state().operation, std::uint64_t{0});
}

// --- Changes ---------------------------------------------------------------------------------------------------------

WriteResult TableWriter::write(const KeyWords& key, Bytes value) {
  for (unsigned attempt = 0; attempt < 2; ++attempt) {
    Place place;
    const Found found = locate(key, place);
    if (found == Found::no && liveCount_ >= capacity_) return WriteResult::full;
    if (found == Found::yes && update(place.slot, key, value)) return WriteResult::ok;
    if (found == Found::no && insert(key, value)) return WriteResult::ok;
    repair("the index contradicts itself");
  }
  throw std::runtime_error("the table is damaged while it is written");
}

bool TableWriter::erase(const KeyWords& key) {
  for (unsigned attempt = 0; attempt < 2; ++attempt) {
    Place place;
    const Found found = locate(key, place);
    if (found == Found::no) return false;
    if (found == Found::yes && remove(place, key)) return true;
    repair("the index contradicts itself");
  }
  throw std::runtime_error("the table is damaged while it is written");
}

void TableWriter::copyFrom(const TableView& other) {
  sequence_ = other.headSequence();
  store(image_.state().headSequence, sequence_);
  KeyWords from;
  Entry entry;
  std::uint64_t hint = 0;
  for (bool first = true; other.seek(from, first, scratch_, hint, entry); first = false) {
    from = entry.contents.key;
    PLATFORM_ASSERT(insert(from, Bytes(scratch_).first(entry.size)));
  }
}

TableWriter::Found TableWriter::locate(const KeyWords& key, Place& place) const {
  const std::uint32_t bucket = image_.bucketOf(key);
  place.leader = &image_.bucket(bucket);
  for (unsigned hops = 0;; ++hops) {
    const std::uint32_t node = load(*place.leader);
    if (node == 0) return Found::no;
    place.slot = node - 1;
    if (place.slot >= image_.geometry().slots || hops > longestChain) return Found::damaged;
    const KeyWords here = image_.loadKey(place.slot);
    if (image_.compare(here, key) == 0) {
      return isLive(load(image_.version(place.slot))) ? Found::yes : Found::damaged;
    }
    if (image_.bucketOf(here) != bucket) return Found::damaged;
    place.leader = &image_.chainNext(place.slot);
  }
}

bool TableWriter::update(std::uint32_t slot, const KeyWords& key, Bytes value) {
  const unsigned other = 1 - bufferOf(load(image_.version(slot)));
  const auto old = extentOf(slot);
  if (!fillBuffer(slot, other, key, value, sequence_ + 1)) return false;
  publish(slot, versionWord(sequence_ + 1, other, SlotState::live));
  giveBack(old);
  return true;
}

bool TableWriter::insert(const KeyWords& key, Bytes value) {
  if (!order_.find(key)) return false;
  const auto slot = takeSlot();
  if (!slot) return false;
  const std::uint32_t node = *slot + 1;
  const std::uint32_t bucket = image_.bucketOf(key);
  TableState& state = image_.state();

  // Everything that others may find in the slot stands before the slot says that it is in use: a reader that was led
  // here by an outdated link must be led on by a true one.
  store(state.operation, std::uint64_t{node});
  image_.storeKey(image_.key(*slot), key);
  if (!fillBuffer(*slot, 0, key, value, sequence_ + 1)) {
    freeSlots_.push_back(*slot);
    return false;
  }
  store(image_.chainNext(*slot), load(image_.bucket(bucket)));
  order_.prepare(*slot);
  store(image_.version(*slot), versionWord(sequence_ + 1, 0, SlotState::linked));
  store(image_.bucket(bucket), node);
  order_.insert(*slot);
  liveCountIs(liveCount_ + 1);
  publish(*slot, versionWord(sequence_ + 1, 0, SlotState::live));
  store(state.operation, std::uint64_t{0});
  return true;
}

bool TableWriter::remove(const Place& place, const KeyWords& key) {
  if (!order_.find(key) || !order_.isAtPlace(place.slot)) return false;
  const auto extent = extentOf(place.slot);
  const unsigned buffer = bufferOf(load(image_.version(place.slot)));

  store(image_.state().operation, std::uint64_t{place.slot} + 1);
  liveCountIs(liveCount_ - 1);
  publish(place.slot, versionWord(sequence_ + 1, buffer, SlotState::linked));
  order_.remove(place.slot);
  store(*place.leader, load(image_.chainNext(place.slot)));
  store(image_.version(place.slot), versionWord(sequence_, buffer, SlotState::free));
  store(image_.state().operation, std::uint64_t{0});
  freeSlots_.push_back(place.slot);
  giveBack(extent);
  return true;
}

std::optional<std::uint32_t> TableWriter::takeSlot() {
  if (!freeSlots_.empty()) {
    const std::uint32_t slot = freeSlots_.back();
    freeSlots_.pop_back();
    return slot;
  }
  if (highWater_ >= image_.geometry().slots) return std::nullopt;
  const std::uint32_t slot = highWater_++;
  store(image_.state().highWater, std::uint64_t{highWater_});
  return slot;
}

bool TableWriter::fillBuffer(std::uint32_t slot, unsigned number, const KeyWords& key, Bytes value,
                             std::uint64_t sequence) {
  std::uint64_t* buffer = image_.buffer(slot, number);
  std::uint64_t* to = buffer + 1;
  if (image_.geometry().variableSize) {
    const auto offset = heap_.take(value.size());
    if (!offset) return false;
    store(*to, *offset);
    to = image_.heap(*offset);
  }
  storeBytes(to, value);
  const std::uint32_t checksum = entryChecksum(key, image_.geometry().keyWordCount, value, sequence);
  store(*buffer, std::uint64_t{value.size()} << 32 | checksum);
  return true;
}

// Where the slot's value lies in the heap. Nothing when its entry is damaged, for then nobody knows whose bytes these
// are: they stay taken until the next writer takes stock.
std::optional<HeapSpace::Extent> TableWriter::extentOf(std::uint32_t slot) {
  if (!image_.geometry().variableSize) return std::nullopt;
  const std::uint64_t version = load(image_.version(slot));
  if (!entryIsWhole(slot, version)) {
    report_("slot " + std::to_string(slot) + " holds a damaged entry");
    return std::nullopt;
  }
  const std::uint64_t* buffer = image_.buffer(slot, bufferOf(version));
  return HeapSpace::Extent{load(buffer[1]), load(buffer[0]) >> 32};
}

void TableWriter::giveBack(const std::optional<HeapSpace::Extent>& extent) {
  if (extent && !heap_.give(extent->offset, extent->size)) repair("two entries share bytes of the heap");
}

// Shows a change to everybody: the ring's entry stands before the change, the head's sequence after it.
void TableWriter::publish(std::uint32_t slot, std::uint64_t version) {
  ++sequence_;
  announce(slot);
  store(image_.version(slot), version);
  store(image_.state().headSequence, sequence_);
}

void TableWriter::announce(std::uint32_t slot) {
  std::uint64_t* entry = image_.ring(sequence_);
  store(*entry, std::uint64_t{slot});
  image_.storeKey(entry + 1, image_.loadKey(slot));
}

void TableWriter::liveCountIs(std::uint64_t count) {
  liveCount_ = count;
  store(image_.state().liveCount, count);
}

// --- Taking over -----------------------------------------------------------------------------------------------------

void TableWriter::repair(const std::string& what) {
  report_(what + "; it is rebuilt from the entries");
  store(image_.state().operation, std::uint64_t{0});
  beginRebuild();
  adoptSlots();
  rebuildIndexes();
}

// Takes out the node that the last writer was linking or unlinking. False: the lists must be rebuilt.
bool TableWriter::finishOperation() {
  const std::uint64_t operation = load(image_.state().operation);
  if (operation == 0) return true;
  if (operation > image_.geometry().slots) return false;
  const auto node = static_cast<std::uint32_t>(operation);
  const std::uint32_t slot = node - 1;
  const std::uint64_t version = load(image_.version(slot));
  if (stateOf(version) != SlotState::linked) return true;  // not yet in a list, or in all of them

  const KeyWords key = image_.loadKey(slot);
  if (!order_.takeOut(slot, key)) return false;
  std::uint32_t* leader = &image_.bucket(image_.bucketOf(key));
  for (unsigned hops = 0; load(*leader) != 0 && load(*leader) != node; ++hops) {
    if (load(*leader) > image_.geometry().slots || hops > longestChain) return false;
    leader = &image_.chainNext(load(*leader) - 1);
  }
  if (load(*leader) == node) store(*leader, load(image_.chainNext(slot)));
  store(image_.version(slot), versionWord(sequenceOf(version), bufferOf(version), SlotState::free));
  return true;
}

// Learns from the slots what is live and what is free. False: entries were dropped, so the lists must be rebuilt.
bool TableWriter::adoptSlots() {
  Survey found;
  const std::uint32_t end = image_.highWater();
  survey(0, end, found);
  // A count that does not fit has two explanations: a writer that died in mid-change, or a damaged high-water mark.
  if (found.live.size() != load(image_.state().liveCount)) survey(end, image_.geometry().slots, found);
  highWater_ = std::max(end, found.usedEnd);
  store(image_.state().highWater, std::uint64_t{highWater_});

  if (image_.geometry().variableSize) adoptHeap(found);
  adoptSequence(found);
  discard(found.damaged);
  liveCountIs(found.live.size());
  freeSlots_.clear();
  for (std::uint32_t slot = highWater_; slot-- > 0;) {
    if (!isLive(load(image_.version(slot)))) freeSlots_.push_back(slot);
  }
  return found.damaged.empty();
}

void TableWriter::survey(std::uint32_t from, std::uint32_t to, Survey& found) const {
  const std::uint64_t head = load(image_.state().headSequence);
  for (std::uint32_t slot = from; slot < to; ++slot) {
    const std::uint64_t version = load(image_.version(slot));
    if (version == 0) continue;
    found.usedEnd = slot + 1;
    if (stateOf(version) != SlotState::free && !(isLive(version) && entryIsWhole(slot, version))) {
      found.damaged.push_back(slot);
      continue;
    }
    const std::uint64_t sequence = sequenceOf(version);
    if (sequence > head) found.unannounced.emplace_back(sequence, slot);
    if (!isLive(version)) continue;
    found.newest = std::max(found.newest, sequence);
    found.live.push_back(slot);
  }
}

bool TableWriter::entryIsWhole(std::uint32_t slot, std::uint64_t version) const {
  SlotSnapshot entry;
  entry.version = version;
  entry.key = image_.loadKey(slot);
  std::size_t size = 0;
  return TableView(image_, report_).readValue(slot, entry, scratch_, size) == TableView::ValueRead::whole;
}

// Of two entries that claim the same bytes at most one can be right; nobody can tell which, but only the one that was
// taken in keeps them.
void TableWriter::adoptHeap(Survey& found) {
  std::vector<HeapSpace::Extent> extents;
  extents.reserve(found.live.size());
  for (const std::uint32_t slot : found.live) {
    const std::uint64_t* buffer = image_.buffer(slot, bufferOf(load(image_.version(slot))));
    extents.push_back({load(buffer[1]), load(buffer[0]) >> 32});
  }
  std::vector<std::size_t> overlapping = heap_.reset(std::move(extents));
  std::sort(overlapping.rbegin(), overlapping.rend());
  for (const std::size_t index : overlapping) {
    found.damaged.push_back(found.live[index]);
    found.live.erase(found.live.begin() + static_cast<std::ptrdiff_t>(index));
  }
}

// Goes on with the change sequence. A writer that died between showing a change and counting it leaves one slot that is
// one ahead: the change is announced now. Anything else ahead of the head means that the head is damaged; a jump over
// the whole ring then makes every follower look at all slots.
void TableWriter::adoptSequence(Survey& found) {
  const std::uint64_t head = load(image_.state().headSequence);
  const bool sane = head < maxSequence && found.newest <= head + 1;
  sequence_ = std::max(head < maxSequence ? head : 0, found.newest);
  std::erase_if(found.unannounced, [&](const auto& ahead) {
    if (ahead.first <= sequence_ || ahead.first == head + 1) return false;
    found.damaged.push_back(ahead.second);  // a free slot from the future
    return true;
  });
  if (sane && found.unannounced.empty()) return;
  if (sane && found.unannounced.size() == 1) {
    sequence_ = head + 1;
    announce(found.unannounced.front().second);
  } else {
    report_("the change counter is damaged");
    sequence_ += image_.geometry().ringSize + 1;
  }
  store(image_.state().headSequence, sequence_);
}

void TableWriter::discard(std::span<const std::uint32_t> damaged) {
  if (damaged.empty()) return;
  report_(std::to_string(damaged.size()) + " damaged entries are dropped");
  beginRebuild();  // they may still stand in the lists
  for (const std::uint32_t slot : damaged) publish(slot, versionWord(sequence_ + 1, 0, SlotState::free));
}

bool TableWriter::indexesAgree() const {
  return order_.agrees(highWater_, liveCount_) && chainsAgree();
}

// Whether every entry is found through its chain. Asked from the entries, so that the untouched pages of a nearly empty
// table stay untouched.
bool TableWriter::chainsAgree() const {
  Place place;
  for (std::uint32_t slot = 0; slot < highWater_; ++slot) {
    if (!isLive(load(image_.version(slot)))) continue;
    if (locate(image_.loadKey(slot), place) != Found::yes || place.slot != slot) return false;
  }
  return true;
}

void TableWriter::beginRebuild() {
  store(image_.state().epoch, load(image_.state().epoch) | 1);
}

void TableWriter::rebuildIndexes() {
  beginRebuild();
  const std::vector<std::uint32_t> order = liveSlotsInOrder();
  for (std::uint32_t bucket = 0; bucket < image_.geometry().buckets; ++bucket) {
    if (load(image_.bucket(bucket)) != 0) store(image_.bucket(bucket), std::uint32_t{0});  // untouched pages stay so
  }
  order_.beginFilling();
  for (const std::uint32_t slot : order) {
    std::uint32_t& bucket = image_.bucket(image_.bucketOf(image_.loadKey(slot)));
    store(image_.chainNext(slot), load(bucket));
    store(bucket, slot + 1);
    order_.append(slot);
  }
  order_.endFilling();
  store(image_.state().epoch, load(image_.state().epoch) + 1);
}

std::vector<std::uint32_t> TableWriter::liveSlotsInOrder() {
  std::vector<std::pair<std::uint64_t, std::uint32_t>> slots;  // (first word of the key, slot)
  slots.reserve(liveCount_);
  for (std::uint32_t slot = 0; slot < highWater_; ++slot) {
    if (isLive(load(image_.version(slot)))) slots.emplace_back(load(*image_.key(slot)), slot);
  }
  const auto order = [this](std::uint32_t a, std::uint32_t b) {
    return image_.compare(image_.loadKey(a), image_.loadKey(b));
  };
  std::sort(slots.begin(), slots.end(), [&](const auto& a, const auto& b) {
    if (a.first != b.first) return a.first < b.first;
    const int byKey = order(a.second, b.second);
    // Of two entries under one key, which damage alone can bring about, the later one comes first and stays.
    return byKey != 0 ? byKey < 0 : load(image_.version(a.second)) > load(image_.version(b.second));
  });
  std::vector<std::uint32_t> kept, doubled;
  for (const auto& [word, slot] : slots) {
    (!kept.empty() && order(kept.back(), slot) == 0 ? doubled : kept).push_back(slot);
  }
  for (const std::uint32_t slot : doubled) {
    if (const auto extent = extentOf(slot)) heap_.give(extent->offset, extent->size);
  }
  discard(doubled);
  freeSlots_.insert(freeSlots_.end(), doubled.begin(), doubled.end());
  liveCountIs(kept.size());
  return kept;
}

void TableWriter::checkInvariants() const {
  const TableState& state = image_.state();
  PLATFORM_ASSERT(load(state.operation) == 0);
  PLATFORM_ASSERT((load(state.epoch) & 1) == 0);
  PLATFORM_ASSERT(load(state.liveCount) == liveCount_);
  PLATFORM_ASSERT(load(state.headSequence) == sequence_);
  PLATFORM_ASSERT(liveCount_ + freeSlots_.size() == highWater_);
  PLATFORM_ASSERT(indexesAgree());
  Survey found;
  survey(0, highWater_, found);
  PLATFORM_ASSERT(found.live.size() == liveCount_);
  PLATFORM_ASSERT(found.damaged.empty());
  PLATFORM_ASSERT(found.unannounced.empty());
  std::uint64_t used = 0;
  for (const std::uint32_t slot : found.live) {
    const std::uint64_t size = load(*image_.buffer(slot, bufferOf(load(image_.version(slot))))) >> 32;
    used += std::max<std::uint64_t>(8, (size + 7) / 8 * 8);
  }
  PLATFORM_ASSERT(!image_.geometry().variableSize || used + heap_.freeBytes() == image_.geometry().heapSize);
}

}  // namespace LinuxPlatform
