#include "lib/tables/TableView.h"

#include <algorithm>
#include <atomic>
#include <bit>
#include <map>
#include <string>
#include <type_traits>
#include <utility>

namespace LinuxPlatform {

namespace {

// Contradictions in the indexes come from changes in mid-search. So many in a row without any change: it is damage.
constexpr unsigned calmTries = 8;
constexpr unsigned busyTries = 10000;
// Changes of the table that a walk looks through for those that concern what it has read ahead; beyond, it reads again.
constexpr std::uint64_t mostChangesAhead = 32;
constexpr unsigned groupSize = 16;

std::atomic<std::uint64_t> views = 0;

}  // namespace

// What moves when a writer is at work.
struct TableView::Activity {
  std::uint64_t head, operation, epoch, root, nodesMoved;
  bool operator==(const Activity&) const = default;
};

// The slots of all live entries in the order of their keys, and of some that have gone.
struct TableView::InOrder {
  struct Before {
    TableImage image;
    bool operator()(const KeyWords& a, const KeyWords& b) const { return image.compare(a, b) < 0; }
  };
  std::uint64_t head;  // the table's changes when it was made, or last brought up to date
  std::map<KeyWords, std::uint32_t, Before> slots;
};

TableView::TableView(const TableImage& image, const DamageReport& report)
    : image_(image), hash_(image), order_(image), report_(&report), id_(++views) {}

std::uint32_t TableView::size() const {
  const std::uint64_t count = load(image_.state().liveCount);
  if (!isSound(count)) (*report_)("the count of its entries is damaged");
  return static_cast<std::uint32_t>(std::min<std::uint64_t>(numberIn(count), image_.geometry().slots));
}

// --- Entries ---------------------------------------------------------------------------------------------------------

TableView::ValueRead TableView::readValue(std::uint32_t slot, const SlotImage& entry, MutableBytes out,
                                          std::size_t& size) const {
  const TableGeometry& geometry = image_.geometry();
  const unsigned begin = geometry.bufferAt(bufferOf(entry.version()));
  if (geometry.inHeap) {
    const HeapExtent extent = extentIn(entry, geometry);
    const bool good = extent.isPlaceIn(geometry);
    if (good && out.empty() && scratch_.empty()) scratch_.resize(geometry.maxValueSize);
    if (good && out.empty()) out = scratch_;
    if (good) loadBytes(out.first(extent.size), image_.words(extent.offset));
    if (load(image_.version(slot)) != entry.version()) return ValueRead::changed;
    if (!good) return ValueRead::damaged;
    size = extent.size;
    return judge(entry, size, [&](std::size_t i) { return wordOf(out.data() + 8 * i, size - 8 * i); });
  }
  size = geometry.payload;
  const auto word = [&](std::size_t i) {
    const std::uint64_t bytes = entry.wordAt(begin + 8 * static_cast<unsigned>(i));
    return 8 * (i + 1) < size ? bytes : bytes & geometry.lastPayloadWord;
  };
  if (!out.empty()) {
    for (std::size_t at = 0; at < size; at += 8) putWord(out.data() + at, word(at / 8), size - at);
  }
  return judge(entry, size, word);
}

// Whether the entry bears the check of this value.
template <class ValueWord>
TableView::ValueRead TableView::judge(const SlotImage& entry, std::size_t size, ValueWord word) const {
  const TableGeometry& geometry = image_.geometry();
  const KeyWords key = image_.keyIn(entry);
  const std::uint32_t check = entryCheck(key, geometry.keyWordCount, size, word, sequenceOf(entry.version()));
  const unsigned behind = geometry.bufferAt(bufferOf(entry.version())) + geometry.payload;
  const bool highIs = geometry.checkBytes == 0 || check >> 16 == halfBehind(entry.wordAt(behind), 0);
  return highIs && (check & 0xffff) == checkOf(entry.version()) ? ValueRead::whole : ValueRead::damaged;
}

// A slot to which an index has led stands for no key that was wanted: because that has gone, or because it is damaged.
void TableView::lookAtPassed(std::uint32_t slot, const SlotImage& here) const {
  std::size_t size = 0;
  const bool damaged = isLive(here.version()) ? readValue(slot, here, {}, size) == ValueRead::damaged
                                              : !isSoundWithoutEntry(here.version());
  if (damaged) reportEntry(slot);
}

void TableView::reportEntry(std::uint32_t slot) const {
  (*report_)("slot " + std::to_string(slot) + " holds a damaged entry");
}

// The entry in this slot, which is live: found, `contradiction` when it has changed, absent when it is damaged.
TableView::Outcome TableView::tryEntry(std::uint32_t slot, const SlotImage& here, const MutableBytes* value,
                                       Entry& found) const {
  const ValueRead read = readValue(slot, here, value != nullptr ? *value : MutableBytes(), found.size);
  if (read == ValueRead::changed) return Outcome::contradiction;
  if (read == ValueRead::damaged) {
    reportEntry(slot);
    return Outcome::absent;
  }
  found.slot = slot;
  found.version = here.version();
  found.key = image_.keyIn(here);
  return Outcome::found;
}

// --- By the indexes --------------------------------------------------------------------------------------------------

TableView::Activity TableView::activity() const {
  const TableState& state = image_.state();
  return {load(state.headSequence), load(state.operation), load(state.epoch), load(state.root), load(state.nodesMoved)};
}

template <class Attempt>
TableView::Outcome TableView::settle(Attempt attempt) const {
  unsigned calm = 0;
  std::uint64_t operation = 0;  // meanwhile: the writer may come to its end before anybody asks
  for (unsigned i = 0; i < busyTries && calm < calmTries; ++i) {
    const Activity before = activity();
    const Outcome outcome = attempt();
    if (outcome != Outcome::contradiction) return outcome;
    calm = activity() == before ? calm + 1 : 0;
    operation = before.operation;
  }
  // A writer that has stopped in mid-change has left one line or one node whose check does not fit.
  if (calm == calmTries && operation == checkedWord(0)) {
    contradicted_ = true;
    (*report_)("the index contradicts itself");
  }
  return Outcome::noIndex;
}

// The three below are what nearly every lookup and every step of a walk come to, in so few instructions that a
// processor asks memory for the lines of several of them at a time; the number of words is known when they are
// compiled. `contradiction`: has to be looked at more closely.

// The key in the first place of its line that has its tag, or no such place in a line that has not overflowed.
template <unsigned keyWordCount>
TableView::Outcome TableView::glance(const KeyWords& key, MutableBytes value, Entry& found) const {
  const std::uint64_t hash = hash_.hashOf(key, keyWordCount);
  const std::uint32_t* line = image_.bucketLine(hash_.homeOf(hash));
  const std::uint32_t candidates = hash_.candidates(line, hash_.tagOf(hash));
  if (candidates == 0) {
    const bool isAbsent = HashIndex::overflowOf(load(line[0])) == 0 && HashIndex::lineIsWhole(line);
    return isAbsent && epoch() == standing_ ? Outcome::absent : Outcome::contradiction;
  }
  const std::uint32_t slot = hash_.slotOf(load(line[std::countr_zero(candidates)]));
  if (slot >= image_.geometry().slots) return Outcome::contradiction;
  // An entry is one, whatever has led there.
  const std::uint64_t* words = image_.slot(slot);
  const std::uint64_t version = load(words[0]);
  if (!image_.holds(words, key, keyWordCount)) return Outcome::contradiction;
  found.slot = slot;
  found.version = version;
  for (unsigned i = 0; i < keyWordCount; ++i) found.key.words[i] = key.words[i];
  return take<keyWordCount>(words, value, found);
}

// The next of the slots that were read ahead, while the table has not changed since.
template <unsigned keyWordCount>
TableView::Outcome TableView::step(const KeyWords& past, MutableBytes value, WalkCursor& cursor, Entry& found) const {
  if (cursor.view != id_ || cursor.next == cursor.batch.count) return Outcome::contradiction;
  if (headSequence() != cursor.head || epoch() != standing_) return Outcome::contradiction;
  found.slot = cursor.batch.slots[cursor.next];
  const std::uint64_t* words = image_.slot(found.slot);
  found.version = load(words[0]);
  for (unsigned i = 0; i < keyWordCount; ++i) found.key.words[i] = load(words[1 + i]);
  found.key.words[keyWordCount - 1] &= image_.geometry().lastKeyWord;
  const bool isNext = RadixOrder::hasPath(cursor.batch, cursor.next, found.key.words.data()) &&
                      TableImage::compare(found.key, past, keyWordCount) > 0;
  if (!isNext || take<keyWordCount>(words, value, found) != Outcome::found) return Outcome::contradiction;
  ++cursor.next;
  return Outcome::found;
}

// The entry that these words of a slot are: its version and key stand in `found`.
template <unsigned keyWordCount>
[[gnu::always_inline]] inline TableView::Outcome TableView::take(const std::uint64_t* words, MutableBytes value,
                                                                 Entry& found) const {
  const TableGeometry& geometry = image_.geometry();
  const std::uint64_t version = found.version;
  if (!isLive(version)) return Outcome::contradiction;
  if (!geometry.isShort) return readEntry(found.slot, value, found);
  const TableGeometry::FirstWords& at = geometry.firstWords[bufferOf(version)];
  const std::uint64_t both =
      wordAcross(load(words[at.first]), geometry.straddles ? load(words[at.second]) : 0, at.shift);
  const unsigned size = geometry.payload;
  const std::uint64_t bytes = both & geometry.lastPayloadWord;
  const std::uint32_t check = checkIn(checkSum(found.key, keyWordCount, size, bytes, sequenceOf(version)));
  const bool isWhole = check == (checkOf(version) | std::uint32_t{halfBehind(both, size)} << 16);
  if (!isWhole || load(words[0]) != version) return Outcome::contradiction;
  found.size = size;
  if (!value.empty()) putWord(value.data(), bytes, size);
  return Outcome::found;
}

TableView::Outcome TableView::readEntry(std::uint32_t slot, MutableBytes value, Entry& found) const {
  SlotImage here;
  const bool read = image_.readSlot(slot, here) && here.version() == found.version &&
                    readValue(slot, here, value, found.size) == ValueRead::whole;
  return read ? Outcome::found : Outcome::contradiction;
}

// Calls it for the number of words that the table's keys have.
template <class Call>
auto TableView::forKeyWords(Call call) const {
  static_assert(maxKeyWords == 5);
  switch (image_.geometry().keyWordCount) {
    case 1:
      return call(std::integral_constant<unsigned, 1>());
    case 2:
      return call(std::integral_constant<unsigned, 2>());
    case 3:
      return call(std::integral_constant<unsigned, 3>());
    case 4:
      return call(std::integral_constant<unsigned, 4>());
    default:
      return call(std::integral_constant<unsigned, 5>());
  }
}

TableView::Outcome TableView::glance(const KeyWords& key, MutableBytes value, Entry& found) const {
  return forKeyWords([&](auto words) { return this->glance<words>(key, value, found); });
}

TableView::Outcome TableView::step(const KeyWords& past, MutableBytes value, WalkCursor& cursor, Entry& found) const {
  return forKeyWords([&](auto words) { return this->step<words>(past, value, cursor, found); });
}

bool TableView::find(const KeyWords& key, MutableBytes value, Entry& found) const {
  const Outcome first = glance(key, value, found);
  return first <= Outcome::absent ? first == Outcome::found : findClosely(key, &value, found);
}

bool TableView::has(const KeyWords& key, Entry& found) const {
  const Outcome first = glance(key, {}, found);
  return first <= Outcome::absent ? first == Outcome::found : findClosely(key, nullptr, found);
}

bool TableView::findClosely(const KeyWords& key, const MutableBytes* value, Entry& found) const {
  const Outcome outcome = settle([&] { return tryFind(key, value, found); });
  return outcome == Outcome::found || (outcome == Outcome::noIndex && scanFor(key, value, found));
}

std::optional<bool> TableView::findByIndex(const KeyWords& key, const MutableBytes* value, Entry& found) const {
  const Outcome outcome = settle([&] { return tryFind(key, value, found); });
  if (outcome == Outcome::noIndex) return std::nullopt;
  return outcome == Outcome::found;
}

void TableView::expect(std::span<const KeyWords> keys) const {
  while (!keys.empty()) {
    const std::size_t count = std::min<std::size_t>(keys.size(), groupSize);
    std::array<std::uint64_t, groupSize> hashes;
    for (std::size_t i = 0; i < count; ++i) hash_.expectLine(hashes[i] = hash_.hashOf(keys[i]));
    for (std::size_t i = 0; i < count; ++i) {
      const std::uint32_t* line = image_.bucketLine(hash_.homeOf(hashes[i]));
      const std::uint32_t candidates = hash_.candidates(line, hash_.tagOf(hashes[i]));
      if (candidates != 0) image_.expectSlot(hash_.slotOf(load(line[std::countr_zero(candidates)])));
    }
    keys = keys.subspan(count);
  }
}

TableView::Outcome TableView::tryFind(const KeyWords& key, const MutableBytes* value, Entry& found) const {
  const std::uint64_t before = epoch();
  if (!indexesStand(before)) return Outcome::noIndex;
  standing_ = before;
  const std::uint64_t hash = hash_.hashOf(key);
  const std::uint32_t tag = hash_.tagOf(hash);
  const std::uint32_t home = hash_.homeOf(hash);
  for (std::uint32_t number = home;;) {
    const std::uint32_t* line = image_.bucketLine(number);
    for (std::uint32_t bits = hash_.candidates(line, tag); bits != 0; bits &= bits - 1) {
      const std::uint32_t& word = line[std::countr_zero(bits)];
      const std::uint32_t now = load(word);
      if (now == 0) continue;  // of no tag, or gone
      if (!hash_.isTagged(now, tag)) return Outcome::contradiction;
      if (const auto outcome = tryPlace(hash_.slotOf(now), key, value, found)) {
        return *outcome == Outcome::absent && load(word) != now ? Outcome::contradiction : *outcome;
      }
      if (load(word) != now) return Outcome::contradiction;  // the slot may have held the key until now
    }
    const std::uint32_t overflow = HashIndex::overflowOf(load(line[0]));
    if (!HashIndex::lineIsWhole(line)) return Outcome::contradiction;
    number = hash_.after(number);
    if (overflow == 0 || number == home) return epoch() == before ? Outcome::absent : Outcome::contradiction;
  }
}

// What the slot, to which the index has led, says of the key; nothing: it is another's.
std::optional<TableView::Outcome> TableView::tryPlace(std::uint32_t slot, const KeyWords& key,
                                                      const MutableBytes* value, Entry& found) const {
  SlotImage here;
  if (slot >= image_.geometry().slots || !image_.readSlot(slot, here)) return Outcome::contradiction;
  if (!isLive(here.version())) {
    if (here.version() == 0) return Outcome::contradiction;  // nothing leads to a slot that holds nothing
    if (!isSoundWithoutEntry(here.version())) reportEntry(slot);
    if (!image_.hasKey(here, key)) return std::nullopt;
    // On its way in or out; a free one has been taken out of the index before.
    return stateOf(here.version()) == SlotState::linked ? Outcome::absent : Outcome::contradiction;
  }
  if (image_.hasKey(here, key)) return tryEntry(slot, here, value, found);
  // Another key of the same tag, one in thousands: or this one, damaged.
  std::size_t size = 0;
  if (readValue(slot, here, {}, size) == ValueRead::damaged) reportEntry(slot);
  return std::nullopt;
}

bool TableView::seek(const KeyWords& from, bool inclusive, MutableBytes value, WalkCursor& cursor, Entry& found) const {
  if (!inclusive && step(from, value, cursor, found) == Outcome::found) return true;
  return seekClosely(from, inclusive, value, cursor, found);
}

bool TableView::seekClosely(const KeyWords& from, bool inclusive, MutableBytes value, WalkCursor& cursor,
                            Entry& found) const {
  if (inclusive) {
    // Most searches are for a key that is there: no way down the order.
    cursor.view = 0;
    if (glance(from, value, found) == Outcome::found) return true;
  }
  if (const Outcome first = trySeek(from, inclusive, value, cursor, found); first <= Outcome::absent) {
    return first == Outcome::found;
  }
  const Outcome outcome = settle([&] { return trySeek(from, inclusive, value, cursor, found); });
  return outcome == Outcome::found || (outcome == Outcome::noIndex && scanFrom(from, inclusive, value, found));
}

// Whether a key may have come that belongs among the slots that were read ahead: the changes since then are looked at,
// if they are few.
bool TableView::isOutdated(const KeyWords& from, WalkCursor& cursor) const {
  if (cursor.view != id_) return true;
  const std::uint64_t head = headSequence();
  if (head == cursor.head || cursor.next == cursor.batch.count) return false;
  if (head - cursor.head > mostChangesAhead) return true;
  for (std::uint64_t sequence = cursor.head + 1; sequence <= head; ++sequence) {
    const std::uint64_t* entry = image_.ring(sequence);
    const std::uint64_t word = load(*entry);
    const KeyWords changed = image_.loadKey(entry + 1);
    const auto slot = static_cast<std::uint32_t>(word);
    if (word != ringWord(slot, changed, image_.geometry().keyWordCount, sequence)) return true;
    if (image_.compare(changed, from) > 0 && !order_.isBehind(cursor.batch, changed)) return true;
  }
  cursor.head = head;
  return false;
}

// Whether the entry that was met when the slot was read ahead may be in another one by now.
bool TableView::mayHaveMoved(const SlotImage& here, const KeyWords& past, bool inclusive, WalkCursor& cursor) const {
  if (sequenceOf(here.version()) <= cursor.head) return false;
  return inclusive ? headSequence() != cursor.head : isOutdated(past, cursor);
}

bool TableView::readAhead(const KeyWords& from, bool inclusive, WalkCursor& cursor) const {
  constexpr unsigned first = 1;
  const bool goesOn = cursor.view == id_;
  cursor.ahead = goesOn ? std::min(4 * cursor.ahead, RadixOrder::Batch::most) : first;
  cursor.view = id_;
  cursor.head = headSequence();
  cursor.next = 0;
  cursor.batch.max = cursor.ahead;
  if (order_.collect(from, inclusive, cursor.batch)) return true;
  cursor.view = 0;
  return false;
}

// A slot that the order has led to stands for its key as long as it holds the bytes that led there.
TableView::Outcome TableView::trySeek(const KeyWords& from, bool inclusive, MutableBytes value, WalkCursor& cursor,
                                      Entry& found) const {
  const std::uint64_t before = epoch();
  if (!indexesStand(before)) return Outcome::noIndex;
  standing_ = before;
  if (isOutdated(from, cursor)) cursor.view = 0, cursor.batch.count = cursor.next = 0;
  KeyWords past = from;
  SlotImage passed;
  for (bool moved = true;;) {
    if (cursor.view == 0 || cursor.next == cursor.batch.count) {
      // What was read last led to nothing and to nowhere: the order has changed, or it contradicts itself.
      if (!std::exchange(moved, false)) return cursor.view = 0, Outcome::contradiction;
      if (!readAhead(past, inclusive, cursor)) return Outcome::contradiction;
      if (cursor.batch.passed && image_.readSlot(*cursor.batch.passed, passed))
        lookAtPassed(*cursor.batch.passed, passed);
      if (cursor.batch.count == 0) return epoch() == before ? Outcome::absent : Outcome::contradiction;
    }
    const unsigned number = cursor.next;
    const std::uint32_t slot = cursor.batch.slots[number];
    SlotImage here;
    if (!image_.readSlot(slot, here)) return Outcome::contradiction;
    if (here.version() == 0 || mayHaveMoved(here, past, inclusive, cursor)) {
      return cursor.view = 0, Outcome::contradiction;
    }
    if (stateOf(here.version()) != SlotState::free && RadixOrder::hasPath(cursor.batch, number, here)) {
      const KeyWords key = image_.keyIn(here);
      const int order = image_.compare(key, past);
      if (order < 0) lookAtPassed(slot, here);
      if (order > 0 || (order == 0 && inclusive)) {
        if (isLive(here.version())) {
          const Outcome outcome = tryEntry(slot, here, &value, found);
          if (outcome == Outcome::found && epoch() != before) return Outcome::contradiction;
          // What is not returned is met again.
          if (outcome == Outcome::found) ++cursor.next;
          if (outcome != Outcome::absent) return outcome;
        } else if (!isSoundWithoutEntry(here.version())) {
          reportEntry(slot);
        }
        past = key;  // a damaged entry, or one on its way in or out
        inclusive = false;
        moved = true;
      }
    } else {
      lookAtPassed(slot, here);
    }
    ++cursor.next;
  }
}

// --- Without ---------------------------------------------------------------------------------------------------------

// Made once for many searches: the indexes are of no use for as long as the writer takes to rebuild them, or for ever.
const TableView::InOrder& TableView::inOrder() const {
  if (inOrder_ && bringUpToDate(*inOrder_)) return *inOrder_;
  std::vector<std::pair<KeyWords, std::uint32_t>> found;
  const std::uint64_t head = headSequence();
  const std::uint32_t end = image_.highWater();
  SlotImage here;
  for (std::uint32_t slot = 0; slot < end; ++slot) {
    if (isLive(load(image_.version(slot))) && image_.readSlot(slot, here) && isLive(here.version())) {
      found.emplace_back(image_.keyIn(here), slot);
    }
  }
  std::sort(found.begin(), found.end(), [this](const auto& a, const auto& b) {
    const int order = image_.compare(a.first, b.first);
    // Of two entries under one key, which damage alone can bring about, the later one stays.
    return order != 0 ? order < 0 : load(image_.version(a.second)) > load(image_.version(b.second));
  });
  inOrder_.reset(new InOrder{head, {found.begin(), found.end(), InOrder::Before{image_}}});
  bringUpToDate(*inOrder_);  // of entries that have moved meanwhile from slots ahead to slots behind
  return *inOrder_;
}

// By what the ring tells; false: it does not reach back so far.
bool TableView::bringUpToDate(InOrder& known) const {
  const std::uint64_t head = headSequence();
  if (head - known.head > image_.geometry().ringSize) return false;
  if (known.slots.size() > 2 * std::size_t{image_.geometry().slots}) return false;  // mostly of keys that have gone
  SlotImage here;
  for (; known.head != head; ++known.head) {
    const std::uint64_t sequence = known.head + 1;
    const std::uint64_t* entry = image_.ring(sequence);
    const std::uint64_t word = load(*entry);
    const KeyWords key = image_.loadKey(entry + 1);
    const std::uint32_t slot = ringSlot(word);
    if (word != ringWord(static_cast<std::uint32_t>(word), key, image_.geometry().keyWordCount, sequence)) return false;
    // Not of a slot that has been given up: the key may stand in another one.
    if (slot < image_.geometry().slots && image_.readSlot(slot, here) && isLive(here.version()) &&
        image_.hasKey(here, key)) {
      known.slots.insert_or_assign(key, slot);
    }
  }
  return true;
}

bool TableView::scanFor(const KeyWords& key, const MutableBytes* value, Entry& found) const {
  std::vector<std::byte> bytes;
  MutableBytes out = value != nullptr ? *value : MutableBytes();
  if (value == nullptr) bytes.resize(image_.geometry().maxValueSize), out = bytes;
  return scanFrom(key, true, out, found) && image_.compare(found.key, key) == 0;
}

// An entry that is passed over may have moved: then the ring tells where.
bool TableView::scanFrom(const KeyWords& from, bool inclusive, MutableBytes value, Entry& found) const {
  for (unsigned tries = 1;; ++tries) {
    const InOrder& all = inOrder();
    bool passed = false, there = false;
    auto at = inclusive ? all.slots.lower_bound(from) : all.slots.upper_bound(from);
    for (; at != all.slots.end() && !there; ++at) {
      there = scanAt(at->second, at->first, value, found);
      passed = passed || !there;
    }
    if (!passed || tries == busyTries || headSequence() == all.head) return there;
  }
}

bool TableView::scanAt(std::uint32_t slot, const KeyWords& key, MutableBytes value, Entry& found) const {
  SlotImage here;
  Outcome outcome = Outcome::contradiction;
  for (unsigned i = 0; i < busyTries && outcome == Outcome::contradiction; ++i) {
    if (!image_.readSlot(slot, here) || !isLive(here.version()) || !image_.hasKey(here, key)) return false;
    outcome = tryEntry(slot, here, &value, found);
  }
  return outcome == Outcome::found;
}

}  // namespace LinuxPlatform
