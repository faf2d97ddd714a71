#include "lib/tables/TableView.h"

#include <algorithm>
#include <string>
#include <vector>

namespace LinuxPlatform {

namespace {

// A writer at full speed changes one slot a few times while it is read; it does not do so this often.
constexpr unsigned slotTries = 1000;
// Contradictions in the indexes come from changes in mid-walk. So many without any change: it is damage.
constexpr unsigned calmTries = 8;
constexpr unsigned busyTries = 10000;

}  // namespace

bool TableView::readSlot(std::uint32_t slot, SlotSnapshot& out) const {
  for (unsigned i = 0; i < slotTries; ++i) {
    out.version = load(image_.version(slot));
    out.next = load(image_.chainNext(slot));
    out.key = image_.loadKey(slot);
    if (load(image_.version(slot)) == out.version) return true;
  }
  return false;
}

TableView::ValueRead TableView::readValue(std::uint32_t slot, const SlotSnapshot& entry, MutableBytes out,
                                          std::size_t& size) const {
  const TableGeometry& geometry = image_.geometry();
  const std::uint64_t* buffer = image_.buffer(slot, bufferOf(entry.version));
  const std::uint64_t head = load(*buffer);
  size = head >> 32;
  const std::uint64_t* from = buffer + 1;
  bool good = size <= geometry.maxValueSize;
  if (good && geometry.variableSize) {
    const std::uint64_t offset = load(*from);
    good = offset % 8 == 0 && offset <= geometry.heapSize && geometry.heapSize - offset >= size;
    if (good) from = image_.heap(offset);
  }
  if (good) loadBytes(out.first(size), from);
  if (load(image_.version(slot)) != entry.version) return ValueRead::changed;
  good = good && entryChecksum(entry.key, geometry.keyWordCount, out.first(size), sequenceOf(entry.version)) ==
                     static_cast<std::uint32_t>(head);
  return good ? ValueRead::whole : ValueRead::damaged;
}

std::uint64_t TableView::activity() const {
  const TableState& state = image_.state();
  return load(state.headSequence) + (load(state.operation) << 32) + load(state.epoch);
}

template <class Attempt>
TableView::Outcome TableView::settle(Attempt attempt) const {
  unsigned calm = 0;
  for (unsigned i = 0; i < busyTries; ++i) {
    const std::uint64_t before = activity();
    const Outcome outcome = attempt();
    if (outcome != Outcome::contradiction) return outcome;
    if (activity() == before && ++calm == calmTries) {
      (*report_)("the index contradicts itself");
      return Outcome::noIndex;
    }
  }
  return Outcome::noIndex;
}

bool TableView::find(const KeyWords& key, MutableBytes value, Entry& found) const {
  const Outcome outcome = settle([&] { return tryFind(key, &value, found); });
  return outcome == Outcome::found || (outcome == Outcome::noIndex && scanFor(key, &value, found));
}

bool TableView::has(const KeyWords& key, Entry& found) const {
  const Outcome outcome = settle([&] { return tryFind(key, nullptr, found); });
  return outcome == Outcome::found || (outcome == Outcome::noIndex && scanFor(key, nullptr, found));
}

std::optional<bool> TableView::findByIndex(const KeyWords& key, const MutableBytes* value, Entry& found) const {
  const Outcome outcome = settle([&] { return tryFind(key, value, found); });
  if (outcome == Outcome::noIndex) return std::nullopt;
  return outcome == Outcome::found;
}

TableView::Outcome TableView::tryFind(const KeyWords& key, const MutableBytes* value, Entry& found) const {
  const std::uint64_t epoch = load(image_.state().epoch);
  if ((epoch & 1) != 0) return Outcome::noIndex;
  const std::uint32_t bucket = image_.bucketOf(key);
  std::uint32_t node = load(image_.bucket(bucket));
  SlotSnapshot& here = found.contents;
  for (unsigned hops = 0; node != 0; ++hops) {
    if (node > image_.geometry().slots || hops > longestChain) return Outcome::contradiction;
    found.slot = node - 1;
    if (!readSlot(found.slot, here) || stateOf(here.version) == SlotState::free) return Outcome::contradiction;
    if (image_.compare(here.key, key) == 0) {
      if (!isLive(here.version)) return Outcome::absent;
      if (value == nullptr) return Outcome::found;
      const ValueRead read = readValue(found.slot, here, *value, found.size);
      if (read == ValueRead::changed) continue;  // the same node again
      if (read == ValueRead::whole) return Outcome::found;
      (*report_)("slot " + std::to_string(found.slot) + " holds a damaged entry");
      return Outcome::absent;
    }
    // The slot may have been given to another key, in another chain, since this chain led to it.
    if (image_.bucketOf(here.key) != bucket) return Outcome::contradiction;
    node = here.next;
  }
  return load(image_.state().epoch) == epoch ? Outcome::absent : Outcome::contradiction;
}

bool TableView::seek(const KeyWords& from, bool inclusive, MutableBytes value, std::uint64_t& hint,
                     Entry& found) const {
  const auto start = static_cast<std::uint32_t>(hint);
  const Outcome outcome = settle([&] { return trySeek(from, inclusive, value, start, found); });
  const bool any =
      outcome == Outcome::found || (outcome == Outcome::noIndex && scanFrom(from, inclusive, value, found));
  hint = any ? found.slot + 1 : 0;
  return any;
}

TableView::Outcome TableView::trySeek(const KeyWords& from, bool inclusive, MutableBytes value, std::uint32_t hint,
                                      Entry& found) const {
  const std::uint64_t epoch = load(image_.state().epoch);
  if ((epoch & 1) != 0) return Outcome::noIndex;
  Position at;
  if (!startAtHint(from, inclusive, hint, at)) {
    // Most searches are for a key that is there, and its chain is much shorter than the way down the list.
    if (tryFind(from, inclusive ? &value : nullptr, found) == Outcome::found) {
      if (inclusive) return Outcome::found;
      at = {found.slot + 1, found.contents.version, found.contents.key};
    } else if (const Outcome outcome = descend(from, inclusive, at); outcome != Outcome::found) {
      return outcome;
    }
  }
  const Outcome outcome = nextEntry(at, from, inclusive, value, found);
  return load(image_.state().epoch) == epoch ? outcome : Outcome::contradiction;
}

// A walk goes on from the entry it stands on, when that is still there under its key.
bool TableView::startAtHint(const KeyWords& from, bool inclusive, std::uint32_t hint, Position& at) const {
  if (inclusive || hint == 0 || hint > image_.geometry().slots) return false;
  SlotSnapshot here;
  if (!readSlot(hint - 1, here) || !isLive(here.version) || image_.compare(here.key, from) != 0) return false;
  at = {hint, here.version, here.key};
  return true;
}

bool TableView::stillThere(const Position& at) const {
  return at.node == 0 || load(image_.version(at.node - 1)) == at.version;
}

std::optional<std::uint32_t> TableView::step(const Position& at, unsigned level, SlotSnapshot& next) const {
  const std::uint32_t node = load(image_.link(level, at.node));
  if (node == 0) return stillThere(at) ? std::optional<std::uint32_t>(0) : std::nullopt;
  const std::uint32_t slot = node - 1;
  if (slot >= image_.geometry().slots || image_.height(slot) <= level) return std::nullopt;
  if (!readSlot(slot, next) || stateOf(next.version) == SlotState::free) return std::nullopt;
  // A link counts only if its node was in the list when the link was read.
  if (!stillThere(at) || (at.node != 0 && image_.compare(next.key, at.key) <= 0)) return std::nullopt;
  return node;
}

// To the last node below `from` (or at it, for an exclusive search).
TableView::Outcome TableView::descend(const KeyWords& from, bool inclusive, Position& at) const {
  SlotSnapshot next;
  for (unsigned level = image_.geometry().levels; level-- > 0;) {
    for (;;) {
      const auto node = step(at, level, next);
      if (!node) return Outcome::contradiction;
      if (*node == 0) break;
      const int order = image_.compare(next.key, from);
      if (order > 0 || (order == 0 && inclusive)) break;
      at = {*node, next.version, next.key};
    }
  }
  return Outcome::found;
}

// The first entry after `at` that the search is for. It is the next one only if, once it has been read, `at` is still
// in the list and still leads to it: otherwise the slot may have been given to a key further on, with entries in
// between. And one that was put in after the way down had passed there may be below the bound.
TableView::Outcome TableView::nextEntry(Position at, const KeyWords& from, bool inclusive, MutableBytes value,
                                        Entry& found) const {
  for (;;) {
    const auto node = step(at, 0, found.contents);
    if (!node) return Outcome::contradiction;
    if (*node == 0) return Outcome::absent;
    found.slot = *node - 1;
    const int order = image_.compare(found.contents.key, from);
    const bool wanted = isLive(found.contents.version) && (order > 0 || (order == 0 && inclusive));
    ValueRead read = ValueRead::whole;
    if (wanted) read = readValue(found.slot, found.contents, value, found.size);
    if (load(image_.link(0, at.node)) != *node || load(image_.version(found.slot)) != found.contents.version ||
        !stillThere(at)) {
      return Outcome::contradiction;
    }
    if (wanted && read == ValueRead::whole) return Outcome::found;
    if (read == ValueRead::damaged) {
      (*report_)("slot " + std::to_string(found.slot) + " holds a damaged entry");
    }
    at = {*node, found.contents.version, found.contents.key};
  }
}

bool TableView::scanFor(const KeyWords& key, const MutableBytes* value, Entry& found) const {
  const std::uint32_t end = image_.highWater();
  for (found.slot = 0; found.slot < end; ++found.slot) {
    SlotSnapshot& here = found.contents;
    while (isLive(load(image_.version(found.slot))) && readSlot(found.slot, here) && isLive(here.version) &&
           image_.compare(here.key, key) == 0) {
      if (value == nullptr) return true;
      const ValueRead read = readValue(found.slot, here, *value, found.size);
      if (read == ValueRead::whole) return true;
      if (read == ValueRead::damaged) break;
    }
  }
  return false;
}

bool TableView::scanFrom(const KeyWords& from, bool inclusive, MutableBytes value, Entry& found) const {
  bool any = false;
  Entry here;
  std::vector<std::byte> bytes(image_.geometry().maxValueSize);
  const std::uint32_t end = image_.highWater();
  for (here.slot = 0; here.slot < end; ++here.slot) {
    while (isLive(load(image_.version(here.slot))) && readSlot(here.slot, here.contents) &&
           isLive(here.contents.version)) {
      const int order = image_.compare(here.contents.key, from);
      if (order < 0 || (order == 0 && !inclusive)) break;
      if (any && image_.compare(here.contents.key, found.contents.key) >= 0) break;
      const ValueRead read = readValue(here.slot, here.contents, bytes, here.size);
      if (read == ValueRead::changed) continue;
      if (read == ValueRead::damaged) break;
      any = true;
      found = here;
      std::copy_n(bytes.begin(), here.size, value.begin());
      break;
    }
  }
  return any;
}

}  // namespace LinuxPlatform
