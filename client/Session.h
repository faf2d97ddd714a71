// What stands behind the C interface: one run directory, the tables open in it, and the descriptor that tells of them.
// One thread. Whatever fails throws: the interface's functions catch it.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "client/WritableTables.h"
#include "client/routecache_tables.h"
#include "linux/files/FileDescriptor.h"
#include "linux/tables/SharedTableService.h"
#include "linux/tables/TableCollection.h"
#include "platform/services/AgentBase.h"
#include "platform/tables/SharedTable.h"

namespace Client {

using Pondra::Bytes;
using Pondra::MutableBytes;

// A code of the interface, and the line that goes with it.
struct Fault {
  int code;
  std::string text;
};

// A table by its bytes. A reader's takes the layout that it finds.
class RawTable : public Pondra::TableEntity {
 public:
  class User {
   public:
    virtual ~User() = default;
    virtual void keyChanged(Bytes key) = 0;
    virtual void stateChanged() = 0;
  };
  static constexpr const char* typeName = "";
  using TableEntity::TableEntity;

  // Null once there is no collection any more.
  LinuxPlatform::TableCollection* collection() const { return collection_.get(); }
  // Tells of changes from now on.
  void userIs(User& user);

  Pondra::TableLayout layout() const override { return {}; }
  void controlIs(std::shared_ptr<Pondra::SharedCollection> control) override;
  void handleParent(const std::shared_ptr<Lattis::Entity>& parent) override { parentIs(parent); }
  // For those who know the type.
  void visitText(std::string_view, const std::function<bool(const TextEntry&)>&) const override {}
  std::optional<TextEntry> findText(std::string_view) const override { return std::nullopt; }
  std::unique_ptr<Watcher> watchText(std::function<void(const std::string&)>) const override { return nullptr; }

 private:
  void deliverKey(Bytes key, std::uint64_t /*sequence*/) override { user_->keyChanged(key); }
  void deliverQuiesced(bool /*quiesced*/) override {}
  void deliverMountStatus() override { user_->stateChanged(); }
  void deliverWriter() override { user_->stateChanged(); }

  std::shared_ptr<LinuxPlatform::TableCollection> collection_;
  User* user_ = nullptr;  // there while changes are delivered
};

}  // namespace Client

struct rct_table final : Client::RawTable::User {
 public:
  rct_table(rct_session& session, std::string path, std::shared_ptr<Client::RawTable> entity,
            const Client::WritableTable* writable)
      : session_(session), path_(std::move(path)), entity_(std::move(entity)), writable_(writable) {}

  rct_session& session() const { return session_; }
  const std::string& path() const { return path_; }
  LinuxPlatform::TableCollection& collection() const { return *entity_->collection(); }
  std::optional<rct_info> info() const;
  rct_state state() const;
  void follow();
  bool find(Client::Bytes key, rct_entry& entry);
  void set(Client::Bytes key, Client::Bytes value);
  bool erase(Client::Bytes key);
  void eraseAll();
  void reconcile();
  // Asks whether a followed table's writer is there still.
  void lookAfterWriter();

  // Throws when no key of the table has this size.
  void checkKey(Client::Bytes key) const;

  void keyChanged(Client::Bytes key) override;
  void stateChanged() override;

 private:
  const Client::WritableTable& writable() const;
  std::uint32_t writer() const;

  rct_session& session_;
  const std::string path_;
  const std::shared_ptr<Client::RawTable> entity_;
  const Client::WritableTable* const writable_;      // null: a reader
  std::array<std::byte, Pondra::maxKeySize> key_{};  // of the entry found last
  std::vector<std::byte> value_;
  bool followed_ = false;
  std::uint32_t toldWriter_ = RCT_WRITER_UNKNOWN;
};

struct rct_cursor {
 public:
  rct_cursor(rct_table& table, Client::Bytes from);
  bool next(rct_entry& entry);

 private:
  rct_table& table_;
  bool begun_ = false;
  Pondra::WalkPlace place_;
  std::array<std::byte, Pondra::maxKeySize> key_{};
  std::vector<std::byte> value_;
};

struct rct_session {
 public:
  explicit rct_session(const std::string& runDirectory);
  rct_session(const rct_session&) = delete;
  rct_session& operator=(const rct_session&) = delete;
  ~rct_session();

  int fd() const { return poll_.get(); }
  const std::string& runDirectory() const { return runDirectory_; }
  void damageHandlerIs(rct_damage_handler handler, void* context);
  rct_table* read(const std::string& path);
  rct_table* write(const std::string& path, std::uint32_t capacity);
  void close(const rct_table& table);
  std::size_t changes(std::span<rct_change> out);
  void flush() { service_.flush(); }

  // A followed table tells of itself.
  void tell(const rct_change& change);

 private:
  rct_table* opened(const std::string& path, const Client::WritableTable* writable);
  void checkClosed(const std::string& path) const;
  void watch(int fd);
  void moreIs(bool more);

  const std::string runDirectory_;
  // Readable together through the first: something is left to do, a second has passed, files have changed.
  LinuxPlatform::FileDescriptor poll_;
  LinuxPlatform::FileDescriptor more_;
  LinuxPlatform::FileDescriptor second_;
  Platform::TableTypes types_;
  LinuxPlatform::SharedTableService service_;
  std::map<std::string, std::unique_ptr<rct_table>> tables_;
  bool inChanges_ = false;
  std::span<rct_change> out_;        // what changes() is to fill, and has not yet
  std::vector<rct_change> waiting_;  // told while there was no room; the first of the next call
};
