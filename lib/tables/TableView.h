// Reading a mapped table: what every process does, the writer's included. Never waits for the writer, trusts no number
// that stands in the file, and always comes to an end.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string_view>

#include "lib/tables/OrderedIndex.h"
#include "lib/tables/TableFormat.h"

namespace LinuxPlatform {

using DamageReport = std::function<void(std::string_view what)>;

// Chains are about one entry long; one longer than this is damaged.
inline constexpr unsigned longestChain = 4096;

// An entry as it was found.
struct Entry {
  std::uint32_t slot = 0;
  SlotSnapshot contents;
  std::size_t size = 0;  // of the value, if it was asked for
};

// Reads go through the indexes. Where these contradict themselves while no writer is at work, or are being rebuilt, the
// slots are searched one by one: slow, but right whatever happened to the indexes.
class TableView {
 public:
  TableView(const TableImage& image, const DamageReport& report) : image_(image), order_(image), report_(&report) {}

  const TableImage& image() const { return image_; }
  std::uint64_t headSequence() const { return load(image_.state().headSequence); }

  // See Pondra::SharedCollection. False: there is none.
  bool find(const KeyWords& key, MutableBytes value, Entry& found) const;
  bool has(const KeyWords& key, Entry& found) const;
  // The same by the index alone: nothing when it contradicts itself. `value` null: not asked for.
  std::optional<bool> findByIndex(const KeyWords& key, const MutableBytes* value, Entry& found) const;
  // `hint` is 0 or the node of the entry that the last call of the walk returned.
  bool seek(const KeyWords& from, bool inclusive, MutableBytes value, std::uint64_t& hint, Entry& found) const;

  enum class ValueRead { whole, changed, damaged };
  // Copies the value of the entry that the snapshot is of; `changed` when the slot has moved on meanwhile.
  ValueRead readValue(std::uint32_t slot, const SlotSnapshot& entry, MutableBytes out, std::size_t& size) const;

 private:
  enum class Outcome { found, absent, contradiction, noIndex };
  using Position = OrderedIndex::Position;

  template <class Attempt>
  Outcome settle(Attempt attempt) const;
  std::uint64_t activity() const;
  Outcome tryFind(const KeyWords& key, const MutableBytes* value, Entry& found) const;
  Outcome trySeek(const KeyWords& from, bool inclusive, MutableBytes value, std::uint32_t hint, Entry& found) const;
  bool startAtHint(const KeyWords& from, bool inclusive, std::uint32_t hint, Position& at) const;
  Outcome nextEntry(Position at, const KeyWords& from, bool inclusive, MutableBytes value, Entry& found) const;
  bool scanFor(const KeyWords& key, const MutableBytes* value, Entry& found) const;
  bool scanFrom(const KeyWords& from, bool inclusive, MutableBytes value, Entry& found) const;

  TableImage image_;
  OrderedIndex order_;
  const DamageReport* report_;
};

}  // namespace LinuxPlatform
