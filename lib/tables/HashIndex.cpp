#include "lib/tables/HashIndex.h"

#include <algorithm>

namespace LinuxPlatform {

namespace {
constexpr std::uint32_t mostOverflow = 0xffff;  // and never counted down from there
}

bool HashIndexWriter::find(const KeyWords& key, std::uint64_t hash, Place& place) const {
  const std::uint32_t tag = tagOf(hash);
  const std::uint32_t home = homeOf(hash);
  place = {};
  for (std::uint32_t number = home;;) {
    const std::uint32_t* line = image_.bucketLine(number);
    for (std::uint32_t bits = candidates(line, tag); bits != 0; bits &= bits - 1) {
      const auto at = static_cast<unsigned>(std::countr_zero(bits));
      const std::uint32_t word = load(line[at]);
      if (!isTagged(word, tag)) continue;
      const std::uint32_t slot = slotOf(word);
      if (slot >= image_.geometry().slots) return false;
      if (image_.holds(image_.slot(slot), key, image_.geometry().keyWordCount)) {
        place = {number, at, slot};
        return isLive(load(image_.version(slot)));
      }
    }
    if (overflowOf(load(line[0])) == 0) return true;
    number = after(number);
    if (number == home) return true;
  }
}

std::optional<std::uint64_t> HashIndexWriter::count() const {
  std::uint64_t count = 0;
  for (std::uint32_t line = 0; line < buckets_; ++line) {
    const std::uint32_t* words = image_.bucketLine(line);
    if (!lineIsWhole(words)) return std::nullopt;
    count += places - static_cast<unsigned>(std::popcount(matches(words, 0, ~std::uint32_t{0})));
  }
  return count;
}

bool HashIndexWriter::leadsTo(std::uint64_t hash, std::uint32_t slot) const {
  const std::uint32_t home = homeOf(hash);
  for (std::uint32_t number = home;;) {
    const std::uint32_t* line = image_.bucketLine(number);
    if (matches(line, tagOf(hash) | (slot + 1), ~std::uint32_t{0}) != 0) return lineIsWhole(line);
    number = after(number);
    if (overflowOf(load(line[0])) == 0 || number == home) return false;
  }
}

void HashIndexWriter::put(std::uint32_t line, unsigned number, std::uint32_t word) const {
  std::uint32_t* words = image_.bucketLine(line);
  const std::uint32_t changed = load(words[number]) ^ word;
  store(words[number], word);
  // Not made anew: a check that did not fit before does not fit now.
  store(words[0], load(words[0]) ^ (changed ^ changed >> 16) << 16);
}

void HashIndexWriter::overflowIs(std::uint32_t line, std::uint32_t overflow) const {
  std::uint32_t* words = image_.bucketLine(line);
  const std::uint32_t changed = overflowOf(load(words[0])) ^ overflow;
  store(words[0], load(words[0]) ^ changed ^ changed << 16);
}

bool HashIndexWriter::insert(std::uint64_t hash, std::uint32_t slot) const {
  const std::uint32_t home = homeOf(hash);
  std::uint32_t line = home;
  do {
    const std::uint32_t* words = image_.bucketLine(line);
    if (const std::uint32_t empty = matches(words, 0, ~std::uint32_t{0}); empty != 0) {
      put(line, static_cast<unsigned>(std::countr_zero(empty)), tagOf(hash) | (slot + 1));
      return true;
    }
    overflowIs(line, std::min(overflowOf(load(words[0])) + 1, mostOverflow));
    line = after(line);
  } while (line != home);
  return false;
}

void HashIndexWriter::erase(std::uint64_t hash, const Place& place) const {
  put(place.line, place.number, 0);
  // Backwards: where a writer stops, counts that are too high begin at the home, and takeOut() finds them.
  for (std::uint32_t line = place.line; line != homeOf(hash);) {
    line = before(line);
    const std::uint32_t overflow = overflowOf(load(*image_.bucketLine(line)));
    if (overflow != mostOverflow && overflow != 0) overflowIs(line, overflow - 1);
  }
}

void HashIndexWriter::takeOut(std::uint64_t hash, std::uint32_t slot) const {
  const std::uint32_t home = homeOf(hash);
  const std::uint32_t word = tagOf(hash) | (slot + 1);
  std::uint32_t end = home;
  for (bool more = true; more;) {
    takeOutOf(end, word);
    more = overflowOf(load(*image_.bucketLine(end))) != 0;
    end = after(end);
    more = more && end != home;
  }
  // Backwards, as in erase(): who stops here, too, leaves what leads to the rest.
  std::uint32_t line = end;
  do {
    line = before(line);
    const std::uint32_t overflow = overflowOf(load(*image_.bucketLine(line)));
    if (overflow != mostOverflow && overflow != countOverflow(line)) overflowIs(line, countOverflow(line));
  } while (line != home);
}

// The word's writer may have stopped between word and check. A check that does not fit for another reason stays so.
void HashIndexWriter::takeOutOf(std::uint32_t line, std::uint32_t word) const {
  std::uint32_t* words = image_.bucketLine(line);
  const std::uint32_t wholeWithout = load(words[0]) ^ (word ^ word >> 16) << 16;
  const std::uint32_t whole = firstWord(words, overflowOf(load(words[0])));
  const std::uint32_t at = matches(words, word, ~std::uint32_t{0});
  if (at == 0) {
    if (whole == wholeWithout) store(words[0], wholeWithout);
    return;
  }
  const auto number = static_cast<unsigned>(std::countr_zero(at));
  if (whole == wholeWithout) {
    store(words[number], std::uint32_t{0});
  } else {
    put(line, number, 0);
  }
}

void HashIndexWriter::redirect(std::uint64_t hash, const Place& place, std::uint32_t to) const {
  put(place.line, place.number, tagOf(hash) | (to + 1));
}

void HashIndexWriter::finishRedirect(std::uint64_t hash, std::uint32_t from, std::uint32_t to) const {
  const std::uint32_t old = tagOf(hash) | (from + 1), now = tagOf(hash) | (to + 1);
  const std::uint32_t home = homeOf(hash);
  std::uint32_t line = home;
  do {
    std::uint32_t* words = image_.bucketLine(line);
    if (const std::uint32_t at = matches(words, old, ~std::uint32_t{0}); at != 0) {
      put(line, static_cast<unsigned>(std::countr_zero(at)), now);
      return;
    }
    // Its writer may have stopped between word and check. A check that does not fit for another reason stays so.
    const std::uint32_t first = load(words[0]);
    const std::uint32_t whole = firstWord(words, overflowOf(first));
    const std::uint32_t changed = old ^ now;
    const bool isHalf = (first ^ (changed ^ changed >> 16) << 16) == whole;
    if (isHalf && matches(words, now, ~std::uint32_t{0}) != 0) store(words[0], whole);
    line = overflowOf(first) == 0 ? home : after(line);
  } while (line != home);
}

// How many entries lie behind the line whose home is there or before.
std::uint32_t HashIndexWriter::countOverflow(std::uint32_t line) const {
  const auto distance = [this](std::uint32_t from, std::uint32_t to) {
    return to >= from ? to - from : to + buckets_ - from;
  };
  std::uint32_t count = 0;
  for (std::uint32_t next = line; overflowOf(load(*image_.bucketLine(next))) != 0 && after(next) != line;) {
    next = after(next);
    const std::uint32_t* words = image_.bucketLine(next);
    for (unsigned i = 1; i <= places; ++i) {
      const std::uint32_t word = load(words[i]);
      if (word == 0 || slotOf(word) >= image_.geometry().slots) continue;
      const std::uint32_t home = homeOf(hashOf(image_.keyOf(slotOf(word))));
      if (distance(home, next) >= distance(line, next)) ++count;
    }
  }
  return std::min(count, mostOverflow);
}

bool HashIndexWriter::clear(std::uint32_t first, std::uint32_t count) const {
  const std::uint32_t end = first + std::min(count, buckets_ - first);
  for (std::uint32_t line = first; line < end; ++line) {
    std::uint32_t* words = image_.bucketLine(line);
    for (unsigned i = 1; i <= places; ++i) {
      if (load(words[i]) != 0) store(words[i], std::uint32_t{0});
    }
    store(words[0], firstWord(words, 0));
  }
  return end == buckets_;
}

bool HashIndexWriter::agrees(std::uint64_t live) const {
  std::uint64_t found = 0;
  for (std::uint32_t line = 0; line < buckets_; ++line) {
    const std::uint32_t* words = image_.bucketLine(line);
    if (!lineIsWhole(words)) return false;
    const std::uint32_t overflow = overflowOf(load(words[0]));
    if (overflow != mostOverflow && overflow != countOverflow(line)) return false;
    for (unsigned i = 1; i <= places; ++i) {
      const std::uint32_t word = load(words[i]);
      if (word == 0) continue;
      const std::uint32_t slot = slotOf(word);
      if (slot >= image_.geometry().slots || !isLive(load(image_.version(slot)))) return false;
      if (!isTagged(word, tagOf(hashOf(image_.keyOf(slot))))) return false;
      ++found;
    }
  }
  return found == live;
}

namespace {
void formatState(TableState& state) {
  for (std::uint64_t* word : {&state.headSequence, &state.liveCount, &state.operation, &state.epoch, &state.root,
                              &state.highWater, &state.looseOrder, &state.moving, &state.nodesMoved}) {
    storeNumber(*word, 0);
  }
  for (std::uint64_t& word : state.nodesUsed) storeNumber(word, 0);
  for (std::uint64_t& word : state.heapUsed) storeNumber(word, 0);
}
}  // namespace

bool formatTable(const TableImage& image, std::uint32_t firstLine, std::uint32_t lines) {
  if (firstLine == 0) formatState(image.state());
  return HashIndexWriter(image).clear(firstLine, lines);
}

}  // namespace LinuxPlatform
