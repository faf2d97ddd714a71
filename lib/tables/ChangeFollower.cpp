#include "lib/tables/ChangeFollower.h"

#include <algorithm>
#include <utility>

namespace LinuxPlatform {

using Pondra::Appetite;

void ChangeFollower::start(const TableView& view) {
  view_ = view;
  cursor_ = view.headSequence();  // first: what changes during the walk is told once more
  forgetAll();
  const TableImage& image = view.image();
  const std::uint32_t end = image.highWater();
  known_.sizeIs(end);
  SlotImage contents;
  for (std::uint32_t slot = 0; slot < end; ++slot) {
    // A slot that keeps changing has changes after the cursor.
    if (image.readSlot(slot, contents) && isLive(contents.version())) {
      remember(slot, told(contents.version()), image.keyIn(contents));
    }
  }
  slotsAreSeen();
}

void ChangeFollower::restart(const TableView& view) {
  view_ = view;
  forgetAll();
  cursor_ = view.headSequence();
  scan_ = nextRound_ = {};
  scanAll();
}

void ChangeFollower::restart(const TableView& view, const TableView& old, std::shared_ptr<const void> keep) {
  // Replaced again before it was looked through: nobody knows what has been told of it, so everything is.
  const auto depart = [this](const SlotMemory& known) {
    for (std::uint32_t slot = 0; slot < known.size(); ++slot) {
      if (isLiveIn(known, slot)) departed_.push_back(keyIn(known, slot));
    }
  };
  if (old_) {
    depart(old_->known);
    depart(known_);
    old_.reset();
  } else {
    const std::size_t valueSize = view.image().geometry().maxValueSize;
    old_ = Predecessor{old, std::move(keep), std::exchange(known_, SlotMemory(1)), 0, true, {}, {}};
    old_->value.resize(valueSize);
    old_->oldValue.resize(valueSize);
  }
  restart(view);
}

void ChangeFollower::forgetAll() {
  known_ = SlotMemory(1 + view_->image().geometry().keyWordCount);
}

void ChangeFollower::seen(const Entry& entry) {
  const std::uint64_t version = entry.version;
  if (scan_.empty() && sequenceOf(version) <= cursor_) return;  // told of, and remembered
  if (knownLive(entry.slot)) {
    const KeyWords known = knownKey(entry.slot);
    if (same(known, entry.key)) return;
    departed_.push_back(known);
  }
  remember(entry.slot, seenOnly, entry.key);
}

void ChangeFollower::scanAll() {
  slotsAreSeen();
  const std::uint32_t end = std::max(view_->image().highWater(), known_.size());
  // Who is overrun again and again gets through all slots nevertheless: a round that is under way goes on.
  if (scan_.empty()) {
    scan_ = {0, end};
  } else {
    nextRound_ = {0, scan_.next};
    scan_.end = end;
  }
}

void ChangeFollower::scanLater(std::uint32_t slot) {
  (scan_.empty() || slot >= scan_.next ? scan_ : nextRound_).add(slot);
}

bool ChangeFollower::pending() const {
  return view_ && (!departed_.empty() || old_ || !scan_.empty() || cursor_ != view_->headSequence() || isTooLong());
}

void ChangeFollower::deliver(Listener& listener) {
  if (!view_) return;
  const std::uint64_t until = view_->headSequence();
  if (!tellDeparted(listener)) return;
  const bool scanned = tellSlots(listener);
  if (old_ && (!scanned || !tellGone(listener))) return;
  tellRing(until, listener);
  if (scan_.empty() && departed_.empty() && isTooLong()) forgetBeyond();
}

bool ChangeFollower::tellDeparted(Listener& listener) {
  while (!departed_.empty()) {
    if (listener.appetite() == Appetite::nothing) return false;
    const KeyWords key = departed_.back();
    departed_.pop_back();
    listener.keyChanged(key, view_->headSequence());
  }
  return true;
}

// The keys of the replaced table, once all slots of the new one have been looked at: who is not remembered to be there
// now has gone, or has gone and come back.
bool ChangeFollower::tellGone(Listener& listener) {
  while (old_->next < old_->known.size()) {
    if (listener.appetite() == Appetite::nothing) return false;
    const std::uint32_t slot = old_->next++;
    if (!isLiveIn(old_->known, slot)) continue;
    const KeyWords key = keyIn(old_->known, slot);
    Entry found;
    const bool there = view_->findByIndex(key, nullptr, found) == true;
    if (!there || !knownLive(found.slot) || !same(knownKey(found.slot), key)) {
      listener.keyChanged(key, view_->headSequence());
    }
  }
  old_.reset();
  return true;
}

// Whether the table that was replaced held the same under the key, and its last change had been told.
bool ChangeFollower::isAsBefore(const KeyWords& key) {
  if (!old_ || !old_->comparable) return false;
  Entry before, now;
  const MutableBytes oldValue(old_->oldValue), value(old_->value);
  const auto inOld = old_->view.findByIndex(key, &oldValue, before);
  const auto inNew = view_->findByIndex(key, &value, now);
  old_->comparable = inOld && inNew;  // an index that contradicts itself is not asked again and again
  if (!old_->comparable || !*inOld || !*inNew || before.slot >= old_->known.size()) return false;
  const auto size = static_cast<std::ptrdiff_t>(now.size);
  return *old_->known[before.slot] == told(before.version) && before.size == now.size &&
         std::equal(value.begin(), value.begin() + size, oldValue.begin());
}

bool ChangeFollower::tellSlots(Listener& listener) {
  constexpr std::uint32_t slotsPerLook = 512;  // most of them have nothing to tell
  for (std::uint32_t looked = 0; !scan_.empty(); ++looked) {
    const std::uint32_t slot = scan_.next;
    const bool asks = looked % slotsPerLook == 0 || isUntold(slot);
    if (asks && listener.appetite() != Appetite::everything) return false;
    ++scan_.next;
    if (scan_.empty()) scan_ = std::exchange(nextRound_, {});
    tellSlot(slot, nullptr, listener);
    slotsAreSeen();
  }
  return true;
}

void ChangeFollower::tellRing(std::uint64_t until, Listener& listener) {
  const TableImage& image = view_->image();
  const std::uint64_t ringSize = image.geometry().ringSize;
  while (cursor_ != until) {
    const Appetite appetite = listener.appetite();
    if (appetite == Appetite::nothing) return;
    const std::uint64_t* entry = image.ring(cursor_ + 1);
    const std::uint64_t word = load(*entry);
    const std::uint32_t slot = ringSlot(word);
    const KeyWords changed = image.loadKey(entry + 1);
    const std::uint64_t head = view_->headSequence();
    const std::uint64_t whole =
        ringWord(static_cast<std::uint32_t>(word), changed, image.geometry().keyWordCount, cursor_ + 1);
    const bool damaged = head < cursor_ || slot >= image.geometry().slots || word != whole;
    // The writer may be filling the place after the head's, which is that of the change ringSize before it.
    if (damaged || head - cursor_ >= ringSize) {
      if (damaged && head - cursor_ < ringSize) (*report_)("the change ring is damaged");
      cursor_ = head;
      scanAll();
      tellSlots(listener);
      return;
    }
    ++cursor_;
    // What has been passed over may have moved before it was told.
    if (isMove(word) && scan_.empty() && cursor_ > scannedUntil_ && moveIsNoted(slot, changed)) continue;
    if (appetite != Appetite::everything && !isMove(word) && isNew(slot, changed)) {
      scanLater(slot);
    } else {
      tellSlot(slot, &changed, listener);
    }
  }
}

// The key's entry, or its value, has moved: what there was to tell of it has been told, and the slot that it came from
// is still remembered under its key. False: not so, for another key was known to be here, or more has changed since.
bool ChangeFollower::moveIsNoted(std::uint32_t slot, const KeyWords& key) {
  SlotImage contents;
  if (!look(slot, contents) || !view_->image().hasKey(contents, key) || !isLive(contents.version())) return false;
  if (sequenceOf(contents.version()) != cursor_) return false;
  if (knownLive(slot) && !same(knownKey(slot), key)) return false;
  remember(slot, told(contents.version()), key);
  return true;
}

// Beyond the mark there is nothing, and nobody looks: that would make the pages come back.
bool ChangeFollower::look(std::uint32_t slot, SlotImage& contents) const {
  contents = {};
  return slot >= view_->image().highWater() || view_->image().readSlot(slot, contents);
}

std::uint64_t ChangeFollower::versionOf(std::uint32_t slot) const {
  return slot < view_->image().highWater() ? load(view_->image().version(slot)) : 0;
}

// Whether the table has become much smaller.
bool ChangeFollower::isTooLong() const {
  constexpr std::uint32_t leastGain = 8192;
  return known_.size() >= leastGain && known_.size() / 2 > view_->image().highWater();
}

// Once everything has been told, what is remembered beyond the mark has gone or moved. The mark is asked for first: a
// change that has moved it since shows in the head.
void ChangeFollower::forgetBeyond() {
  const std::uint32_t end = view_->image().highWater();
  if (cursor_ != view_->headSequence()) return;
  known_.sizeIs(end);
  forgotten_ = true;
}

// An entry that is there, in a slot of which none was known: nobody misses it yet.
bool ChangeFollower::isNew(std::uint32_t slot, const KeyWords& changed) const {
  SlotImage contents;
  return !knownLive(slot) && look(slot, contents) && isLive(contents.version()) &&
         same(view_->image().keyIn(contents), changed);
}

void ChangeFollower::tellSlot(std::uint32_t slot, const KeyWords* changed, Listener& listener) {
  const TableImage& image = view_->image();
  SlotImage contents;
  if (isUntold(slot) && look(slot, contents)) {
    const std::uint64_t version = contents.version();
    const KeyWords key = image.keyIn(contents);
    const bool wasLive = knownLive(slot);
    const KeyWords before = wasLive ? knownKey(slot) : KeyWords{};
    const bool nowLive = isLive(version);
    // A look at a slot has the slot's own key; the ring has the key that changed, which may have come and gone before
    // anybody looked: that one is told below, and remembered, for it may be known from the slot that it moved from.
    remember(slot, told(version), nowLive || changed == nullptr ? key : *changed);
    // All of them are told, whatever the listener wants after the first: the memory has moved on.
    const std::uint64_t sequence = sequenceOf(version);
    if (wasLive && !(nowLive && same(before, key))) listener.keyChanged(before, sequence);
    if (nowLive && !(changed == nullptr && isAsBefore(key))) listener.keyChanged(key, sequence);
    if (changed == nullptr || (wasLive && same(before, *changed)) || (nowLive && same(key, *changed))) return;
  } else if (changed == nullptr || (toldOf(slot) != 0 && same(knownKey(slot), *changed))) {
    return;
  }
  // The key came and went before anybody looked, and another may have the slot.
  listener.keyChanged(*changed, cursor_);
}

void ChangeFollower::remember(std::uint32_t slot, std::uint64_t toldNow, const KeyWords& key) {
  if (slot >= known_.size()) known_.sizeIs(slot + 1);
  std::uint64_t* const words = known_[slot];
  words[0] = toldNow;
  std::copy_n(key.words.begin(), view_->image().geometry().keyWordCount, words + 1);
}

KeyWords ChangeFollower::keyIn(const SlotMemory& known, std::uint32_t slot) const {
  KeyWords key;
  std::copy_n(known[slot] + 1, view_->image().geometry().keyWordCount, key.words.begin());
  return key;
}

}  // namespace LinuxPlatform
