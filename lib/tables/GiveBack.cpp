// How a TableWriter gives back the memory of a table that was much fuller.
#include <algorithm>
#include <cstring>

#include "lib/tables/TableWriter.h"

namespace LinuxPlatform {

bool TableWriter::isSparse() const {
  if (!release_ || keepsPages_ || !verified() || !indexesStand()) return false;
  const auto sparse = [](const PlacePool& pool) { return pool.isSparse(); };
  return slots_.isSparse() || std::any_of(heap_.begin(), heap_.end(), sparse) ||
         std::any_of(order_.pools().begin(), order_.pools().end(), sparse);
}

template <class Visit>
void TableWriter::forEachPool(Visit visit) {
  visit(slots_);
  for (PlacePool& pool : heap_) visit(pool);
  for (PlacePool& pool : order_.pools()) visit(pool);
}

void TableWriter::endGivingBack() {
  if (!givingBack_) return;
  givingBack_.reset();
  forEachPool([](PlacePool& pool) { pool.endOrder(); });
}

// Values follow their entries, so that the heap's first places are taken in order, too.
bool TableWriter::giveMemoryBack(std::uint32_t places) {
  using Stage = GivingBack::Stage;
  if (!release_ || keepsPages_ || !verified() || !indexesStand()) return endGivingBack(), true;
  if (!givingBack_) givingBack_ = GivingBack();
  bool done = false;
  switch (givingBack_->stage) {
    case Stage::order:
      if (putInOrder(places)) nextStage(Stage::slots);
      break;
    case Stage::slots:
      if (giveBackEnd(slots_, places, [this](auto slot) { return moveEntry(slot); })) nextStage(Stage::values);
      break;
    case Stage::values:
      if (moveValues(places)) nextStage(Stage::heap);
      break;
    case Stage::heap: {
      // What the walk has passed over is moved the next time.
      unsigned& number = givingBack_->number;
      if (number == heap_.size()) {
        nextStage(Stage::nodes);
      } else if (giveBackEnd(heap_[number], places, [](auto) { return false; })) {
        ++number;
      }
      break;
    }
    case Stage::nodes: {
      unsigned& kind = givingBack_->number;
      const auto move = [this, kind](auto node) { return order_.move(kind, node); };
      if (giveBackEnd(order_.pools()[kind], places, move)) ++kind;
      done = kind == nodeKinds;
    }
  }
  if (done || keepsPages_) endGivingBack();
  return !givingBack_;
}

void TableWriter::nextStage(GivingBack::Stage stage) {
  *givingBack_ = {stage, 0, 0};
}

bool TableWriter::putInOrder(std::uint32_t places) {
  constexpr std::uint32_t cheap = 64;  // against a move
  bool done = true;
  forEachPool([&](PlacePool& pool) { done = done && pool.putInOrder(cheap * places); });
  return done;
}

// Moves what lies in the pool's last places and gives back what is free behind them. True: that is done, or cannot be.
template <class Move>
bool TableWriter::giveBackEnd(PlacePool& pool, std::uint32_t places, Move move) {
  bool done = false;
  for (const std::uint32_t before = pool.used(); before - pool.used() < PlacePool::mostLetGo / pool.placeSize();) {
    if (!pool.letGo()) break;
    if ((done = pool.used() == 0 || pool.isFullBefore(pool.used() - 1)) || places-- == 0) break;
    if ((done = !move(pool.used() - 1))) break;
  }
  if (pool.surplus() >= (done ? 1 : PlacePool::leastSurplus)) giveBackPages(pool);
  return done;
}

// Whoever reads nodes that go finds that the epoch has moved, before they are zero bytes or others.
void TableWriter::giveBackPages(PlacePool& pool) {
  std::uint64_t& epoch = image_.state().epoch;
  storeNumber(epoch, numberIn(loadNumber(epoch) + 2));
  keepsPages_ = !pool.giveBack(release_);
}

// Reads the entry's value; nothing: it is not whole.
std::optional<std::size_t> TableWriter::wholeValue(std::uint32_t slot) {
  const SlotImage entry = loadWords(slot);
  std::size_t size = 0;
  if (!isLive(entry.version()) || view_.readValue(slot, entry, scratch_, size) != TableView::ValueRead::whole)
    return std::nullopt;
  return size;
}

// False: the indexes do not lead there alone, or it is damaged; that is for others to find out.
bool TableWriter::moveEntry(std::uint32_t from) {
  const KeyWords key = image_.keyOf(from);
  const std::uint64_t hash = hash_.hashOf(key);
  HashIndexWriter::Place place;
  if (!hash_.find(key, hash, place) || place.number == 0 || place.slot != from || !order_.leadsTo(key, from))
    return false;
  const auto size = wholeValue(from);
  const bool inHeap = image_.geometry().inHeap;
  if (!size || (inHeap && !heap_[image_.geometry().heapClassFor(*size)].ready(1))) return false;
  const auto extent = inHeap ? std::optional(extentIn(loadWords(from), image_.geometry())) : std::nullopt;

  const std::uint32_t to = slots_.take();
  TableState& state = image_.state();
  storeNumber(state.moving, std::uint64_t{from} + 1);
  storeNumber(state.operation, std::uint64_t{to} + 1);
  SlotImage words{};
  std::memcpy(words.bytes() + 8, key.words.data(), image_.geometry().keySize);
  const std::uint32_t check = fillBuffer(words, 0, key, Bytes(scratch_).first(*size), sequence_ + 1);
  storeWords(to, words, 1, image_.geometry().slotWords);
  // Counted when the indexes lead there: whoever was led to the old slot and finds it free finds that changes have come
  // since, and who was led anywhere after the count was led to the new one.
  ++sequence_;
  announce(to, key, Announced::move);
  store(image_.version(to), versionWord(sequence_, 0, check));
  hash_.redirect(hash, place, to);
  order_.redirect(key, from, to);
  storeNumber(state.headSequence, sequence_);
  store(image_.version(from), versionWord(sequence_, SlotState::free));
  storeNumber(state.operation, 0);
  storeNumber(state.moving, 0);
  slots_.give(from);
  giveBack(extent);
  return true;
}

// Of the values that stand behind a free place. No place knows whose it is: all entries are looked at. True: they have
// been.
bool TableWriter::moveValues(std::uint32_t places) {
  constexpr std::uint32_t cheap = 8;  // against a move
  const TableGeometry& geometry = image_.geometry();
  std::uint32_t& next = givingBack_->next;
  if (!geometry.inHeap) return true;
  for (std::uint32_t left = cheap * places; next < slots_.used() && left > 0; ++next) {
    --left;
    if (!isLive(load(image_.version(next)))) continue;
    const HeapExtent extent = extentIn(loadWords(next), geometry);
    if (!extent.isPlaceIn(geometry)) continue;
    const unsigned heapClass = geometry.heapClassFor(extent.size);
    const PlaceSection& section = geometry.heap[heapClass];
    PlacePool& pool = heap_[heapClass];
    const auto place = static_cast<std::uint32_t>((extent.offset - section.begin) / section.size);
    // Those that are to stay are as many as there are taken ones.
    if (place < pool.used() - pool.free() || pool.isFullBefore(place)) continue;
    if (const auto size = wholeValue(next)) {
      update(next, image_.keyOf(next), Bytes(scratch_).first(*size), Announced::move);
      left -= std::min(left, cheap);
    }
  }
  return next >= slots_.used();
}

}  // namespace LinuxPlatform
