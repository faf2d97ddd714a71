#include "bench/harness/LmdbStore.h"

#include <utility>

namespace Bench {

namespace {

void checked(int result, const char* operation) {
  if (result != MDB_SUCCESS) throw LmdbError(std::string(operation) + ": " + mdb_strerror(result));
}

MDB_val value(LmdbStore::Bytes bytes) {
  return {bytes.size(), const_cast<std::byte*>(bytes.data())};
}

LmdbStore::Bytes bytes(const MDB_val& value) {
  return {static_cast<const std::byte*>(value.mv_data), value.mv_size};
}

}  // namespace

LmdbStore::LmdbStore(const std::string& directory, std::size_t mapSize, unsigned writesPerTransaction)
    : writesPerTransaction_(writesPerTransaction) {
  checked(mdb_env_create(&environment_), "mdb_env_create");
  checked(mdb_env_set_mapsize(environment_, mapSize), "mdb_env_set_mapsize");
  checked(mdb_env_set_maxdbs(environment_, 8), "mdb_env_set_maxdbs");
  checked(mdb_env_open(environment_, directory.c_str(), MDB_WRITEMAP | MDB_NOSYNC | MDB_MAPASYNC | MDB_NOTLS, 0644),
          "mdb_env_open");
}

LmdbStore::~LmdbStore() {
  if (writer_ != nullptr) mdb_txn_abort(writer_);
  if (reader_ != nullptr) mdb_txn_abort(reader_);
  mdb_env_close(environment_);
}

MDB_dbi LmdbStore::database(const char* name) {
  MDB_txn* transaction = nullptr;
  MDB_dbi database = 0;
  checked(mdb_txn_begin(environment_, nullptr, 0, &transaction), "mdb_txn_begin");
  checked(mdb_dbi_open(transaction, name, MDB_CREATE, &database), "mdb_dbi_open");
  checked(mdb_txn_commit(transaction), "mdb_txn_commit");
  return database;
}

MDB_txn* LmdbStore::writing() {
  if (writer_ == nullptr) checked(mdb_txn_begin(environment_, nullptr, 0, &writer_), "mdb_txn_begin");
  return writer_;
}

void LmdbStore::written() {
  if (++writes_ == writesPerTransaction_) commit();
}

void LmdbStore::commit() {
  writes_ = 0;
  if (writer_ != nullptr) checked(mdb_txn_commit(std::exchange(writer_, nullptr)), "mdb_txn_commit");
}

void LmdbStore::put(MDB_dbi database, Bytes key, Bytes stored) {
  MDB_val keyValue = value(key);
  MDB_val storedValue = value(stored);
  checked(mdb_put(writing(), database, &keyValue, &storedValue, 0), "mdb_put");
  written();
}

bool LmdbStore::erase(MDB_dbi database, Bytes key) {
  MDB_val keyValue = value(key);
  const int result = mdb_del(writing(), database, &keyValue, nullptr);
  if (result == MDB_NOTFOUND) return false;
  checked(result, "mdb_del");
  written();
  return true;
}

void LmdbStore::refresh() {
  if (readerLooks_) mdb_txn_reset(reader_);
  readerLooks_ = false;
  reads_ = 0;
}

MDB_txn* LmdbStore::reading() {
  if (++reads_ > readsPerTransaction) refresh();
  if (reader_ == nullptr) {
    checked(mdb_txn_begin(environment_, nullptr, MDB_RDONLY, &reader_), "mdb_txn_begin");
  } else if (!readerLooks_) {
    checked(mdb_txn_renew(reader_), "mdb_txn_renew");
  }
  readerLooks_ = true;
  return reader_;
}

std::optional<LmdbStore::Bytes> LmdbStore::get(MDB_dbi database, Bytes key) {
  MDB_val keyValue = value(key);
  MDB_val found{};
  const int result = mdb_get(reading(), database, &keyValue, &found);
  if (result == MDB_NOTFOUND) return std::nullopt;
  checked(result, "mdb_get");
  return bytes(found);
}

LmdbStore::Walk::Walk(MDB_env* environment, MDB_dbi database) {
  checked(mdb_txn_begin(environment, nullptr, MDB_RDONLY, &transaction_), "mdb_txn_begin");
  checked(mdb_cursor_open(transaction_, database, &cursor_), "mdb_cursor_open");
}

LmdbStore::Walk::~Walk() {
  mdb_cursor_close(cursor_);
  mdb_txn_abort(transaction_);
}

bool LmdbStore::Walk::step(bool first) {
  const int result = mdb_cursor_get(cursor_, &key_, &value_, first ? MDB_FIRST : MDB_NEXT);
  if (result != MDB_NOTFOUND) checked(result, "mdb_cursor_get");
  return result == MDB_SUCCESS;
}

}  // namespace Bench
