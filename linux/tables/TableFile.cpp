#include "linux/tables/TableFile.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "platform/values/Hash.h"

namespace LinuxPlatform {

using Pondra::TableError;

namespace {

// File names end at 255 bytes; suffixes and hash need some of them.
constexpr std::size_t longestName = 200;
constexpr std::size_t hugePage = std::size_t{2} << 20;
#ifndef MADV_COLLAPSE
constexpr int MADV_COLLAPSE = 25;
#endif

[[noreturn]] void refuse(const std::string& path, const std::string& what) {
  throw TableError(path + " mount: " + what);
}
// What the system refused, for this reason.
[[noreturn]] void refuseErrno(const std::string& path, const std::string& what, int reason) {
  const std::string text = path + " mount: " + what;
  if (reason == EMFILE) throw TableShortage(text, "this process may open no more files: raise its limit (ulimit -n)");
  if (reason == ENFILE) throw TableShortage(text, "the machine may open no more files: raise fs.file-max");
  if (reason == ENOMEM)
    throw TableShortage(text, "no more tables can be mapped: raise vm.max_map_count, or add memory");
  throw TableError(text);
}
[[noreturn]] void refuseErrno(const std::string& path, const std::string& what) {
  const int reason = errno;
  refuseErrno(path, what + ": " + std::strerror(reason), reason);
}

std::uint64_t sizeOf(int fd) {
  struct stat status {};
  return fstat(fd, &status) == 0 ? static_cast<std::uint64_t>(status.st_size) : 0;
}

bool readAt(int fd, void* to, std::size_t size, std::size_t offset) {
  return pread(fd, to, size, static_cast<off_t>(offset)) == static_cast<ssize_t>(size);
}

// An address at which the kernel can map pages of 2 MiB as such, whoever has made them; null where it does not matter.
// Should somebody else be there first, the mapping goes elsewhere.
void* alignedPlace(std::size_t size) {
  if (size < hugePage) return nullptr;
  void* const room = mmap(nullptr, size + hugePage, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (room == MAP_FAILED) return nullptr;
  munmap(room, size + hugePage);
  const std::size_t beyond = reinterpret_cast<std::uintptr_t>(room) % hugePage;
  return static_cast<std::byte*>(room) + (beyond == 0 ? 0 : hugePage - beyond);
}

std::byte* map(int fd, std::size_t size, bool writable) {
  void* base = mmap(alignedPlace(size), size, writable ? PROT_READ | PROT_WRITE : PROT_READ, MAP_SHARED, fd, 0);
  return base == MAP_FAILED ? nullptr : static_cast<std::byte*>(base);
}

}  // namespace

std::string tableDirectory(const std::string& runDirectory) {
  return runDirectory + "/tables";
}

std::string tableFileName(std::string_view path) {
  std::string name;
  for (const char c : path) {
    const bool plain =
        (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_';
    if (plain) {
      name += c;
    } else if (c == '/') {
      name += '.';
    } else {
      char escaped[4];
      std::snprintf(escaped, sizeof escaped, "%%%02X", static_cast<unsigned>(static_cast<unsigned char>(c)));
      name += escaped;
    }
  }
  if (name.size() <= longestName) return name;
  const std::uint64_t hash = Platform::hashBytes(reinterpret_cast<const unsigned char*>(path.data()), path.size());
  char tail[20];
  std::snprintf(tail, sizeof tail, "~%016" PRIx64, hash);  // no other name holds a '~'
  return name.substr(0, longestName - 17) + tail;
}

// --- The lock --------------------------------------------------------------------------------------------------------

namespace {

std::string lockName(const std::string& directory, const std::string& path) {
  return directory + "/" + tableFileName(path) + ".lock";
}

// All locks that this process holds. The mutex is held while a lock is on its way here, so that a fork in another
// thread leaves no child a descriptor that is not in the list.
struct HeldLocks {
  HeldLocks() { pthread_atfork(before, inParent, inChild); }
  static HeldLocks& instance() {  // locks may be let go after everything else
    static HeldLocks& all = *new HeldLocks;
    return all;
  }
  static void before() { instance().mutex.lock(); }
  static void inParent() { instance().mutex.unlock(); }
  static void inChild() {
    for (FileDescriptor& fd : instance().descriptors) fd = FileDescriptor();
    instance().mutex.unlock();
  }
  std::mutex mutex;
  std::list<FileDescriptor> descriptors;
};

}  // namespace

TableLock::~TableLock() {
  if (!held_) return;
  HeldLocks& all = HeldLocks::instance();
  const std::scoped_lock hold(all.mutex);
  all.descriptors.erase(*held_);
}

TableLock lockTable(const std::string& directory, const std::string& path) {
  const std::string fileName = lockName(directory, path);
  HeldLocks& all = HeldLocks::instance();
  const std::scoped_lock hold(all.mutex);
  for (;;) {
    OpenFile file = openOrCreate(fileName, lockMode);
    if (!file.fd) refuse(path, file.fault);
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    if (fcntl(file.fd.get(), F_OFD_SETLK, &lock) != 0) {
      if (errno == EAGAIN || errno == EACCES) refuse(path, "another process is the table's writer");
      refuseErrno(path, fileName);
    }
    // Who cleans up the directory at this moment leaves us with the lock of a file that nobody else will ask for.
    if (!leadsTo(fileName, file.fd)) continue;
    TableLock held;
    held.held_ = all.descriptors.insert(all.descriptors.end(), std::move(file.fd));
    return held;
  }
}

bool lockStands(const std::string& directory, const std::string& path, const TableLock& lock) {
  return lock.held_ && leadsTo(lockName(directory, path), **lock.held_);
}

std::optional<bool> tableLocked(const std::string& directory, const std::string& path) {
  const OpenFile file = openToRead(lockName(directory, path));
  if (!file.fault.empty()) return std::nullopt;
  if (!file.fd) return false;
  struct flock lock {};
  lock.l_type = F_RDLCK;
  lock.l_whence = SEEK_SET;
  return fcntl(file.fd.get(), F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

// --- The table -------------------------------------------------------------------------------------------------------

namespace {
template <std::size_t size>
std::string textIn(const char (&text)[size]) {
  return {text, strnlen(text, size)};
}

FileIdentity identityOf(const struct stat& status) {
  return {status.st_dev, status.st_ino, status.st_size, status.st_ctim.tv_sec, status.st_ctim.tv_nsec};
}
}  // namespace

Pondra::TableLayout layoutIn(const TableHeader& header) {
  constexpr std::uint32_t largestValue = maxTableValueSize;
  if (header.keySize == 0 || header.keySize > Pondra::maxKeySize || header.maxValueSize > largestValue) return {};
  return {textIn(header.typeName), textIn(header.collection), header.layoutVersion,
          header.keySize,          header.maxValueSize,       header.variableSize != 0};
}

FileIdentity fileIdentity(const std::string& fileName) {
  struct stat status {};
  return stat(fileName.c_str(), &status) == 0 ? identityOf(status) : FileIdentity();
}

TableFile::TableFile(std::string name, FileDescriptor fd, const TableGeometry& geometry, std::uint32_t capacity,
                     std::byte* base, bool writable)
    : name_(std::move(name)),
      fd_(std::move(fd)),
      geometry_(geometry),
      capacity_(capacity),
      mapping_(base, geometry_.fileSize, writable),
      image_(base, geometry_) {
  struct stat status {};
  if (fstat(fd_.get(), &status) == 0) identity_ = identityOf(status);
}

TableFile::~TableFile() {
  if (unpublished_) unlink((name_ + ".new").c_str());
}

std::unique_ptr<TableFile> TableFile::open(const std::string& directory, const std::string& path,
                                           const Pondra::TableLayout& layout, bool writable) {
  const std::string name = directory + "/" + tableFileName(path);
  OpenFile file = writable ? openToWrite(name + ".table", readableMode) : openToRead(name + ".table");
  if (!file.fault.empty()) refuseErrno(path, file.fault, file.error);
  if (!file.fd) return nullptr;
  return mapFile(name, std::move(file.fd), path, layout, writable);
}

std::unique_ptr<TableFile> TableFile::openFile(const std::string& fileName) {
  const TableFileHeader found = readTableHeader(fileName);
  if (!found.fault.empty()) throw Pondra::TableError(fileName + ": " + found.fault);
  OpenFile file = openToRead(fileName);
  if (!file.fd) throw Pondra::TableError(fileName + ": " + (file.fault.empty() ? "it is gone" : file.fault));
  return mapFile(fileName, std::move(file.fd), textIn(found.header.path), layoutIn(found.header), false);
}

std::unique_ptr<TableFile> TableFile::mapFile(std::string name, FileDescriptor fd, const std::string& path,
                                              const Pondra::TableLayout& layout, bool writable) {
  TableHeader header{};
  if (!readAt(fd.get(), &header, sizeof header, 0)) refuse(path, "the file is too short for a table");
  if (const auto fault = headerFault(header, path, layout); !fault.empty()) refuse(path, fault);
  // Mapped bytes beyond the end of the file would be deadly to touch.
  const TableGeometry geometry(layout, header.slots);
  if (sizeOf(fd.get()) < geometry.fileSize) refuse(path, "the file is shorter than its header says");
  std::byte* base = map(fd.get(), geometry.fileSize, writable);
  if (base == nullptr) refuseErrno(path, "the file cannot be mapped");
  std::unique_ptr<TableFile> table(
      new TableFile(std::move(name), std::move(fd), geometry, header.capacity, base, writable));
  if (!writable) table->fd_ = FileDescriptor();  // thousands of tables may be read at a time
  return table;
}

std::unique_ptr<TableFile> TableFile::create(const std::string& directory, const std::string& path,
                                             const Pondra::TableLayout& layout, std::uint32_t capacity,
                                             std::uint32_t slots, bool hugePages) {
  auto table = begin(directory, path, layout, capacity, slots, hugePages);
  while (!table->preparePart()) {
  }
  return table;
}

std::unique_ptr<TableFile> TableFile::begin(const std::string& directory, const std::string& path,
                                            const Pondra::TableLayout& layout, std::uint32_t capacity,
                                            std::uint32_t slots, bool hugePages) {
  const std::string name = directory + "/" + tableFileName(path);
  const std::string temporary = name + ".new";
  const TableGeometry geometry(layout, slots);
  if (!geometry.isRepresentable()) refuse(path, "a table of so many entries of this size is too large");
  OpenFile file = createAfresh(temporary, readableMode);
  if (!file.fd) refuse(path, file.fault);
  FileDescriptor fd = std::move(file.fd);
  const auto giveUp = [&](const std::string& what) {
    const int reason = errno;
    unlink(temporary.c_str());
    refuseErrno(path, what + ": " + std::strerror(reason), reason);
  };
  if (ftruncate(fd.get(), static_cast<off_t>(geometry.fileSize)) != 0) giveUp(temporary);
  std::byte* base = map(fd.get(), geometry.fileSize, true);
  if (base == nullptr) giveUp("the file cannot be mapped");
  std::uint64_t seed = 0;
  if (getrandom(&seed, sizeof seed, 0) != sizeof seed) giveUp("no random number for the table's seed");
  std::unique_ptr<TableFile> table(new TableFile(name, std::move(fd), geometry, capacity, base, true));
  table->unpublished_ = true;
  if (hugePages) table->hugePagesAreWanted();
  const auto header = tableHeader(path, layout, capacity, slots, seed);
  table->header_ = std::make_unique<TableHeader>(header);
  return table;
}

// Slots, nodes and heap are given room as they are used.
bool TableFile::preparePart() {
  constexpr std::size_t bytesAtATime = std::size_t{1} << 20;
  constexpr std::uint32_t linesAtATime = 8192;
  const std::size_t first = geometry_.slotPlaces.begin;
  if (reservedTo_ < first) {
    const std::size_t end = std::min(first, reservedTo_ + bytesAtATime);
    if (!reserve(reservedTo_, end)) {
      refuse(header_->path, "no space left on " + name_.substr(0, name_.rfind('/')) + " for the table");
    }
    reservedTo_ = end;
    return false;
  }
  if (header_) std::memcpy(mapping_.base(), header_.get(), sizeof *header_);
  header_.reset();
  const bool done = formatTable(image_, linesMade_, linesAtATime);
  linesMade_ += linesAtATime;
  return done;
}

void TableFile::publish() {
  if (rename((name_ + ".new").c_str(), (name_ + ".table").c_str()) != 0) refuseErrno(name_, "the file cannot be named");
  unpublished_ = false;
}

bool TableFile::stands() const {
  return leadsTo(name_ + ".table", fd_);
}

bool TableFile::cutShort() const {
  return broken() || sizeOf(fd_.get()) < geometry_.fileSize;
}

bool TableFile::reserve(std::size_t offset, std::size_t end) const {
  const int reason = makeHuge(offset, end);
  const bool room = allocate(offset, end);
  if (room && reason != 0) {  // or it was the room that there was none of
    smallYet_.clear();
    refusal_ = reason;
  }
  return room;
}

void TableFile::hugePagesAreWanted() {
  smallYet_.assign(geometry_.fileSize / hugePage, true);
}

// Returns why not. The kernel makes one page of the small ones that are there, and one there has to be.
int TableFile::makeHuge(std::size_t offset, std::size_t end) const {
  for (std::size_t block = offset / hugePage; block < smallYet_.size() && block * hugePage < end; ++block) {
    const std::size_t at = block * hugePage;
    if (!smallYet_[block]) continue;
    if (!allocate(at, at + 1)) return 0;
    load(*image_.words(at));
    if (madvise(mapping_.base() + at, hugePage, MADV_COLLAPSE) == 0) {
      smallYet_[block] = false;
    } else if (errno != EAGAIN) {
      return errno;
    }
  }
  return 0;
}

bool TableFile::allocate(std::size_t offset, std::size_t end) const {
  int result = 0;
  do {
    result = fallocate(fd_.get(), FALLOC_FL_KEEP_SIZE, static_cast<off_t>(offset), static_cast<off_t>(end - offset));
  } while (result != 0 && errno == EINTR);
  return result == 0 || (errno != ENOSPC && errno != EDQUOT);
}

// What is asked for again may lie in pages of 2 MiB again.
bool TableFile::release(std::size_t offset, std::size_t end) const {
  int result = 0;
  do {
    result = fallocate(fd_.get(), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, static_cast<off_t>(offset),
                       static_cast<off_t>(end - offset));
  } while (result != 0 && errno == EINTR);
  for (std::size_t block = offset / hugePage; block < smallYet_.size() && block * hugePage < end; ++block)
    smallYet_[block] = true;
  return result == 0;
}

void TableFile::ringDoorbell() const {
  const char ring = 1;
  // Nothing depends on it but the speed of notification.
  [[maybe_unused]] const auto written =
      pwrite(fd_.get(), &ring, 1, static_cast<off_t>(tableStateOffset + offsetof(TableState, doorbell)));
}

TableFileHeader readTableHeader(const std::string& fileName) {
  TableFileHeader result;
  const OpenFile file = openToRead(fileName);
  if (!file.fd) {
    result.fault = file.fault.empty() ? std::strerror(ENOENT) : file.fault;
    return result;
  }
  const auto readState = [&](std::uint64_t& word, std::size_t offset) {
    return readAt(file.fd.get(), &word, sizeof word, tableStateOffset + offset);
  };
  if (!readAt(file.fd.get(), &result.header, sizeof result.header, 0) ||
      !readState(result.liveCount, offsetof(TableState, liveCount)) ||
      !readState(result.generation, offsetof(TableState, generation)) ||
      !readState(result.reconciled, offsetof(TableState, reconciled))) {
    result.fault = "the file is too short for a table";
  } else {
    result.fault = headerFault(result.header);
    result.liveCount = numberIn(result.liveCount);
  }
  return result;
}

}  // namespace LinuxPlatform
