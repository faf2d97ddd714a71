// How a TableWriter takes a table over, and how it gets its indexes back.
#include <algorithm>

#include "lib/tables/TableWriter.h"
#include "platform/values/Assert.h"

namespace LinuxPlatform {

TableWriter::TableWriter(const TableImage& image, std::uint32_t capacity, DamageReport report, Reserve reserve,
                         Release release)
    : TableWriter(image, capacity, std::move(report), std::move(reserve), std::move(release), InParts()) {
  while (!takeOver(image.geometry().slots)) {
  }
}

TableWriter::TableWriter(const TableImage& image, std::uint32_t capacity, DamageReport report, Reserve reserve,
                         Release release, InParts)
    : reserve_(std::move(reserve)),
      release_(std::move(release)),
      image_(image),
      report_(std::move(report)),
      view_(image, report_),
      hash_(image),
      order_(image, reserve_),
      slots_(image.geometry().slotPlaces, image.state().highWater, reserve_),
      capacity_(capacity),
      scratch_(image.geometry().maxValueSize) {
  for (unsigned i = 0; i < image.geometry().heapClasses; ++i) {
    heap_.emplace_back(image.geometry().heap[i], image.state().heapUsed[i], reserve_);
  }
  if (isSound(load(image.state().epoch)) && !indexesStand())
    report_("the last writer ended while it rebuilt the index");
  beginAdoption();
}

bool TableWriter::takeOver(std::uint32_t slots) {
  if (!surveyPart(slots)) return false;
  const bool sound = endAdoption();
  if (!sound || (slots_.used() == 0 && hash_.count() != 0U)) {
    report_("the index is rebuilt from the entries");
    rebuildIndexes();
  } else if (slots_.used() > 0) {
    verifyAgain();
  }
  storeNumber(image_.state().operation, 0);
  storeNumber(image_.state().moving, 0);
  return true;
}

void TableWriter::repair(const std::string& what) {
  report_(what + "; it is rebuilt from the entries");
  storeNumber(image_.state().epoch, loadNumber(image_.state().epoch) | 1);
  storeNumber(image_.state().operation, 0);
  adopt();
  rebuildIndexes();
  finishIndexes();
}

bool TableWriter::stateIsSound() const {
  const TableState& state = image_.state();
  const auto sound = [](const std::uint64_t& word) { return isSound(load(word)); };
  return sound(state.headSequence) && sound(state.liveCount) && sound(state.operation) && sound(state.epoch) &&
         sound(state.root) && sound(state.highWater) && sound(state.looseOrder) && sound(state.moving) &&
         sound(state.nodesMoved) && std::all_of(std::begin(state.nodesUsed), std::end(state.nodesUsed), sound) &&
         std::all_of(std::begin(state.heapUsed), std::end(state.heapUsed), sound);
}

// Learns from the slots what is live and what is free. False: the indexes must be rebuilt.
bool TableWriter::adopt() {
  beginAdoption();
  while (!surveyPart(image_.geometry().slots)) {
  }
  return endAdoption();
}

void TableWriter::beginAdoption() {
  TableState& state = image_.state();
  givingBack_.reset();
  const bool soundState = stateIsSound();
  if (!soundState) {
    report_("its state is damaged");
    for (auto* unused = std::begin(state.heapUsed) + heap_.size(); unused != std::end(state.heapUsed); ++unused) {
      storeNumber(*unused, 0);  // all other words are stored when it is known what belongs there
    }
    if (!isSound(load(state.nodesMoved))) storeNumber(state.nodesMoved, 0);
  }
  bool sound = soundState && indexesStand();
  std::optional<std::uint32_t> interrupted;
  if (const std::uint64_t operation = load(state.operation); isSound(operation) && numberIn(operation) != 0) {
    if (numberIn(operation) <= image_.geometry().slots)
      interrupted = static_cast<std::uint32_t>(numberIn(operation)) - 1;
    sound = sound && interrupted;
  }

  if (sound) {
    KeyWords key;
    if (interrupted) key = image_.keyOf(*interrupted);
    sound = order_.adopt(interrupted ? &key : nullptr);
  }

  adoption_ = Adoption();
  adoption_->sound = sound;
  adoption_->interrupted = interrupted;
  adoption_->movedFrom = interrupted ? slotMovedFrom(*interrupted) : nowhere;
  // Whether each entry is whole is left to verify(), or to the rebuild; not for values in the heap, whose places are
  // counted.
  beginSurvey(!soundState || image_.geometry().inHeap ? Look::thorough : Look::quick);
}

void TableWriter::beginSurvey(Look look) {
  const std::uint64_t highWater = load(image_.state().highWater);
  adoption_->look = look;
  adoption_->next = 0;
  adoption_->end = isSound(highWater) ? image_.highWater() : image_.geometry().slots;
  adoption_->found = {};
}

// True: all slots have been looked at that have to be. What was found may contradict the table's state: where the first
// look was a quick one, there is another.
bool TableWriter::surveyPart(std::uint32_t slots) {
  const std::uint32_t end = adoption_->next + std::min(slots, adoption_->end - adoption_->next);
  survey(adoption_->next, end, adoption_->interrupted, adoption_->look, adoption_->found);
  adoption_->next = end;
  if (end < adoption_->end) return false;
  const Survey& found = adoption_->found;
  const bool thorough = adoption_->look == Look::thorough;
  // A count that does not fit has two explanations: a writer that died in mid-change, or a damaged high-water mark.
  const bool fits =
      found.live + found.damaged.size() >= loadNumber(image_.state().liveCount) || adoption_->interrupted.has_value();
  if (fits && (thorough || found.damaged.empty())) return true;
  if (!thorough) {
    beginSurvey(Look::thorough);
    return false;
  }
  adoption_->sound = false;
  const bool beyond = end < image_.geometry().slots;
  adoption_->end = image_.geometry().slots;
  return !beyond;
}

// Puts to use what the slots have told. False: the indexes must be rebuilt.
bool TableWriter::endAdoption() {
  TableState& state = image_.state();
  bool sound = adoption_->sound;
  const std::optional<std::uint32_t> interrupted = adoption_->interrupted;
  const std::uint32_t movedFrom = adoption_->movedFrom;
  Survey found = std::move(adoption_->found);
  adoption_.reset();
  const std::uint32_t end = isSound(load(state.highWater)) ? image_.highWater() : 0;
  const std::uint32_t used = std::max(end, found.usedEnd);
  std::erase_if(found.free, [&](std::uint32_t slot) { return slot >= used; });
  if (image_.geometry().inHeap) adoptHeap(found);
  adoptSequence(found);
  std::reverse(found.free.begin(), found.free.end());  // the lowest are taken first
  slots_.adopt(used, std::move(found.free));
  const bool isTwice =
      movedFrom != nowhere && !std::binary_search(found.damaged.begin(), found.damaged.end(), movedFrom);
  liveCountIs(isTwice ? found.live - 1 : found.live);
  sound = sound && found.damaged.empty();
  if (isTwice) finishMove(movedFrom, *interrupted, sound);
  if (interrupted) finish(*interrupted, sound);
  discard(found.damaged);
  return sound;
}

void TableWriter::survey(std::uint32_t from, std::uint32_t to, std::optional<std::uint32_t> interrupted, Look look,
                         Survey& found) const {
  const std::uint64_t head = loadNumber(image_.state().headSequence);
  for (std::uint32_t slot = from; slot < to; ++slot) {
    const std::uint64_t version = load(image_.version(slot));
    const bool mayBeLinked = interrupted == slot;
    if (version == 0 && (mayBeLinked || isUntouched(slot))) {
      found.free.push_back(slot);
      continue;
    }
    found.usedEnd = slot + 1;
    const std::uint64_t sequence = sequenceOf(version);
    if (isLive(version) ? (look == Look::thorough || sequence > head) && !entryIsWhole(slot)
                        : version == 0 || !isSoundWithoutEntry(version) ||
                              (stateOf(version) == SlotState::linked && !mayBeLinked)) {
      found.damaged.push_back(slot);
      continue;
    }
    if (sequence > head) found.unannounced.emplace_back(sequence, slot);
    found.newest = std::max(found.newest, sequence);
    if (!isLive(version)) {
      if (!(mayBeLinked && stateOf(version) == SlotState::linked)) found.free.push_back(slot);
      continue;
    }
    ++found.live;
  }
}

// A slot that was never used is all zero bytes; one that has lost its version word is not.
bool TableWriter::isUntouched(std::uint32_t slot) const {
  const std::uint64_t* words = image_.slot(slot);
  return std::all_of(words, words + image_.geometry().slotWords,
                     [](const std::uint64_t& word) { return load(word) == 0; });
}

bool TableWriter::entryIsWhole(std::uint32_t slot) const {
  std::size_t size = 0;
  return view_.readValue(slot, loadWords(slot), {}, size) == TableView::ValueRead::whole;
}

// Of two entries that claim the same place at most one can be right, and nobody can tell which: only the first keeps
// it.
void TableWriter::adoptHeap(Survey& found) {
  const TableGeometry& geometry = image_.geometry();
  std::vector<std::vector<bool>> taken(geometry.heapClasses);
  for (std::uint32_t slot = 0; slot < found.usedEnd; ++slot) {
    if (!isLive(load(image_.version(slot))) || std::binary_search(found.damaged.begin(), found.damaged.end(), slot))
      continue;
    const HeapExtent extent = extentIn(loadWords(slot), geometry);
    const unsigned heapClass = geometry.heapClassFor(extent.size);
    const PlaceSection& places = geometry.heap[heapClass];
    const std::size_t place = (extent.offset - places.begin) / places.size;
    std::vector<bool>& known = taken[heapClass];
    if (place >= known.size()) known.resize(place + 1);
    if (known[place]) {
      found.damaged.insert(std::upper_bound(found.damaged.begin(), found.damaged.end(), slot), slot);
      --found.live;
    }
    known[place] = true;
  }
  for (unsigned heapClass = 0; heapClass < geometry.heapClasses; ++heapClass) {
    const std::vector<bool>& known = taken[heapClass];
    std::vector<std::uint32_t> freed;
    for (auto place = static_cast<std::uint32_t>(known.size()); place-- > 0;) {
      if (!known[place]) freed.push_back(place);
    }
    heap_[heapClass].adopt(static_cast<std::uint32_t>(known.size()), std::move(freed));
  }
}

// Goes on with the change sequence. A writer that died between showing a change and counting it leaves one slot that is
// one ahead: the change is announced now. Anything else ahead of the head means that the head is damaged; a jump over
// the whole ring then makes every follower look at all slots.
void TableWriter::adoptSequence(const Survey& found) {
  const std::uint64_t word = load(image_.state().headSequence);
  const bool headIsSound = isSound(word) && numberIn(word) < maxSequence;
  const std::uint64_t head = headIsSound ? numberIn(word) : 0;
  sequence_ = std::max({sequence_, head, found.newest});
  if (headIsSound && found.unannounced.empty()) return;
  if (headIsSound && found.unannounced.size() == 1 && found.newest == head + 1) {
    announce(found.unannounced.front().second);
  } else {
    report_("the change counter is damaged");
    sequence_ += image_.geometry().ringSize + 1;
  }
  storeNumber(image_.state().headSequence, sequence_);
}

// Takes out the slot that the last writer was putting in or taking out; from the indexes, too, if they are to stay. One
// that is live stands in both, one that is free in none.
void TableWriter::finish(std::uint32_t interrupted, bool indexesStay) {
  const std::uint64_t version = load(image_.version(interrupted));
  // Its first writer stopped while it filled the bytes.
  if (version == 0) store(image_.version(interrupted), versionWord(0, SlotState::free));
  if (stateOf(version) != SlotState::linked || !isSoundWithoutEntry(version)) return;
  const KeyWords key = image_.keyOf(interrupted);
  if (indexesStay) {
    order_.erase(key, interrupted);
    hash_.takeOut(hash_.hashOf(key), interrupted);
  }
  store(image_.version(interrupted), versionWord(sequenceOf(version), SlotState::free));
  slots_.give(interrupted);
}

// The slot from which the last writer was moving an entry to this one, when both hold it; or `nowhere`.
std::uint32_t TableWriter::slotMovedFrom(std::uint32_t to) const {
  const std::uint64_t moving = load(image_.state().moving);
  if (!isSound(moving) || numberIn(moving) == 0 || numberIn(moving) > image_.geometry().slots) return nowhere;
  const auto from = static_cast<std::uint32_t>(numberIn(moving)) - 1;
  const std::uint64_t before = load(image_.version(from)), after = load(image_.version(to));
  const bool both = from != to && isLive(before) && isLive(after) && sequenceOf(before) < sequenceOf(after) &&
                    image_.compare(image_.keyOf(from), image_.keyOf(to)) == 0 && entryIsWhole(to);
  return both ? from : nowhere;
}

void TableWriter::finishMove(std::uint32_t from, std::uint32_t to, bool indexesStay) {
  const KeyWords key = image_.keyOf(to);
  if (indexesStay) {
    order_.redirect(key, from, to);
    hash_.finishRedirect(hash_.hashOf(key), from, to);
  }
  const auto extent = extentOf(from);
  store(image_.version(from), versionWord(sequenceOf(load(image_.version(to))), SlotState::free));
  slots_.give(from);
  giveBack(extent);
}

void TableWriter::discard(std::span<const std::uint32_t> damaged) {
  if (damaged.empty()) return;
  report_(std::to_string(damaged.size()) + " damaged entries are dropped");
  storeNumber(image_.state().epoch, loadNumber(image_.state().epoch) | 1);  // they may still stand in the indexes
  for (const std::uint32_t slot : damaged) {
    publish(slot, versionWord(sequence_ + 1, SlotState::free));
    slots_.give(slot);
  }
}

void TableWriter::rebuildIndexes() {
  TableState& state = image_.state();
  storeNumber(state.epoch, loadNumber(state.epoch) | 1);
  storeNumber(state.operation, 0);
  verification_.reset();
  rebuild_.emplace(Rebuild{RadixOrderBuilder(order_, static_cast<std::uint32_t>(liveCount_))});
}

void TableWriter::finishIndexes() {
  while (rebuild_) goOnRebuilding(slots_.used() + 1);
}

// By about so many entries. Where there is no room, that is the end of it.
void TableWriter::goOnRebuilding(std::uint32_t entries) {
  std::uint32_t& next = rebuild_->next;
  const std::uint32_t end = next + std::min(entries, slots_.used() - next);
  switch (rebuild_->stage) {
    case Rebuild::Stage::clear:
      hash_.clear();
      order_.clear();
      rebuild_->stage = Rebuild::Stage::collect;
      return;
    case Rebuild::Stage::collect:
      for (; next < end; ++next) collect(next);
      if (next < slots_.used()) return;
      if (rebuild_->damaged != 0) report_(std::to_string(rebuild_->damaged) + " damaged entries are dropped");
      rebuild_->stage = Rebuild::Stage::order;
      return;
    case Rebuild::Stage::order:
      switch (rebuild_->order.build(entries)) {
        case RadixOrderBuilder::Progress::more:
          return;
        case RadixOrderBuilder::Progress::noRoom:
          rebuild_.reset();
          report_("there is no room to rebuild the index: no entries are added until there is some");
          return;
        case RadixOrderBuilder::Progress::done:
          for (const std::uint32_t slot : rebuild_->order.losers()) drop(slot);
          rebuild_->stage = Rebuild::Stage::hash;
          next = 0;
          return;
      }
      return;
    case Rebuild::Stage::hash:
      PLATFORM_ASSERT(forEachHash(next, end, [this](auto hash, auto slot) { return hash_.insert(hash, slot); }));
      if (next == slots_.used()) endRebuild();
  }
}

// Entries may have been lost, so everybody looks at everything: the change counter jumps over the whole ring.
void TableWriter::endRebuild() {
  rebuild_.reset();
  sequence_ += image_.geometry().ringSize + 1;
  storeNumber(image_.state().headSequence, sequence_);
  storeNumber(image_.state().epoch, numberIn(loadNumber(image_.state().epoch) + 1));
}

// Visits the live slots up to the end with the hashes of their keys, until one does not answer true. Lines of the hash
// index are asked for ahead.
template <class Visit>
bool TableWriter::forEachHash(std::uint32_t& next, std::uint32_t end, Visit visit) const {
  constexpr std::uint32_t ahead = 32;
  std::array<std::uint64_t, ahead> hashes{};
  const std::uint32_t first = next;
  for (std::uint32_t slot = first; slot < end + ahead; ++slot) {
    std::uint64_t& hash = hashes[slot % ahead];
    if (slot >= first + ahead && isLive(load(image_.version(slot - ahead))) && !visit(hash, slot - ahead)) return false;
    if (slot < end) hash_.expectLine(hash = hash_.hashOf(image_.keyOf(slot)));
  }
  next = end;
  return true;
}

void TableWriter::collect(std::uint32_t slot) {
  if (!isLive(load(image_.version(slot)))) return;
  if (image_.geometry().inHeap || entryIsWhole(slot)) {
    rebuild_->order.add(slot);
  } else {
    ++rebuild_->damaged;
    drop(slot);
  }
}

// A damaged entry, or one whose key is another's, too. No index leads there.
void TableWriter::drop(std::uint32_t slot) {
  giveBack(extentOf(slot));
  liveCountIs(liveCount_ - 1);
  publish(slot, versionWord(sequence_ + 1, SlotState::free));
  slots_.give(slot);
}

bool TableWriter::verify(std::uint32_t entries) {
  if (rebuild_) goOnRebuilding(entries);
  if (rebuild_ || !verification_) return verified();
  const bool hashing = verification_->next < verification_->seen.size();
  if (!(hashing ? verifyEntries(entries) : verifyOrder(entries))) repair("the index does not lead to whole entries");
  return verified();
}

// Whether they are whole, and the hash index leads to them.
bool TableWriter::verifyEntries(std::uint32_t count) {
  std::uint32_t& next = verification_->next;
  if (next == 0 && hash_.count() != liveCount_) return false;
  const bool looked = image_.geometry().inHeap;
  const std::uint32_t end = next + std::min(count, static_cast<std::uint32_t>(verification_->seen.size()) - next);
  return forEachHash(next, end, [this, looked](auto hash, auto slot) {
    return hash_.leadsTo(hash, slot) && (looked || entryIsWhole(slot));
  });
}

// A walk in order is many times cheaper than a search for each entry; that is for those which the walk has not met.
bool TableWriter::verifyOrder(std::uint32_t count) {
  RadixOrderWriter::Batch batch;
  for (std::uint32_t met = 0; met < count; met += batch.count) {
    if (!order_.collect(verification_->from, !verification_->begun, batch)) return false;
    for (unsigned i = 0; i < batch.count; ++i) {
      const std::uint32_t slot = batch.slots[i];
      if (!isLive(load(image_.version(slot))) || !order_.hasPath(batch, i, loadWords(slot))) return false;
      if (slot < verification_->seen.size()) verification_->seen[slot] = true;
      verification_->from = image_.keyOf(slot);
    }
    verification_->begun = true;
    if (batch.count > 0) continue;
    for (std::uint32_t slot = 0; slot < verification_->seen.size(); ++slot) {
      if (verification_->seen[slot] || !isLive(load(image_.version(slot)))) continue;
      if (!order_.leadsTo(image_.keyOf(slot), slot)) return false;
    }
    verification_.reset();
    return true;
  }
  return true;
}

}  // namespace LinuxPlatform
