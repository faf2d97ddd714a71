#include "linux/SharedTableFollower.h"

#include <algorithm>

namespace LinuxPlatform {

void ChangeFollower::start(const TableView& view) {
  view_ = view;
  cursor_ = view.headSequence();  // first: what changes during the walk is told once more
  forgetAll();
  SlotSnapshot contents;
  const std::uint32_t end = view.image().highWater();
  for (std::uint32_t slot = 0; slot < end; ++slot) {
    // A slot that keeps changing has changes after the cursor.
    if (isLive(load(view.image().version(slot))) && view.readSlot(slot, contents)) {
      remember(slot, told(contents.version), contents.key);
    }
  }
}

void ChangeFollower::restart(const TableView& view) {
  for (std::uint32_t slot = 0; slot < told_.size(); ++slot) {
    if (knownLive(slot)) departed_.push_back(knownKey(slot));
  }
  view_ = view;
  forgetAll();
  cursor_ = view.headSequence();
  scanAll();
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
  const std::uint64_t version = entry.contents.version;
  if (scanNext_ >= scanEnd_ && sequenceOf(version) <= cursor_) return;  // told of, and remembered
  if (knownLive(entry.slot)) {
    const KeyWords known = knownKey(entry.slot);
    if (same(known, entry.contents.key)) return;
    departed_.push_back(known);
  }
  remember(entry.slot, seenOnly, entry.contents.key);
}

void ChangeFollower::scanAll() {
  scanNext_ = 0;
  scanEnd_ = view_->image().highWater();
}

bool ChangeFollower::pending() const {
  return view_ && (!departed_.empty() || scanNext_ < scanEnd_ || cursor_ != view_->headSequence());
}

bool ChangeFollower::deliver(const Tell& tell) {
  if (!view_) return true;
  const std::uint64_t until = view_->headSequence();
  return tellDeparted(tell) && tellSlots(tell) && tellRing(until, tell);
}

bool ChangeFollower::tellDeparted(const Tell& tell) {
  while (!departed_.empty()) {
    const KeyWords key = departed_.back();
    departed_.pop_back();
    if (!tell(key, view_->headSequence())) return false;
  }
  return true;
}

bool ChangeFollower::tellSlots(const Tell& tell) {
  while (scanNext_ < scanEnd_) {
    if (!tellSlot(scanNext_++, nullptr, tell)) return false;
  }
  return true;
}

bool ChangeFollower::tellRing(std::uint64_t until, const Tell& tell) {
  const TableImage& image = view_->image();
  const std::uint64_t ringSize = image.geometry().ringSize;
  while (cursor_ != until) {
    const std::uint64_t* entry = image.ring(cursor_ + 1);
    const std::uint64_t slot = load(*entry);
    const KeyWords changed = image.loadKey(entry + 1);
    const std::uint64_t head = view_->headSequence();
    const bool damaged = slot >= image.geometry().slots || head < cursor_;
    // The writer may be filling the place after the head's, which is that of the change ringSize before it.
    if (damaged || head - cursor_ >= ringSize) {
      if (damaged) (*report_)("the change ring is damaged");
      cursor_ = head;
      scanAll();
      return tellSlots(tell);
    }
    ++cursor_;
    if (!tellSlot(static_cast<std::uint32_t>(slot), &changed, tell)) return false;
  }
  return true;
}

bool ChangeFollower::tellSlot(std::uint32_t slot, const KeyWords* changed, const Tell& tell) {
  SlotSnapshot now;
  now.version = load(view_->image().version(slot));
  const bool moved = told(now.version) != (slot < told_.size() ? told_[slot] : 0);
  bool goOn = true;
  if (moved && view_->readSlot(slot, now)) {
    const bool wasLive = knownLive(slot);
    const KeyWords before = wasLive ? knownKey(slot) : KeyWords{};
    const bool nowLive = isLive(now.version);
    remember(slot, told(now.version), now.key);
    // All of them are told, whatever `tell` says to the first: the memory has moved on.
    const std::uint64_t sequence = sequenceOf(now.version);
    if (wasLive && !(nowLive && same(before, now.key))) goOn = tell(before, sequence) && goOn;
    if (nowLive) goOn = tell(now.key, sequence) && goOn;
    if (changed == nullptr || (wasLive && same(before, *changed)) || (nowLive && same(now.key, *changed))) return goOn;
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

KeyWords ChangeFollower::knownKey(std::uint32_t slot) const {
  const unsigned words = view_->image().geometry().keyWordCount;
  KeyWords key;
  std::copy_n(keys_.begin() + static_cast<std::ptrdiff_t>(std::size_t{slot} * words), words, key.words.begin());
  return key;
}

}  // namespace LinuxPlatform
