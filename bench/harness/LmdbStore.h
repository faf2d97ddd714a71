// LMDB as the benchmarks use it: the tuning that favours it most among those that keep readers consistent. Nothing is
// synced, pages are written in place, writes share transactions.
#pragma once

#include <lmdb.h>

#include <cstddef>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>

#include "bench/harness/EncodedValue.h"

namespace Bench {

class LmdbError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// One environment with its databases. Every operation throws LmdbError when LMDB reports a fault.
class LmdbStore {
 public:
  using Bytes = std::span<const std::byte>;
  static constexpr unsigned usualWritesPerTransaction = 4096;
  static constexpr unsigned readsPerTransaction = 4096;

  // In an existing directory, at most `mapSize` bytes in size.
  LmdbStore(const std::string& directory, std::size_t mapSize,
            unsigned writesPerTransaction = usualWritesPerTransaction);
  ~LmdbStore();
  LmdbStore(const LmdbStore&) = delete;
  LmdbStore& operator=(const LmdbStore&) = delete;

  // Makes the database when it is missing. Not while writes are open.
  MDB_dbi database(const char* name);

  // Within the open write transaction, which is committed after so many writes.
  void put(MDB_dbi database, Bytes key, Bytes value);
  bool erase(MDB_dbi database, Bytes key);
  // The entry that a shared table would have of the value.
  template <class Value>
  void putValue(MDB_dbi database, const Value& value) {
    const EncodedValue<Value> encoded(value);
    put(database, encoded.key(), encoded.bytes());
  }
  void commit();

  // By a reader's transaction, which goes over to the newest state after so many reads: the bytes last until the next
  // call.
  std::optional<Bytes> get(MDB_dbi database, Bytes key);
  // Every entry in key order, in one reader's transaction of its own: visit(key, value), both Bytes.
  template <class Visit>
  void walk(MDB_dbi database, Visit visit) {
    Walk walk(environment_, database);
    for (bool first = true; walk.step(first); first = false) visit(walk.key(), walk.value());
  }
  // The reader looks at the newest state from now on.
  void refresh();

 private:
  class Walk {
   public:
    Walk(MDB_env* environment, MDB_dbi database);
    ~Walk();
    Walk(const Walk&) = delete;
    Walk& operator=(const Walk&) = delete;
    bool step(bool first);  // false: no more
    Bytes key() const { return {static_cast<const std::byte*>(key_.mv_data), key_.mv_size}; }
    Bytes value() const { return {static_cast<const std::byte*>(value_.mv_data), value_.mv_size}; }

   private:
    MDB_txn* transaction_ = nullptr;
    MDB_cursor* cursor_ = nullptr;
    MDB_val key_{};
    MDB_val value_{};
  };

  MDB_txn* writing();
  MDB_txn* reading();
  void written();

  MDB_env* environment_ = nullptr;
  MDB_txn* writer_ = nullptr;
  MDB_txn* reader_ = nullptr;
  bool readerLooks_ = false;
  unsigned writesPerTransaction_;
  unsigned writes_ = 0;
  unsigned reads_ = 0;
};

}  // namespace Bench
