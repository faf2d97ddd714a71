#include "lib/tables/TableInspection.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <utility>

namespace LinuxPlatform {

namespace {

constexpr std::size_t mostFaults = 20;
// What is looked at while it changes is looked at again; a fault that stays so often while nothing changes is one.
constexpr unsigned calmLooks = 8;
constexpr unsigned mostLooks = 10000;

std::uint32_t markIn(const std::uint64_t& word, std::uint32_t most) {
  const std::uint64_t mark = load(word);
  return isSound(mark) && numberIn(mark) <= most ? static_cast<std::uint32_t>(numberIn(mark)) : 0;
}

}  // namespace

// --- Shape -----------------------------------------------------------------------------------------------------------

TableShape TableInspection::shape(const Step& step) const {
  const TableGeometry& geometry = image_.geometry();
  TableShape shape;
  shape.slots = geometry.slots;
  shape.slotSize = geometry.slotPlaces.size;
  shape.slotsUsed = image_.highWater();
  shape.bucketLines = geometry.buckets;
  shape.largestFile = geometry.fileSize;
  shape.bytesInUse = geometry.slotPlaces.at(shape.slotsUsed);
  std::uint64_t way = 0, words = 0;
  for (std::uint32_t number = 0; number < geometry.buckets; ++number) {
    const std::uint32_t* line = image_.bucketLine(number);
    shape.linesOverflown += HashIndex::overflowOf(load(line[0])) != 0 ? 1 : 0;
    for (unsigned i = 1; i <= HashIndex::places; ++i) {
      const std::uint32_t word = load(line[i]);
      if (word == 0 || hash_.slotOf(word) >= geometry.slots) continue;
      const std::uint32_t home = hash_.homeOf(hash_.hashOf(image_.keyOf(hash_.slotOf(word))));
      const std::uint32_t lines = 1 + (number >= home ? number - home : number + geometry.buckets - home);
      shape.longestWay = std::max(shape.longestWay, lines);
      way += lines;
      ++words;
    }
  }
  shape.meanWay = words == 0 ? 0 : static_cast<double>(way) / static_cast<double>(words);
  for (unsigned kind = 0; kind < nodeKinds; ++kind) {
    const std::uint32_t used = markIn(image_.state().nodesUsed[kind], geometry.nodes[kind].count);
    for (std::uint32_t number = 0; number < used; ++number) {
      shape.nodes[kind] += isInUse(load(*image_.node(kind, number))) ? 1 : 0;
    }
    shape.bytesInUse += std::uint64_t{used} * geometry.nodes[kind].size;
  }
  for (unsigned i = 0; i < geometry.heapClasses; ++i) {
    const std::uint32_t used = markIn(image_.state().heapUsed[i], geometry.heap[i].count);
    shape.heap.push_back({geometry.heap[i].size, used, 0});
    shape.bytesInUse += std::uint64_t{used} * geometry.heap[i].size;
  }
  for (std::uint32_t slot = 0; slot < shape.slotsUsed; ++slot) {
    if (step) step();
    if (!isLive(load(image_.version(slot)))) continue;
    ++shape.entries;
    if (const auto extent = extentOf(slot)) ++shape.heap[geometry.heapClassFor(extent->size)].taken;
  }
  return shape;
}

// Nothing: the value does not lie in the heap, or nowhere.
std::optional<HeapExtent> TableInspection::extentOf(std::uint32_t slot) const {
  const TableGeometry& geometry = image_.geometry();
  SlotImage here;
  if (!geometry.inHeap || !image_.readSlot(slot, here) || !isLive(here.version())) return std::nullopt;
  const HeapExtent extent = extentIn(here, geometry);
  return extent.isPlaceIn(geometry) ? std::optional(extent) : std::nullopt;
}

// --- Check -----------------------------------------------------------------------------------------------------------

void TableInspection::fault(const std::string& what) {
  if (found_.faults.size() < mostFaults) {
    found_.faults.push_back(what);
  } else {
    ++found_.more;
  }
}

template <class Holds>
bool TableInspection::comesToHold(Holds holds) const {
  unsigned calm = 0;
  for (unsigned i = 0; i < mostLooks && calm < calmLooks; ++i) {
    const auto before = activity();
    if (holds()) return true;
    calm = activity() == before ? calm + 1 : 0;
  }
  return false;
}

TableFindings TableInspection::check(const Step& step) {
  found_ = {};
  totals_ = {};
  const std::uint64_t headBefore = head();
  const bool byIndexes = checkState();
  const std::uint32_t end = image_.highWater();
  for (std::uint32_t slot = 0; slot < end; ++slot) {
    if (step) step();
    checkSlot(slot, byIndexes);
  }
  if (byIndexes) {
    checkLines();
    checkOrder();
  }
  checkHeap();
  checkSums(headBefore);
  return std::move(found_);
}

// False: the indexes are not to be read.
bool TableInspection::checkState() {
  const TableState& state = image_.state();
  const auto sound = [this](const std::uint64_t& word, const char* what) {
    if (isSound(load(word))) return true;
    fault(std::string("the state's word for ") + what + " is damaged");
    return false;
  };
  sound(state.headSequence, "changes");
  sound(state.liveCount, "entries");
  sound(state.highWater, "used slots");
  sound(state.moving, "the entry that is moved");
  sound(state.nodesMoved, "moved nodes");
  for (const std::uint64_t& word : state.nodesUsed) sound(word, "used nodes");
  for (const std::uint64_t& word : state.heapUsed) sound(word, "used places");
  const bool readable = sound(state.root, "the order") && sound(state.epoch, "rebuilding");
  if (sound(state.operation, "the change under way") &&
      !comesToHold([&] { return loadNumber(state.operation) == 0; })) {
    found_.notes.push_back("a writer has stopped in the middle of a change; the next one takes it back");
  }
  if (!readable) return false;
  if (comesToHold([&] { return (loadNumber(state.epoch) & 1) == 0; })) return true;
  fault("the indexes are being rebuilt, or were when the writer ended");
  return false;
}

// A writer that stopped right after it had taken the slot leaves it so.
bool TableInspection::isUntouched(const SlotImage& slot) const {
  const auto end = slot.words.begin() + image_.geometry().slotWords;
  return std::all_of(slot.words.begin(), end, [](std::uint64_t word) { return word == 0; });
}

void TableInspection::checkSlot(std::uint32_t slot, bool byIndexes) {
  const DamageReport silent = [](std::string_view) {};
  const TableView view(image_, silent);
  SlotImage here;
  std::size_t size = 0;
  TableView::ValueRead read = TableView::ValueRead::changed;
  const bool whole = comesToHold([&] {
    if (!image_.readSlot(slot, here)) return false;
    if (!isLive(here.version())) return here.version() == 0 ? isUntouched(here) : isSoundWithoutEntry(here.version());
    read = view.readValue(slot, here, {}, size);
    return read == TableView::ValueRead::whole;
  });
  if (!whole) {
    // A slot that was handed out and not yet filled.
    const bool isNext = loadNumber(image_.state().operation) == std::uint64_t{slot} + 1;
    if (!isNext) fault("slot " + std::to_string(slot) + " holds a damaged entry");
    return;
  }
  if (!isLive(here.version())) return;
  ++totals_.live;
  ++found_.entries;
  if (byIndexes) checkIndexed(slot, here);
}

void TableInspection::checkIndexed(std::uint32_t slot, const SlotImage& here) {
  const DamageReport silent = [](std::string_view) {};
  const TableView view(image_, silent);
  const KeyWords key = image_.keyIn(here);
  const auto gone = [&] { return load(image_.version(slot)) != here.version(); };
  Entry entry;
  const bool hashed = comesToHold([&] {
    const auto there = view.findByIndex(key, nullptr, entry);
    return (there == true && entry.slot == slot) || gone();
  });
  if (!hashed && !isInterrupted()) fault("the hash index does not lead to the entry in slot " + std::to_string(slot));
  if (!comesToHold([&] { return orderLeadsTo(slot, key) || gone(); }) && !isInterrupted()) {
    fault("the order does not lead to the entry in slot " + std::to_string(slot));
  }
}

bool TableInspection::orderLeadsTo(std::uint32_t slot, const KeyWords& key) const {
  RadixOrder::Batch batch;
  batch.max = 1;
  return order_.collect(key, true, batch) && batch.count == 1 && batch.slots[0] == slot;
}

void TableInspection::checkLines() {
  for (std::uint32_t number = 0; number < image_.geometry().buckets; ++number) {
    const std::uint32_t* line = image_.bucketLine(number);
    if (!comesToHold([&] { return HashIndex::lineIsWhole(line); }) && !isInterrupted()) {
      fault("line " + std::to_string(number) + " of the hash index is damaged");
    }
    for (unsigned i = 1; i <= HashIndex::places; ++i) totals_.hashed += load(line[i]) != 0 ? 1 : 0;
  }
}

void TableInspection::checkOrder() {
  RadixOrder::Batch batch;
  KeyWords last;
  bool first = true;
  const auto goesOn = [&] {
    if (!order_.collect(last, first, batch)) return false;
    const KeyWords before = last;
    for (unsigned i = 0; i < batch.count; ++i) {
      SlotImage here;
      if (!image_.readSlot(batch.slots[i], here) || !RadixOrder::hasPath(batch, i, here)) continue;
      const KeyWords key = image_.keyIn(here);
      if (!first && image_.compare(key, last) <= 0) continue;
      totals_.ordered += isLive(here.version()) ? 1 : 0;
      last = key;
      first = false;
    }
    return batch.count == 0 || image_.compare(before, last) != 0;
  };
  do {
    if (comesToHold(goesOn)) continue;
    if (!isInterrupted()) fault("the order contradicts itself behind " + std::to_string(totals_.ordered) + " entries");
    return;
  } while (batch.count > 0);
}

void TableInspection::checkHeap() {
  const TableGeometry& geometry = image_.geometry();
  if (!geometry.inHeap || head() == 0) return;
  std::vector<std::vector<std::uint32_t>> owners(geometry.heapClasses);
  const std::uint32_t end = image_.highWater();
  for (std::uint32_t slot = 0; slot < end; ++slot) {
    const auto extent = extentOf(slot);
    if (!extent) continue;
    const unsigned heapClass = geometry.heapClassFor(extent->size);
    const PlaceSection& places = geometry.heap[heapClass];
    const std::size_t place = (extent->offset - places.begin) / places.size;
    std::vector<std::uint32_t>& of = owners[heapClass];
    if (place >= of.size()) of.resize(place + 1);
    const std::uint32_t other = std::exchange(of[place], slot + 1);
    const auto shared = [&](std::uint32_t with) {
      const auto there = extentOf(with);
      const auto here = extentOf(slot);
      return there && here && there->offset == here->offset;
    };
    if (other != 0 && !comesToHold([&] { return !shared(other - 1); })) {
      fault("the entries in slots " + std::to_string(other - 1) + " and " + std::to_string(slot) +
            " have one value's place");
    }
  }
}

void TableInspection::checkSums(std::uint64_t headBefore) {
  const TableState& state = image_.state();
  found_.changing = head() != headBefore;
  if (found_.changing || !found_.faults.empty()) return;
  const auto equal = [this](std::uint64_t number, std::uint64_t wanted, const char* what) {
    if (number == wanted) return;
    fault(std::string(what) + " " + std::to_string(number) + ", not " + std::to_string(wanted));
  };
  if (loadNumber(state.operation) != 0) return;
  equal(loadNumber(state.liveCount), totals_.live, "the number of entries is said to be");
  equal(totals_.hashed, totals_.live, "the places taken in the hash index are");
  equal(totals_.ordered, totals_.live, "the entries in order are");
}

}  // namespace LinuxPlatform
