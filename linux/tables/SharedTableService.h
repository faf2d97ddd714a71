// Shared tables as files that processes map: one file per table under <run directory>/tables (TableFormat.h draws
// its bytes, TableFile.h names the files).
//
// Everything here runs on one thread. Changes reach the tables' reactors from deliverChanges() alone: the owner's event
// loop calls it when it was asked to, when wakeupFd() has become readable, and when pendingChanges(), asked about once
// a second, finds something; tests call it by hand.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "linux/tables/TableFile.h"
#include "platform/services/AgentBase.h"
#include "platform/tables/SharedTable.h"

namespace LinuxPlatform {

struct TableServiceContext;
class TableCollection;

// What a service does about a run directory that is not there yet: makes it, or leaves that to the first writer's
// mount.
enum class MissingDirectory : std::uint8_t { isMade, isAwaited };

class SharedTableService final : public Pondra::TableService {
 public:
  // Throws TableError when it cannot make the directory. `types` outlives the service. Readers may be another user's,
  // if the modes let them; a writer's mount throws when the directory is not its own user's alone. `deliveryWanted` is
  // called when there is something to deliver, from inside a write or handleWakeup() and at most once between two
  // deliveries: it schedules a call of deliverChanges().
  SharedTableService(const std::string& runDirectory, const Platform::TableTypes& types,
                     std::function<void()> deliveryWanted = {}, MissingDirectory missing = MissingDirectory::isMade);
  ~SharedTableService() override;

  // Tables that are mounted from now on to be written ask for pages of 2 MiB as they grow. A kernel that gives none is
  // told of, once.
  void hugePagesAreWanted();

  void mount(const std::string& path, const std::string& typeName, Pondra::MountKind kind,
             const std::optional<Pondra::CollectionInfo>& info = std::nullopt) override;
  bool mountPart(const std::string& path, const std::string& typeName, Pondra::MountKind kind,
                 const std::optional<Pondra::CollectionInfo>& info, const std::function<bool()>& shouldYield) override;
  bool followPart(const std::string& path, const std::function<bool()>& shouldYield) override;
  void mountWhenReadable(const std::string& path, const std::string& typeName) override;
  void unmount(const std::string& path) override;
  std::shared_ptr<Pondra::TableEntity> entity(std::string_view path) const override;
  void corruptionHandlerIs(std::function<void(const std::string& path, const std::string& what)> handler) override;

  // Goes over to tables that appeared or were replaced, puts those back that are written here, and tells reactors of
  // changes, table by table, as many as they want, until shouldYield (asked after each) says stop. True: nothing is
  // left. Tables take turns at being first: the one behind that at which a slice ended or a listener had enough. Looks
  // at the tables that something is known of, or at all when there are none. After that, tables that were taken over
  // from another writer are compared with themselves, some entries at a time; what does not agree is mended, and
  // indexes that were known to be wrong are built. Not called from inside a reactor.
  bool deliverChanges(const std::function<bool()>& shouldYield);
  // The last delivery has left only what those who are told want later: it is their turn to work.
  bool listenersAreBusy() const { return listenersAreBusy_; }
  // Whether any mounted table has something to deliver, or has appeared, been replaced or, written here, been removed.
  // Hears what the kernel has told of the directory, reads a word per table, and asks who the files are: those of
  // written tables, those that were refused or have been cut short under their reader, and all when names have changed
  // and the kernel was not there to tell. Finds also what a writer changed that died before it flushed. Of more than
  // tablesAPoll tables it looks at so many, in turn, and at all when something may have been missed. Every tenth round
  // tries the files that were refused again.
  bool pendingChanges();
  static constexpr std::size_t tablesAPoll = 2048;

  // Whether tables that are written here, and have not changed much for half a second, keep much more memory than their
  // entries need, which pendingChanges() finds out; or takeMemoryFreed() has something to say.
  bool hasMemoryToGive() const;
  // Goes on giving that memory back until shouldYield (asked after some dozens of microseconds) says stop: when nobody
  // else has anything to do. True: nothing is left to give.
  bool giveMemoryBack(const std::function<bool()>& shouldYield);
  // Whether tables, written or followed here, have become so much smaller since this was last asked that this process
  // has freed memory, too, which the allocator may keep.
  bool takeMemoryFreed();

  // Readable when another process flushed, made or replaced a table: call handleWakeup() then. -1 when the kernel has
  // no more of its kind; changes are then found by pendingChanges() alone.
  int wakeupFd() const { return wakeup_.get(); }
  void handleWakeup();
  // Wakes the other processes that follow what was written here. For the end of a batch of writes; a table does it by
  // itself every few thousand writes.
  void flush();

  // Asserts every written table's invariants. Slow: for tests and debugging.
  void checkInvariants() const;

 private:
  struct Mount {
    std::string typeName;
    std::shared_ptr<Pondra::TableEntity> table;
    std::shared_ptr<TableCollection> collection;
  };

  bool addMount(const std::string& path, const std::string& typeName, Pondra::MountKind kind,
                const std::optional<Pondra::CollectionInfo>& info, Unreadable unreadable,
                const std::function<bool()>& shouldYield);
  Mount newMount(const std::string& path, const std::string& typeName, Pondra::MountKind kind,
                 const std::optional<Pondra::CollectionInfo>& info, Unreadable unreadable);
  std::shared_ptr<Lattis::Entity> directoryOf(const std::string& path);
  void makeDirectories();
  void watchDirectory();
  void checkOwner(const std::string& path);
  bool namesChanged();
  bool watchStands();
  void lookAround(bool all);
  void lookAt(TableCollection& collection, bool all);
  bool readEvents();
  void handleFileEvent(std::string_view fileName, bool written);
  bool verifyAdopted(const std::function<bool()>& shouldYield);
  // Puts every table that has something to deliver among those that are due.
  void findPending();
  std::vector<std::shared_ptr<TableCollection>> takeDue();

  const Platform::TableTypes& types_;
  std::string runDirectory_;
  bool ownerChecked_ = false;
  std::shared_ptr<TableServiceContext> context_;
  FileDescriptor wakeup_;
  bool watchWanted_ = false;
  bool watching_ = false;
  int watch_ = -1;
  FileIdentity watched_;  // the directory
  std::map<std::string, Mount, std::less<>> mounts_;
  std::map<std::string, Mount, std::less<>> opening_;  // mounted in parts, and not yet to the end
  std::map<std::string, std::shared_ptr<TableCollection>, std::less<>> readers_;   // by file name
  std::map<std::string, std::shared_ptr<TableCollection>, std::less<>> writers_;   // by path
  std::map<std::string, std::weak_ptr<Lattis::Entity>, std::less<>> directories_;  // by path
  unsigned rounds_ = 0;                                                            // through all tables, by polls
  std::string nextLooked_;       // path at which the next poll goes on; empty: another round begins
  FileIdentity directoryState_;  // when all files were last asked
  std::string firstServed_;      // path at which the next delivery begins
  bool listenersAreBusy_ = false;
};

// A table file as its header describes it, for tools that list tables.
struct TableFileInfo {
  std::string path;  // mount path; of a file with a fault: the file's name
  std::string typeName;
  std::string collection;
  std::size_t size = 0;
  std::size_t capacity = 0;
  std::uint64_t generation = 0;     // of the writer, alive or dead
  bool reconciled = false;          // that writer has brought the table in line
  std::optional<bool> writerAlive;  // nothing: this user cannot tell
  std::string fault;                // why the file is no table; empty: it is one
};
// All tables under a run directory, by path; none when the directory does not exist. Throws TableError when it cannot
// be read.
std::vector<TableFileInfo> tableFiles(const std::string& runDirectory);

}  // namespace LinuxPlatform
