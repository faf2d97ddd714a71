#include "lib/tables/TableView.h"

#include <algorithm>
#include <string>
#include <vector>

namespace LinuxPlatform {

namespace {

// Contradictions in the indexes come from changes in mid-walk. So many without any change: it is damage.
constexpr unsigned calmTries = 8;
constexpr unsigned busyTries = 10000;

}  // namespace

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
    if (!image_.readSlot(found.slot, here) || stateOf(here.version) == SlotState::free) return Outcome::contradiction;
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
    } else if (!order_.moveBelow(from, inclusive, at)) {
      return Outcome::contradiction;
    }
  }
  const Outcome outcome = nextEntry(at, from, inclusive, value, found);
  return load(image_.state().epoch) == epoch ? outcome : Outcome::contradiction;
}

// A walk goes on from the entry it stands on, when that is still there under its key.
bool TableView::startAtHint(const KeyWords& from, bool inclusive, std::uint32_t hint, Position& at) const {
  if (inclusive || hint == 0 || hint > image_.geometry().slots) return false;
  SlotSnapshot here;
  if (!image_.readSlot(hint - 1, here) || !isLive(here.version) || image_.compare(here.key, from) != 0) return false;
  at = {hint, here.version, here.key};
  return true;
}

// The first entry after `at` that the search is for. It is the next one only if, once it has been read, `at` is still
// in the list and still leads to it: otherwise the slot may have been given to a key further on, with entries in
// between. And one that was put in after the way down had passed there may be below the bound.
TableView::Outcome TableView::nextEntry(Position at, const KeyWords& from, bool inclusive, MutableBytes value,
                                        Entry& found) const {
  for (;;) {
    const auto node = order_.next(at, found.contents);
    if (!node) return Outcome::contradiction;
    if (*node == 0) return Outcome::absent;
    found.slot = *node - 1;
    const int order = image_.compare(found.contents.key, from);
    const bool wanted = isLive(found.contents.version) && (order > 0 || (order == 0 && inclusive));
    ValueRead read = ValueRead::whole;
    if (wanted) read = readValue(found.slot, found.contents, value, found.size);
    if (!order_.leadsTo(at, *node) || load(image_.version(found.slot)) != found.contents.version ||
        !order_.stillThere(at)) {
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
    while (isLive(load(image_.version(found.slot))) && image_.readSlot(found.slot, here) && isLive(here.version) &&
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
    while (isLive(load(image_.version(here.slot))) && image_.readSlot(here.slot, here.contents) &&
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
