// Table files: their names, the lock of their writer, creating and mapping them.
//
//   <run directory>/tables/<name>.table   the table (TableFormat.h)
//   <run directory>/tables/<name>.lock    locked by the writer; stays when the table is replaced
//   <run directory>/tables/<name>.new     a table being made; gets its name when it is complete
//
// All of them belong to one user, who writes every table of the directory; others may be allowed to read the tables.
#pragma once

#include <sys/types.h>

#include <list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "lib/tables/TableFormat.h"
#include "linux/files/OwnFiles.h"
#include "linux/tables/MappingGuard.h"
#include "platform/tables/SharedTable.h"

namespace LinuxPlatform {

// Where the tables of a run directory lie.
std::string tableDirectory(const std::string& runDirectory);

// The name for a mount path, without its suffix: letters, digits, '-' and '_' stand for themselves, '/' becomes '.',
// anything else %XX, so that no path leads out of the directory and no two share a name. A name that would be longer
// than a file name may be ends in a hash of the path instead; the header tells whose file it is.
std::string tableFileName(std::string_view path);

// The writer's lock on a table, held while the object lives and let go by the kernel when its process ends; or none.
//
// It is a lock of the open file, not of the process: two writers in one process exclude each other, and a descriptor of
// the same file that is opened and closed elsewhere in the process does not let it go. Such a lock lives as long as any
// copy of its descriptor, so none is left to others: exec closes it, and a child made by fork() closes its copies first
// of all, before fork() returns there. In the child this object is a lock no more, and its writer's tables are not the
// child's to write. (One made by a bare clone system call keeps its copies until it calls exec or ends.)
class TableLock {
 public:
  TableLock() = default;
  TableLock(TableLock&& other) noexcept { swap(other); }
  TableLock& operator=(TableLock&& other) noexcept {
    swap(other);
    return *this;
  }
  ~TableLock();

 private:
  friend TableLock lockTable(const std::string& directory, const std::string& path);
  friend bool lockStands(const std::string& directory, const std::string& path, const TableLock& lock);
  void swap(TableLock& other) noexcept { std::swap(held_, other.held_); }
  std::optional<std::list<FileDescriptor>::iterator> held_;  // among all that this process holds
};

// Throws TableError when another holds it.
TableLock lockTable(const std::string& directory, const std::string& path);
// Whether the lock is still the one that the next writer would ask for.
bool lockStands(const std::string& directory, const std::string& path, const TableLock& lock);
// Whether somebody holds it; nothing when it is not for this user to ask.
std::optional<bool> tableLocked(const std::string& directory, const std::string& path);

// Which file a name leads to, and in which state it is; all 0: none. Another file may get the number of one that is
// gone, and a file may be changed in place: that a refused one is still the same takes size and time of the last change
// as well. A file that is mapped keeps its number, and every write changes its time.
struct FileIdentity {
  dev_t device = 0;
  ino_t inode = 0;
  off_t size = 0;
  std::int64_t changeSeconds = 0;
  std::int64_t changeNanoseconds = 0;
  bool operator==(const FileIdentity&) const = default;
  bool isSameFile(const FileIdentity& other) const { return device == other.device && inode == other.inode; }
};
FileIdentity fileIdentity(const std::string& fileName);

// The layout that a good header names; without a type's name when nobody can have made the sizes.
Pondra::TableLayout layoutIn(const TableHeader& header);

// What becomes of a file that a reader cannot use: a TableError, or the reader waits for one that it can.
enum class Unreadable : std::uint8_t { error, waits };

// The process has come to the end of its descriptors or mappings: no fault of the table. remedy() says what to raise.
class TableShortage : public Pondra::TableError {
 public:
  TableShortage(const std::string& what, const char* remedy) : TableError(what), remedy_(remedy) {}
  const char* remedy() const { return remedy_; }

 private:
  const char* remedy_;
};

// A mapped table file whose header has been checked against its layout. A reader's costs one mapping and no descriptor.
// Not moved: images refer to its geometry.
class TableFile {
 public:
  // Maps an existing table; null when there is none. Throws TableError when the file is no table of this path and
  // layout, or shorter than it says.
  static std::unique_ptr<TableFile> open(const std::string& directory, const std::string& path,
                                         const Pondra::TableLayout& layout, bool writable);
  // Maps a file to read it, whatever table it is and wherever it lies. Throws TableError when it is none.
  static std::unique_ptr<TableFile> openFile(const std::string& fileName);
  // Makes an empty table under its temporary name; publish() gives it its own, replacing an older file. Takes the
  // writer's lock for granted. Throws TableError when the system refuses, or has no room on the disk; no file is left
  // then.
  static std::unique_ptr<TableFile> create(const std::string& directory, const std::string& path,
                                           const Pondra::TableLayout& layout, std::uint32_t capacity,
                                           std::uint32_t slots, bool hugePages = false);
  // The same, but for the bytes, which preparePart() gives their room and their first contents, by some hundreds of
  // microseconds: until it says so (true) the file is no table. It throws as create() does.
  static std::unique_ptr<TableFile> begin(const std::string& directory, const std::string& path,
                                          const Pondra::TableLayout& layout, std::uint32_t capacity,
                                          std::uint32_t slots, bool hugePages);
  bool preparePart();
  // From now on the kernel is asked for one page for each 2 MiB of which some are reserved for the first time; all of
  // them are taken then. It can from Linux 6.1 on, for files of a tmpfs. What it refuses goes on in small pages.
  void hugePagesAreWanted();
  // Why it has refused them for good, as an errno, if it has since this was last asked; otherwise 0.
  int takeRefusal() const { return std::exchange(refusal_, 0); }
  void publish();
  // Whether the table's name leads to this file. Writable files only.
  bool stands() const;
  // Takes room on the disk for these bytes, which lie in the file, so that nobody's access to them can fail. False:
  // there is none. A filesystem that cannot promise room is believed to have it: it is MappingGuard then that keeps
  // those alive who touch what it has no room for. Writable files only.
  bool reserve(std::size_t offset, std::size_t end) const;
  // Gives the whole pages among these bytes back: they are zero bytes from then on. False: the filesystem cannot.
  // Writable files only.
  bool release(std::size_t offset, std::size_t end) const;
  // Bytes have gone from under the mapping, and somebody has touched them: see MappingGuard.
  bool broken() const { return mapping_.broken(); }
  // The same, or they would be gone when somebody did. Writable files only.
  bool cutShort() const;

  TableFile(const TableFile&) = delete;
  TableFile& operator=(const TableFile&) = delete;
  // A file that was not published goes.
  ~TableFile();

  const TableImage& image() const { return image_; }
  std::uint32_t capacity() const { return capacity_; }
  const FileIdentity& identity() const { return identity_; }
  // Makes the file's watchers look. Writable files only.
  void ringDoorbell() const;

 private:
  static std::unique_ptr<TableFile> mapFile(std::string name, FileDescriptor fd, const std::string& path,
                                            const Pondra::TableLayout& layout, bool writable);
  TableFile(std::string name, FileDescriptor fd, const TableGeometry& geometry, std::uint32_t capacity, std::byte* base,
            bool writable);

  bool allocate(std::size_t offset, std::size_t end) const;
  int makeHuge(std::size_t offset, std::size_t end) const;

  std::string name_;   // without suffix, with its directory
  FileDescriptor fd_;  // a writer's, for the doorbell
  TableGeometry geometry_;
  std::uint32_t capacity_;
  MappingGuard mapping_;
  TableImage image_;
  FileIdentity identity_;
  bool unpublished_ = false;
  std::unique_ptr<TableHeader> header_;  // of a file that is being made, until it has room
  std::size_t reservedTo_ = 0;
  std::uint32_t linesMade_ = 0;
  mutable std::vector<bool> smallYet_;  // by 2 MiB: the kernel is to be asked for one page; empty: it is not asked
  mutable int refusal_ = 0;
};

// The header of a file in a table directory, or why it has none.
struct TableFileHeader {
  TableHeader header{};
  std::uint64_t liveCount = 0;
  std::uint64_t generation = 0;
  std::uint64_t reconciled = 0;
  std::string fault;  // empty: the header is good
};
TableFileHeader readTableHeader(const std::string& fileName);

}  // namespace LinuxPlatform
