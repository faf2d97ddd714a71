#include "RouteCache/hw/HitBitTimeSlices.h"

#include <bit>

#include "platform/values/Assert.h"

namespace RouteCache {

namespace {

// Calls visit(number) for each bit that is set, in ascending order.
template <class Visit>
void forBits(std::uint32_t bits, Visit&& visit) {
  for (; bits != 0; bits &= bits - 1) visit(static_cast<unsigned>(std::countr_zero(bits)));
}

}  // namespace

HitBitTimeSlices::HitBitTimeSlices() : links_(lists), index_(KeyAt{&rows_}) {
  for (Link list = 0; list < lists; ++list) links_[list] = {list, list};
}

// --- Rows in lists ---------------------------------------------------------------------------------------------------

void HitBitTimeSlices::append(Link list, Link row) {
  const Link last = links_[list].previous;
  links_[row] = {last, list};
  links_[last].next = row;
  links_[list].previous = row;
}

void HitBitTimeSlices::unlink(Link row) {
  const Links gone = links_[row];
  links_[gone.previous].next = gone.next;
  links_[gone.next].previous = gone.previous;
}

// Puts all of `from` behind all of `to`.
void HitBitTimeSlices::splice(Link from, Link to) {
  const Links moved = std::exchange(links_[from], {from, from});
  if (moved.next == from) return;
  const Link last = std::exchange(links_[to].previous, moved.previous);
  links_[last].next = moved.next;
  links_[moved.next].previous = last;
  links_[moved.previous].next = to;
}

// Puts what is in `part` ahead of what is in the slice.
void HitBitTimeSlices::putBack(Link part, std::uint16_t slice) {
  splice(slice, part);
  splice(part, slice);
}

// --- Keys in rows ----------------------------------------------------------------------------------------------------

// A place behind all others of the slice, which the index does not know yet.
HitBitTimeSlices::Place HitBitTimeSlices::add(const Key& key, std::uint16_t slice) {
  Link last = links_[slice].previous;
  if (last == slice || rowAt(last).filled == rowSize) {
    const std::uint32_t number = rows_.add();
    last = lists + number;
    if (last == links_.size()) links_.emplace_back();
    append(slice, last);
    rows_[number].live = 0;
    rows_[number].slice = slice;
    rows_[number].filled = 0;
  }
  Row& row = rowAt(last);
  const unsigned number = row.filled++;
  row.keys[number] = key;
  row.live |= std::uint32_t{1} << number;
  ++sizes_[slice];
  return (last - lists) * rowSize + number;
}

// Empties the place, which the index does not know any more.
void HitBitTimeSlices::take(Place place) {
  const Link link = lists + place / rowSize;
  Row& row = rowAt(link);
  const std::uint32_t bit = std::uint32_t{1} << place % rowSize;
  row.live &= ~bit;
  --sizes_[row.slice];
  if (link == first(dueList)) {
    dueKeys_ &= ~bit;
    if (dueKeys_ == 0) endTurn();
  } else if (row.live == 0) {
    release(link);
  }
}

void HitBitTimeSlices::release(Link row) {
  unlink(row);
  rows_.free(row - lists);
}

// Nobody is left.
void HitBitTimeSlices::returnMemory() {
  if (!index_.empty() || rows_.size() <= worthReturning) return;
  rows_ = Rows();
  links_.resize(lists);
  links_.shrink_to_fit();
}

// These keys of the row go behind all others of its slice.
void HitBitTimeSlices::pour(Link link, std::uint32_t which) {
  Row& row = rowAt(link);
  forBits(which, [&](unsigned number) {
    Place* const known = index_.find(row.keys[number]);
    *known = add(row.keys[number], row.slice);
    --sizes_[row.slice];
  });
  row.live &= ~which;
}

void HitBitTimeSlices::file(const Key& key, std::uint16_t slice) {
  PLATFORM_ASSERT(slice < timeSliceInvalid);
  if (slice == visited_) putPassedBack();
  Place* const known = index_.find(key);
  const Place place = add(key, slice);
  if (known == nullptr) {
    index_.add(place);
  } else {
    take(std::exchange(*known, place));
  }
}

void HitBitTimeSlices::remove(const Key& key) {
  Place* const known = index_.find(key);
  if (known == nullptr) return;
  const Place place = *known;
  index_.eraseAt(known);
  take(place);
  returnMemory();
}

void HitBitTimeSlices::removeAll(std::uint16_t slice) {
  if (visited_ == slice) endVisit();
  if (aside_ == slice) forgetAside();
  for (Link link = first(slice); link != 0; link = first(slice)) {
    Row& row = rowAt(link);
    forBits(row.live, [&](unsigned number) { index_.erase(Key(row.keys[number])); });
    release(link);
  }
  sizes_[slice] = 0;
  returnMemory();
}

std::uint16_t HitBitTimeSlices::sliceOf(const Key& key) const {
  const Place* const place = index_.find(key);
  return place == nullptr ? timeSliceInvalid : rows_[*place / rowSize].slice;
}

std::vector<HitBitTimeSlices::Key> HitBitTimeSlices::keys(std::uint16_t slice) const {
  std::vector<Key> keys;
  const auto add = [&](const Row& row, std::uint32_t which) {
    forBits(which, [&](unsigned number) { keys.push_back(row.keys[number]); });
  };
  const auto addAll = [&](Link link) {
    for (; link != 0; link = next(link)) add(rowAt(link), rowAt(link).live);
  };
  const Link turn = visited_ == slice ? first(dueList) : 0;
  if (turn != 0) {
    add(rowAt(turn), dueKeys_);
    addAll(next(turn));
  }
  if (aside_ == slice) addAll(first(asideList));
  addAll(first(slice));
  if (turn != 0) add(rowAt(turn), rowAt(turn).live & ~dueKeys_);
  return keys;
}

// --- Visits ----------------------------------------------------------------------------------------------------------

void HitBitTimeSlices::beginTurn() {
  const Link row = first(dueList);
  dueKeys_ = row == 0 ? 0 : rowAt(row).live;
}

// All keys of the visit's first row have had their turn.
void HitBitTimeSlices::endTurn() {
  const Link link = first(dueList);
  const Row& row = rowAt(link);
  const auto left = static_cast<unsigned>(std::popcount(row.live));
  const bool isSparse = left < row.filled && left <= rowSize / 2 && first(row.slice) != 0;
  if (isSparse) pour(link, row.live);
  if (row.live == 0) {
    release(link);
  } else {
    unlink(link);
    append(row.slice, link);
  }
  beginTurn();
}

// What has had its turn is behind what was filed before, and ahead of what is filed from now on.
void HitBitTimeSlices::putPassedBack() {
  const Link row = first(dueList);
  if (row != 0) pour(row, rowAt(row).live & ~dueKeys_);
}

void HitBitTimeSlices::beginVisit(std::uint16_t slice) {
  PLATFORM_ASSERT(!visiting() && slice < timeSliceInvalid);
  visited_ = slice;
  splice(slice, dueList);
  beginTurn();
}

std::optional<HitBitTimeSlices::Key> HitBitTimeSlices::due() const {
  if (dueKeys_ == 0) return std::nullopt;
  return rowAt(first(dueList)).keys[static_cast<unsigned>(std::countr_zero(dueKeys_))];
}

std::size_t HitBitTimeSlices::dueKeys(std::span<Key> keys) const {
  std::size_t count = 0;
  for (Link link = first(dueList); link != 0 && count < keys.size(); link = next(link)) {
    const Row& row = rowAt(link);
    for (std::uint32_t bits = count == 0 ? dueKeys_ : row.live; bits != 0 && count < keys.size(); bits &= bits - 1) {
      keys[count++] = row.keys[static_cast<unsigned>(std::countr_zero(bits))];
    }
  }
  return count;
}

void HitBitTimeSlices::passDue() {
  dueKeys_ &= dueKeys_ - 1;
  if (dueKeys_ == 0) endTurn();
}

void HitBitTimeSlices::endVisit() {
  PLATFORM_ASSERT(visiting());
  putPassedBack();
  putBack(dueList, visited_);
  visited_ = timeSliceInvalid;
  dueKeys_ = 0;
}

void HitBitTimeSlices::setAside(std::uint16_t slice) {
  PLATFORM_ASSERT(aside_ == timeSliceInvalid && visited_ != slice && slice < timeSliceInvalid);
  aside_ = slice;
  splice(slice, asideList);
}

void HitBitTimeSlices::visitAside() {
  PLATFORM_ASSERT(!visiting() && aside_ != timeSliceInvalid);
  visited_ = aside_;
  aside_ = timeSliceInvalid;
  splice(asideList, dueList);
  beginTurn();
}

void HitBitTimeSlices::forgetAside() {
  PLATFORM_ASSERT(aside_ != timeSliceInvalid);
  putBack(asideList, aside_);
  aside_ = timeSliceInvalid;
}

// --- Invariants ------------------------------------------------------------------------------------------------------

// Of a row in a list; how many keys it holds.
std::uint32_t HitBitTimeSlices::checkRow(Link link, std::uint16_t slice) const {
  const Row& row = rowAt(link);
  PLATFORM_ASSERT_TEXT(row.slice == slice, "a row is in a list of its slice");
  PLATFORM_ASSERT_TEXT(row.live != 0 && row.filled <= rowSize, "a row holds a key, and no more than it has places");
  PLATFORM_ASSERT_TEXT(static_cast<unsigned>(std::bit_width(row.live)) <= row.filled, "a key's place was given out");
  forBits(row.live, [&](unsigned number) {
    const Place* const known = index_.find(row.keys[number]);
    PLATFORM_ASSERT_TEXT(known != nullptr && *known == (link - lists) * rowSize + number,
                         "the index says where a key lies");
  });
  return static_cast<std::uint32_t>(std::popcount(row.live));
}

void HitBitTimeSlices::checkInvariants() const {
  std::array<std::uint32_t, timeSliceInvalid> sizes{};
  std::size_t rows = 0;
  std::size_t keys = 0;
  for (Link list = 0; list < lists; ++list) {
    const auto slice = list == dueList ? visited_ : list == asideList ? aside_ : static_cast<std::uint16_t>(list);
    for (Link link = first(list); link != 0; link = next(link), ++rows) {
      PLATFORM_ASSERT_TEXT(slice < timeSliceInvalid, "without a visit nothing is due, and nothing aside unasked");
      PLATFORM_ASSERT_TEXT(links_[links_[link].previous].next == link, "both neighbours of a row name it");
      const std::uint32_t held = checkRow(link, slice);
      sizes[slice] += held;
      keys += held;
    }
  }
  PLATFORM_ASSERT_TEXT(sizes == sizes_, "a slice counts its keys");
  PLATFORM_ASSERT_TEXT(keys == index_.size(), "the index knows the keys of the rows and no others");
  PLATFORM_ASSERT_TEXT(rows == rows_.taken(), "a row is in a list, or free");
  const Link turn = first(dueList);
  PLATFORM_ASSERT_TEXT((turn != 0) == (dueKeys_ != 0), "while a visit has rows, it is a key's turn");
  PLATFORM_ASSERT_TEXT(turn == 0 || (dueKeys_ & ~rowAt(turn).live) == 0, "whose turn is to come is there");
}

std::shared_ptr<HitBitTimeSliceColl> HitBitTimeSliceCollIs(std::shared_ptr<HitBitTimeSlices> slices,
                                                           std::uint16_t slice) {
  return std::make_shared<HitBitTimeSliceColl>(std::move(slices), slice);
}

}  // namespace RouteCache
