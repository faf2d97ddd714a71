#include "lib/tables/ChangeFollower.h"

#include <algorithm>

namespace LinuxPlatform {

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
  if (scanNext_ >= scanEnd_ && sequenceOf(version) <= cursor_) return;  // told of, and remembered
  if (knownLive(entry.slot)) {
    const KeyWords known = knownKey(entry.slot);
    if (same(known, entry.key)) return;
    departed_.push_back(known);
  }
  remember(entry.slot, seenOnly, entry.key);
}

void ChangeFollower::scanAll() {
  scanNext_ = 0;
  scanEnd_ = view_->image().highWater();
}

bool ChangeFollower::pending() const {
  return view_ && (!departed_.empty() || old_ || scanNext_ < scanEnd_ || cursor_ != view_->headSequence());
}

bool ChangeFollower::deliver(const Tell& tell) {
  if (!view_) return true;
  const std::uint64_t until = view_->headSequence();
  return tellDeparted(tell) && tellSlots(tell) && tellGone(tell) && tellRing(until, tell);
}

bool ChangeFollower::tellDeparted(const Tell& tell) {
  while (!departed_.empty()) {
    const KeyWords key = departed_.back();
    departed_.pop_back();
    if (!tell(key, view_->headSequence())) return false;
  }
  return true;
}

// The keys of the replaced table, once all slots of the new one have been looked at: who is not remembered to be there
// now has gone, or has gone and come back.
bool ChangeFollower::tellGone(const Tell& tell) {
  while (old_ && old_->next < old_->told.size()) {
    const std::uint32_t slot = old_->next++;
    if ((old_->told[slot] & 1) == 0) continue;
    const KeyWords key = keyAt(old_->keys, slot);
    Entry found;
    const bool there = view_->findByIndex(key, nullptr, found) == true;
    if (there && knownLive(found.slot) && same(knownKey(found.slot), key)) continue;
    if (!tell(key, view_->headSequence())) return false;
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

bool ChangeFollower::tellSlots(const Tell& tell) {
  while (scanNext_ < scanEnd_) {
    if (!tellSlot(scanNext_++, nullptr, tell)) return false;
  }
  if (old_) old_->comparable = false;  // what has been told since is not what the old table held
  return true;
}

bool ChangeFollower::tellRing(std::uint64_t until, const Tell& tell) {
  const TableImage& image = view_->image();
  const std::uint64_t ringSize = image.geometry().ringSize;
  while (cursor_ != until) {
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
      return tellSlots(tell);
    }
    ++cursor_;
    if (!tellSlot(slot, &changed, tell)) return false;
  }
  return true;
}

bool ChangeFollower::tellSlot(std::uint32_t slot, const KeyWords* changed, const Tell& tell) {
  const TableImage& image = view_->image();
  const bool moved = told(load(image.version(slot))) != (slot < told_.size() ? told_[slot] : 0);
  SlotImage contents;
  bool goOn = true;
  if (moved && image.readSlot(slot, contents)) {
    const std::uint64_t version = contents.version();
    const KeyWords key = image.keyIn(contents);
    const bool wasLive = knownLive(slot);
    const KeyWords before = wasLive ? knownKey(slot) : KeyWords{};
    const bool nowLive = isLive(version);
    remember(slot, told(version), key);
    // All of them are told, whatever `tell` says to the first: the memory has moved on.
    const std::uint64_t sequence = sequenceOf(version);
    if (wasLive && !(nowLive && same(before, key))) goOn = tell(before, sequence) && goOn;
    if (nowLive && !(changed == nullptr && isAsBefore(key))) goOn = tell(key, sequence) && goOn;
    if (changed == nullptr || (wasLive && same(before, *changed)) || (nowLive && same(key, *changed))) return goOn;
  } else if (changed == nullptr || (slot < told_.size() && same(knownKey(slot), *changed))) {
    return true;
  }
  // The key came and went before anybody looked, and another may have the slot.
  return tell(*changed, cursor_) && goOn;
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
