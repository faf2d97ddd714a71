// How a command that writes tables comes by them: it looks at them as a reader first, so that a change which cannot be
// made leaves everything as it was, and then becomes their writer with a capacity that holds the change.
#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>

#include "platform/tables/SharedTable.h"

namespace Tools {

// The table of this type at the path for reading; empty when there is none yet. Throws TableError when there is
// another.
template <class T>
std::shared_ptr<T> mountToRead(Pondra::TableService& tables, const std::string& path) {
  tables.mount(path, T::typeName, Pondra::MountKind::keyedReader);
  return tables.get<T>(path);
}

// The table as its writer. One that does not exist and gets no entries (a capacity of 0) is left alone: it stays an
// empty reader's table. Throws TableError when another process is the writer.
template <class T>
void mountToWrite(Pondra::TableService& tables, const std::string& path, std::shared_ptr<T>& table,
                  std::uint32_t capacity) {
  if (!table->mounted() && capacity == 0) return;
  table.reset();
  tables.unmount(path);
  tables.mount(path, T::typeName, Pondra::MountKind::writer, Pondra::CollectionInfo{T::collectionName, capacity});
  table = tables.get<T>(path);
}

// What a command leaves behind is what the table should hold.
template <class T>
void reconcile(T& table) {
  if (table.writable()) table.reconciledIs();
}

// The capacity for a table that gets these keys (none twice): the one given, else the one it has; more, with some room
// to grow, when none is given (0) and that is not enough. 0 for a table that does not exist and gets nothing. Throws
// RangeError when a given capacity is too small.
template <class T, class Keys>
std::uint32_t capacityFor(const T& table, const Keys& keys, std::uint32_t given, const std::string& path) {
  const auto present = static_cast<std::uint32_t>(table.capacity());
  if (keys.empty()) return present;
  const std::uint32_t limit = given != 0 ? given : present;
  std::uint64_t needed = table.size() + keys.size();
  if (needed > limit) {
    for (const auto& key : keys) needed -= table.has(key) ? 1U : 0U;
  }
  if (needed <= limit) return limit;
  if (given != 0) {
    throw RangeError(path + ": a capacity of " + std::to_string(given) + " does not hold " + std::to_string(needed) +
                     " entries");
  }
  return static_cast<std::uint32_t>(std::max<std::uint64_t>(1024, needed + needed / 8));
}

}  // namespace Tools
