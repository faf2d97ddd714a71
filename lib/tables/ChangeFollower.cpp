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
  told_.resize(end);
  keys_.resize(std::size_t{end} * image.geometry().keyWordCount);
  SlotImage contents;
  for (std::uint32_t slot = 0; slot < end; ++slot) {
    // A slot that keeps changing has changes after the cursor.
    if (image.readSlot(slot, contents) && isLive(contents.version())) {
      remember(slot, told(contents.version()), image.keyIn(contents));
    }
  }
}

void ChangeFollower::restart(const TableView& view) {
  view_ = view;
  forgetAll();
  cursor_ = view.headSequence();
  scanAll();
}

void ChangeFollower::restart(const TableView& view, const TableView& old, std::shared_ptr<const void> keep) {
  // Replaced again before it was looked through: nobody knows what has been told of it, so everything is.
  const auto depart = [this](const std::vector<std::uint64_t>& told, const std::vector<std::uint64_t>& keys) {
    for (std::uint32_t slot = 0; slot < told.size(); ++slot) {
      if ((told[slot] & 1) != 0) departed_.push_back(keyAt(keys, slot));
    }
  };
  if (old_) {
    depart(old_->told, old_->keys);
    depart(told_, keys_);
    old_.reset();
  } else {
    const std::size_t valueSize = view.image().geometry().maxValueSize;
    old_ = Predecessor{old, std::move(keep), std::exchange(told_, {}), std::exchange(keys_, {}), 0, true, {}, {}};
    old_->value.resize(valueSize);
    old_->oldValue.resize(valueSize);
  }
  restart(view);
}

// Room for every slot there can be is taken at once: memory that is not touched costs nothing, and growing later would
// copy all of it in one go.
void ChangeFollower::forgetAll() {
  const TableGeometry& geometry = view_->image().geometry();
  told_.clear();
  keys_.clear();
  told_.reserve(geometry.slots);
  keys_.reserve(std::size_t{geometry.slots} * geometry.keyWordCount);
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
  scan_ = {0, view_->image().highWater()};
  nextRound_ = {};
}

void ChangeFollower::scanLater(std::uint32_t slot) {
  (scan_.empty() || slot >= scan_.next ? scan_ : nextRound_).add(slot);
}

bool ChangeFollower::pending() const {
  return view_ && (!departed_.empty() || old_ || !scan_.empty() || cursor_ != view_->headSequence());
}

void ChangeFollower::deliver(Listener& listener) {
  if (!view_) return;
  const std::uint64_t until = view_->headSequence();
  if (!tellDeparted(listener)) return;
  const bool scanned = tellSlots(listener);
  if (old_ && (!scanned || !tellGone(listener))) return;
  tellRing(until, listener);
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
  while (old_->next < old_->told.size()) {
    if (listener.appetite() == Appetite::nothing) return false;
    const std::uint32_t slot = old_->next++;
    if ((old_->told[slot] & 1) == 0) continue;
    const KeyWords key = keyAt(old_->keys, slot);
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
  if (!old_->comparable || !*inOld || !*inNew || before.slot >= old_->told.size()) return false;
  const auto size = static_cast<std::ptrdiff_t>(now.size);
  return old_->told[before.slot] == told(before.version) && before.size == now.size &&
         std::equal(value.begin(), value.begin() + size, oldValue.begin());
}

bool ChangeFollower::tellSlots(Listener& listener) {
  constexpr std::uint32_t slotsPerLook = 512;  // most of them have nothing to tell
  for (std::uint32_t looked = 0; !scan_.empty(); ++looked) {
    const std::uint32_t slot = scan_.next;
    const bool asks = looked % slotsPerLook == 0 || hasMoved(slot);
    if (asks && listener.appetite() != Appetite::everything) return false;
    ++scan_.next;
    tellSlot(slot, nullptr, listener);
    if (scan_.empty()) scan_ = std::exchange(nextRound_, {});
  }
  if (old_) old_->comparable = false;  // what has been told since is not what the old table held
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
    const auto slot = static_cast<std::uint32_t>(word);
    const KeyWords changed = image.loadKey(entry + 1);
    const std::uint64_t head = view_->headSequence();
    const bool damaged = head < cursor_ || slot >= image.geometry().slots ||
                         word != ringWord(slot, changed, image.geometry().keyWordCount, cursor_ + 1);
    // The writer may be filling the place after the head's, which is that of the change ringSize before it.
    if (damaged || head - cursor_ >= ringSize) {
      if (damaged && head - cursor_ < ringSize) (*report_)("the change ring is damaged");
      cursor_ = head;
      scanAll();
      tellSlots(listener);
      return;
    }
    ++cursor_;
    if (appetite != Appetite::everything && isNew(slot, changed)) {
      scanLater(slot);
    } else {
      tellSlot(slot, &changed, listener);
    }
  }
}

bool ChangeFollower::hasMoved(std::uint32_t slot) const {
  return told(load(view_->image().version(slot))) != (slot < told_.size() ? told_[slot] : 0);
}

// An entry that is there, in a slot of which none was known: nobody misses it yet.
bool ChangeFollower::isNew(std::uint32_t slot, const KeyWords& changed) const {
  SlotImage contents;
  const TableImage& image = view_->image();
  return !knownLive(slot) && image.readSlot(slot, contents) && isLive(contents.version()) &&
         same(image.keyIn(contents), changed);
}

void ChangeFollower::tellSlot(std::uint32_t slot, const KeyWords* changed, Listener& listener) {
  const TableImage& image = view_->image();
  SlotImage contents;
  if (hasMoved(slot) && image.readSlot(slot, contents)) {
    const std::uint64_t version = contents.version();
    const KeyWords key = image.keyIn(contents);
    const bool wasLive = knownLive(slot);
    const KeyWords before = wasLive ? knownKey(slot) : KeyWords{};
    const bool nowLive = isLive(version);
    remember(slot, told(version), key);
    // All of them are told, whatever the listener wants after the first: the memory has moved on.
    const std::uint64_t sequence = sequenceOf(version);
    if (wasLive && !(nowLive && same(before, key))) listener.keyChanged(before, sequence);
    if (nowLive && !(changed == nullptr && isAsBefore(key))) listener.keyChanged(key, sequence);
    if (changed == nullptr || (wasLive && same(before, *changed)) || (nowLive && same(key, *changed))) return;
  } else if (changed == nullptr || (slot < told_.size() && same(knownKey(slot), *changed))) {
    return;
  }
  // The key came and went before anybody looked, and another may have the slot.
  listener.keyChanged(*changed, cursor_);
}

void ChangeFollower::remember(std::uint32_t slot, std::uint64_t toldNow, const KeyWords& key) {
  const unsigned words = view_->image().geometry().keyWordCount;
  if (slot >= told_.size()) {
    told_.resize(std::size_t{slot} + 1);
    keys_.resize((std::size_t{slot} + 1) * words);
  }
  told_[slot] = toldNow;
  std::copy_n(key.words.begin(), words, keys_.begin() + static_cast<std::ptrdiff_t>(std::size_t{slot} * words));
}

KeyWords ChangeFollower::keyAt(const std::vector<std::uint64_t>& keys, std::uint32_t slot) const {
  const unsigned words = view_->image().geometry().keyWordCount;
  KeyWords key;
  std::copy_n(keys.begin() + static_cast<std::ptrdiff_t>(std::size_t{slot} * words), words, key.words.begin());
  return key;
}

}  // namespace LinuxPlatform
