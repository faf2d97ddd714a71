// The FIB process's side of the FIB tables: the one writer of the routes of some VRFs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/tables/Fib.h"

namespace Tools {

// The VRF that the FIB table at this path belongs to; nothing when it is none's.
std::optional<L3::VrfName> vrfOfFibTable(const std::string& path);

// Looks at the tables of both families as a reader until the first change, then holds them as their one writer until
// the table service goes.
class FibWriter {
 public:
  // Told of every entry that is handled.
  using Progress = std::function<void()>;

  // The service outlives the writer. Throws TableError when there is another kind of table at one of the paths.
  FibWriter(Pondra::TableService& tables, const std::vector<L3::VrfName>& vrfs, Progress progress);

  // Writes the prefixes, none of which is there twice, as routes of every VRF, also those that stand already. `type` is
  // the number of their type; nothing: the route-cache type of the family. `capacity` is that of each table; 0 takes
  // what they have, or more where the routes need it. Throws, with no entry written, RangeError when the routes do not
  // fit a given capacity, and TableError when another process is the writer.
  void apply(const std::vector<IpGenPrefix>& prefixes, std::optional<std::uint8_t> type, std::uint32_t capacity = 0);
  // Removes the routes of every VRF that are `doomed`, and returns how many.
  std::size_t remove(const std::function<bool(const IpGenPrefix&)>& doomed);

 private:
  template <class TableType>
  struct FamilyTable {
    std::string path;
    std::shared_ptr<TableType> table;
  };
  struct VrfTables {
    FamilyTable<Pondra::Fib::RouteStatus> ipv4;
    FamilyTable<Pondra::Fib6::RouteStatus> ipv6;
  };

  void writerIs(const std::vector<Prefix>& keys4, const std::vector<Ip6Prefix>& keys6, std::uint32_t capacity);
  template <class TableType>
  void write(TableType& table, const std::vector<typename TableType::Key>& keys, std::optional<std::uint8_t> type);
  template <class TableType>
  std::size_t remove(TableType& table, const std::function<bool(const IpGenPrefix&)>& doomed);

  Pondra::TableService& tables_;
  Progress progress_;
  std::vector<VrfTables> vrfs_;
};

}  // namespace Tools
