// Reading a mapped table: what every process does, the writer's included. Never waits for the writer, trusts no number
// that stands in the file, and always comes to an end.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string_view>
#include <utility>
#include <vector>

#include "lib/tables/HashIndex.h"
#include "lib/tables/RadixOrder.h"
#include "lib/tables/TableFormat.h"

namespace LinuxPlatform {

using DamageReport = std::function<void(std::string_view what)>;

// An entry as it was found.
struct Entry {
  std::uint32_t slot = 0;
  std::uint64_t version = 0;
  KeyWords key;
  std::size_t size = 0;  // of the value
};

// Where a walk stands: what it has read ahead. Never wrong, only useless: of one table's walk, to be thrown away with
// it.
struct WalkCursor {
  std::uint64_t view = 0;  // whose numbers these are; 0: nothing has been read ahead
  std::uint64_t head = 0;  // the table's changes when it was
  unsigned next = 0;
  unsigned ahead = 0;  // how far the last reading ahead went; the next one goes further
  RadixOrder::Batch batch;
};

// Reads go through the indexes. Where these contradict themselves while no writer is at work, or are being rebuilt, the
// slots are put in order once and searched: slow, but right whatever happened to the indexes. A check that does not fit
// counts as a contradiction: where a writer has stopped in the middle of a change, too, which leaves one line or one
// node so. A view and its copies are one thread's.
class TableView {
 public:
  TableView(const TableImage& image, const DamageReport& report);

  const TableImage& image() const { return image_; }
  std::uint64_t headSequence() const { return loadNumber(image_.state().headSequence); }
  // Entries, as the table counts them; never more than it has slots.
  std::uint32_t size() const;

  // See Pondra::SharedCollection. False: there is none. `found.size` bytes of `value` are set.
  bool find(const KeyWords& key, MutableBytes value, Entry& found) const;
  bool has(const KeyWords& key, Entry& found) const;
  // The same by the index alone: nothing when it contradicts itself. `value` null: not asked for.
  std::optional<bool> findByIndex(const KeyWords& key, const MutableBytes* value, Entry& found) const;
  // Asks memory for all that looking these keys up takes, so that one does not wait for the other.
  void expect(std::span<const KeyWords> keys) const;
  // Whether the indexes have contradicted themselves since this was last asked.
  bool takeContradiction() const { return std::exchange(contradicted_, false); }
  // `from` is no part of `found`.
  bool seek(const KeyWords& from, bool inclusive, MutableBytes value, WalkCursor& cursor, Entry& found) const;

  enum class ValueRead : std::uint8_t { whole, changed, damaged };
  // Copies the value of the live entry that the image is of; `changed` when the slot has moved on meanwhile. `out`
  // empty: only looks whether it is whole.
  ValueRead readValue(std::uint32_t slot, const SlotImage& entry, MutableBytes out, std::size_t& size) const;

 private:
  enum class Outcome : std::uint8_t { found, absent, contradiction, noIndex };
  struct Activity;
  struct InOrder;

  template <class ValueWord>
  ValueRead judge(const SlotImage& entry, std::size_t size, ValueWord word) const;
  template <class Attempt>
  Outcome settle(Attempt attempt) const;
  Activity activity() const;
  std::uint64_t epoch() const { return load(image_.state().epoch); }
  static bool indexesStand(std::uint64_t epoch) { return isSound(epoch) && (epoch & 1) == 0; }
  template <class Call>
  auto forKeyWords(Call call) const;
  template <unsigned keyWordCount>
  Outcome glance(const KeyWords& key, MutableBytes value, Entry& found) const;
  Outcome glance(const KeyWords& key, MutableBytes value, Entry& found) const;
  template <unsigned keyWordCount>
  Outcome step(const KeyWords& past, MutableBytes value, WalkCursor& cursor, Entry& found) const;
  Outcome step(const KeyWords& past, MutableBytes value, WalkCursor& cursor, Entry& found) const;
  template <unsigned keyWordCount>
  Outcome take(const std::uint64_t* words, MutableBytes value, Entry& found) const;
  bool seekClosely(const KeyWords& from, bool inclusive, MutableBytes value, WalkCursor& cursor, Entry& found) const;
  Outcome readEntry(std::uint32_t slot, MutableBytes value, Entry& found) const;
  bool findClosely(const KeyWords& key, const MutableBytes* value, Entry& found) const;
  Outcome tryFind(const KeyWords& key, const MutableBytes* value, Entry& found) const;
  std::optional<Outcome> tryPlace(std::uint32_t slot, const KeyWords& key, const MutableBytes* value,
                                  Entry& found) const;
  Outcome trySeek(const KeyWords& from, bool inclusive, MutableBytes value, WalkCursor& cursor, Entry& found) const;
  bool isOutdated(const KeyWords& from, WalkCursor& cursor) const;
  bool mayHaveMoved(const SlotImage& here, const KeyWords& past, bool inclusive, WalkCursor& cursor) const;
  bool readAhead(const KeyWords& from, bool inclusive, WalkCursor& cursor) const;
  Outcome tryEntry(std::uint32_t slot, const SlotImage& here, const MutableBytes* value, Entry& found) const;
  void reportEntry(std::uint32_t slot) const;
  void lookAtPassed(std::uint32_t slot, const SlotImage& here) const;
  const InOrder& inOrder() const;
  bool bringUpToDate(InOrder& known) const;
  bool scanFor(const KeyWords& key, const MutableBytes* value, Entry& found) const;
  bool scanFrom(const KeyWords& from, bool inclusive, MutableBytes value, Entry& found) const;
  bool scanAt(std::uint32_t slot, const KeyWords& key, MutableBytes value, Entry& found) const;

  TableImage image_;
  HashIndex hash_;
  RadixOrder order_;
  const DamageReport* report_;
  std::uint64_t id_;
  mutable std::vector<std::byte> scratch_;    // a value that only its check is wanted of
  mutable std::shared_ptr<InOrder> inOrder_;  // while the indexes are of no use
  mutable std::uint64_t standing_ = 1;        // an epoch's word by which the indexes stood; odd: none yet
  mutable bool contradicted_ = false;
};

}  // namespace LinuxPlatform
