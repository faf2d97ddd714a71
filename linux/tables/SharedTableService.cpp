#include "linux/tables/SharedTableService.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <stdexcept>
#include <system_error>

#include "linux/tables/TableCollection.h"

namespace LinuxPlatform {

using Pondra::CollectionInfo;
using Pondra::MountKind;
using Pondra::TableEntity;
using Pondra::TableError;

namespace {

[[noreturn]] void refuseMount(const std::string& path, const std::string& what) {
  throw TableError(path + " mount: " + what);
}

std::string leafOf(const std::string& path) {
  return path.substr(path.rfind('/') + 1);
}

// The capacity that a writer asks for.
std::uint32_t capacityFrom(const std::string& path, const Pondra::TableLayout& layout,
                           const std::optional<CollectionInfo>& info) {
  if (!info) refuseMount(path, "a writer has to name its collection and capacity");
  if (info->collection != layout.collection) {
    refuseMount(path, layout.typeName + " has no collection " + info->collection);
  }
  if (info->capacity == 0 || info->capacity > Pondra::maxCapacity) {
    refuseMount(path, "a capacity of " + std::to_string(info->capacity) + " entries is impossible");
  }
  return info->capacity;
}

}  // namespace

SharedTableService::SharedTableService(const std::string& runDirectory, const Platform::TableTypes& types,
                                       std::function<void()> deliveryWanted, MissingDirectory missing)
    : types_(types),
      runDirectory_(runDirectory),
      context_(std::make_shared<TableServiceContext>()),
      wakeup_(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
  context_->directory = tableDirectory(runDirectory);
  context_->deliveryWanted = std::move(deliveryWanted);
  if (missing == MissingDirectory::isMade) makeDirectories();
}

void SharedTableService::makeDirectories() {
  try {
    makeDirectory(runDirectory_);
    makeDirectory(context_->directory);
  } catch (const std::runtime_error& error) {
    throw TableError(error.what());
  }
  if (watchWanted_) watchDirectory();
}

SharedTableService::~SharedTableService() {
  for (auto& [path, mount] : mounts_) {
    mount.collection->flush();
    mount.collection->close();
  }
  context_->deliveryWanted = nullptr;
  context_->corruptionHandler = nullptr;
}

void SharedTableService::hugePagesAreWanted() {
  context_->hugePages = true;
}

void SharedTableService::mount(const std::string& path, const std::string& typeName, MountKind kind,
                               const std::optional<CollectionInfo>& info) {
  addMount(path, typeName, kind, info, Unreadable::error, [] { return false; });
}

bool SharedTableService::mountPart(const std::string& path, const std::string& typeName, MountKind kind,
                                   const std::optional<CollectionInfo>& info,
                                   const std::function<bool()>& shouldYield) {
  return addMount(path, typeName, kind, info, Unreadable::error, shouldYield);
}

bool SharedTableService::followPart(const std::string& path, const std::function<bool()>& shouldYield) {
  const auto found = mounts_.find(path);
  return found == mounts_.end() || found->second.collection->prepareToFollow(shouldYield);
}

void SharedTableService::mountWhenReadable(const std::string& path, const std::string& typeName) {
  addMount(path, typeName, MountKind::reader, std::nullopt, Unreadable::waits, [] { return false; });
}

bool SharedTableService::addMount(const std::string& path, const std::string& typeName, MountKind kind,
                                  const std::optional<CollectionInfo>& info, Unreadable unreadable,
                                  const std::function<bool()>& shouldYield) {
  auto begun = opening_.find(path);
  const auto mounted = mounts_.find(path);
  if (const bool isBegun = begun != opening_.end(); isBegun || mounted != mounts_.end()) {
    const Mount& mount = isBegun ? begun->second : mounted->second;
    if (mount.typeName != typeName || mount.collection->kind() != kind) {
      refuseMount(path, "it is mounted here already, with another type or kind");
    }
    if (!isBegun) return true;
  } else {
    begun = opening_.emplace(path, newMount(path, typeName, kind, info, unreadable)).first;
  }
  try {
    if (kind == MountKind::writer && !begun->second.collection->open(shouldYield)) return false;
  } catch (...) {
    opening_.erase(begun);
    throw;
  }
  const Mount& mount = mounts_.insert(opening_.extract(begun)).position->second;
  mount.table->handleParent(directoryOf(path));
  mount.table->controlIs(mount.collection);
  if (!mount.collection->verified()) context_->adopted.push_back(mount.collection);
  if (kind == MountKind::writer) {
    writers_[path] = mount.collection;
  } else {
    readers_[tableFileName(path)] = mount.collection;
  }
  return true;
}

SharedTableService::Mount SharedTableService::newMount(const std::string& path, const std::string& typeName,
                                                       MountKind kind, const std::optional<CollectionInfo>& info,
                                                       Unreadable unreadable) {
  const std::shared_ptr<TableEntity> table = types_.make(typeName, leafOf(path));
  if (!table) refuseMount(path, "no table type is called " + typeName);
  const Pondra::TableLayout layout = table->layout();
  if (path.empty() || path.size() >= sizeof TableHeader::path) refuseMount(path, "the path is empty or too long");
  const std::uint32_t capacity = kind == MountKind::writer ? capacityFrom(path, layout, info) : 0;
  if (kind == MountKind::writer) {
    checkOwner(path);
  } else {
    watchDirectory();
  }
  return {typeName, table, std::make_shared<TableCollection>(context_, path, kind, layout, capacity, unreadable)};
}

// In a directory that others may write into, a writer's files could become theirs.
void SharedTableService::checkOwner(const std::string& path) {
  if (ownerChecked_) return;
  makeDirectories();
  try {
    checkOwnDirectory(runDirectory_);
    checkOwnDirectory(context_->directory);
  } catch (const std::runtime_error& error) {
    refuseMount(path, error.what());
  }
  ownerChecked_ = true;
}

std::shared_ptr<Lattis::Entity> SharedTableService::directoryOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  const std::string name = slash == std::string::npos ? std::string() : path.substr(0, slash);
  std::weak_ptr<Lattis::Entity>& known = directories_[name];
  auto directory = known.lock();
  if (!directory) known = directory = std::make_shared<Pondra::TableDirectory>(name);
  return directory;
}

// Before the first reader's table is looked for, so that it cannot appear unseen. Not for writers alone: nobody else
// changes their tables, and to give a watch up takes the kernel milliseconds.
void SharedTableService::watchDirectory() {
  if (watching_ || !wakeup_) return;
  watchWanted_ = true;
  watched_ = fileIdentity(context_->directory);  // first: what takes its place meanwhile is found to be another
  watch_ = inotify_add_watch(wakeup_.get(), context_->directory.c_str(), IN_MODIFY | IN_MOVED_TO | IN_CREATE);
  watching_ = watch_ >= 0;
}

void SharedTableService::unmount(const std::string& path) {
  opening_.erase(path);
  const auto found = mounts_.find(path);
  if (found == mounts_.end()) return;
  const Mount mount = std::move(found->second);
  mounts_.erase(found);
  if (mount.collection->kind() == MountKind::writer) {
    writers_.erase(path);
  } else {
    readers_.erase(tableFileName(path));
  }
  mount.collection->flush();
  mount.collection->close();
  mount.table->handleParent(nullptr);
}

std::shared_ptr<TableEntity> SharedTableService::entity(std::string_view path) const {
  const auto found = mounts_.find(path);
  return found == mounts_.end() ? nullptr : found->second.table;
}

void SharedTableService::corruptionHandlerIs(
    std::function<void(const std::string& path, const std::string& what)> handler) {
  context_->corruptionHandler = std::move(handler);
}

// --- Changes ---------------------------------------------------------------------------------------------------------

// Work goes by the tables that something is known of: there may be tens of thousands that nothing happens to.
std::vector<std::shared_ptr<TableCollection>> SharedTableService::takeDue() {
  std::vector<std::shared_ptr<TableCollection>> round;
  for (const auto& entry : std::exchange(context_->due, {})) {
    if (auto collection = entry.lock()) {
      collection->dueTaken();
      round.push_back(std::move(collection));
    }
  }
  const auto byPath = [](const auto& a, const auto& b) { return a->path() < b->path(); };
  std::sort(round.begin(), round.end(), byPath);
  const auto first = std::find_if(round.begin(), round.end(), [&](const auto& c) { return c->path() >= firstServed_; });
  std::rotate(round.begin(), first, round.end());
  return round;
}

bool SharedTableService::deliverChanges(const std::function<bool()>& shouldYield) {
  if (!std::exchange(context_->deliveryAsked, false) && context_->due.empty()) findPending();
  // A reactor may mount and unmount tables.
  const std::vector<std::shared_ptr<TableCollection>> round = takeDue();
  for (const auto& collection : round) collection->adoptReplacement();

  bool yielded = false, onlyBusy = true, isTurnOver = false;
  const std::function<bool()> stop = [&] { return yielded = yielded || shouldYield(); };
  for (const auto& collection : round) {
    if (!yielded) collection->deliver(stop);
    const bool isLeft = collection->pending();
    const bool isBusy = isLeft && collection->listenerIsBusy();
    // Whoever follows several tables must not hear of the same one first each time, and then want no more.
    if ((stop() || isBusy) && !isTurnOver) {
      isTurnOver = true;
      firstServed_ = collection->path() + '\0';  // the path after this one
    }
    if (!isLeft) continue;
    collection->dueIs();
    onlyBusy = onlyBusy && isBusy;
  }
  const bool verified = verifyAdopted(stop);
  listenersAreBusy_ = verified && !yielded && onlyBusy && !context_->due.empty();
  return verified && context_->due.empty();
}

// What nobody waits for comes last.
bool SharedTableService::verifyAdopted(const std::function<bool()>& shouldYield) {
  while (!context_->adopted.empty()) {
    const auto collection = context_->adopted.back().lock();
    if (!collection || collection->verify()) {
      context_->adopted.pop_back();
    } else if (shouldYield()) {
      return false;
    }
  }
  return true;
}

bool SharedTableService::hasMemoryToGive() const {
  return !context_->sparse.empty() || context_->memoryFreed;
}

bool SharedTableService::takeMemoryFreed() {
  return std::exchange(context_->memoryFreed, false);
}

bool SharedTableService::giveMemoryBack(const std::function<bool()>& shouldYield) {
  while (!context_->sparse.empty()) {
    const auto collection = context_->sparse.back().lock();
    if (!collection || collection->giveMemoryBack()) {
      context_->sparse.pop_back();
    } else if (shouldYield()) {
      return false;
    }
  }
  return true;
}

void SharedTableService::findPending() {
  for (const auto& [path, mount] : mounts_) {
    if (mount.collection->pending()) mount.collection->dueIs();
  }
}

// A name that changes while its directory is looked at may leave the directory's time as it was: only a time that has
// passed counts for what was seen.
bool SharedTableService::namesChanged() {
  constexpr std::int64_t clockSteps = 1;  // seconds; far more than the file system's clock takes for a step
  const FileIdentity now = fileIdentity(context_->directory);
  if (now == directoryState_ && now != FileIdentity()) return false;
  timespec time{};
  clock_gettime(CLOCK_REALTIME, &time);
  directoryState_ = now.changeSeconds + clockSteps < time.tv_sec ? now : FileIdentity();
  return true;
}

bool SharedTableService::pendingChanges() {
  // Among what is told may be the end of the watch.
  const bool missed = watchStands() ? readEvents() || !watchStands() : watching_ || namesChanged();
  for (const auto& [path, collection] : writers_) lookAt(*collection, false);
  lookAround(missed);
  return !context_->due.empty() || !context_->adopted.empty();
}

// Whether the kernel has been telling what happens in the directory since the last call. Another may have taken the
// place of the one that is watched.
bool SharedTableService::watchStands() {
  if (watching_ && fileIdentity(context_->directory).isSameFile(watched_)) return true;
  if (std::exchange(watching_, false)) inotify_rm_watch(wakeup_.get(), watch_);
  if (watchWanted_) watchDirectory();
  return false;
}

void SharedTableService::lookAround(bool all) {
  std::size_t left = all ? mounts_.size() : std::min(mounts_.size(), tablesAPoll);
  auto at = mounts_.lower_bound(nextLooked_);
  if (nextLooked_.empty()) ++rounds_;
  for (; left > 0; --left) {
    if (at == mounts_.end()) {
      ++rounds_;
      at = mounts_.begin();
    }
    if (at->second.collection->kind() != MountKind::writer) lookAt(*at->second.collection, all);
    ++at;
  }
  nextLooked_ = at == mounts_.end() ? std::string() : at->first;
}

void SharedTableService::lookAt(TableCollection& collection, bool all) {
  constexpr unsigned roundsPerRetry = 10;
  const bool suspect = collection.refused() || collection.broken() || collection.kind() == MountKind::writer;
  if (all || suspect) collection.checkReplacement(rounds_ % roundsPerRetry == 0);
  if (collection.pending()) collection.dueIs();
}

void SharedTableService::handleFileEvent(std::string_view fileName, bool written) {
  constexpr std::string_view suffix = ".table";
  if (!fileName.ends_with(suffix)) return;
  const auto found = readers_.find(fileName.substr(0, fileName.size() - suffix.size()));
  if (found == readers_.end()) return;
  // What has been written is seen in the table itself; who it is matters only when it may be another file.
  TableCollection& collection = *found->second;
  if (!written || !collection.mounted() || collection.refused() || collection.broken()) collection.checkReplacement();
  if (collection.pending()) collection.dueIs();
}

void SharedTableService::handleWakeup() {
  if (readEvents()) lookAround(true);
  if (!context_->due.empty()) context_->wantDelivery();
}

// True: not all of what has happened was told.
bool SharedTableService::readEvents() {
  constexpr std::size_t largestEvent = sizeof(inotify_event) + NAME_MAX + 1;
  alignas(inotify_event) std::array<char, 4096> events;
  bool lost = false;
  for (bool more = true; more;) {
    const ssize_t got = read(wakeup_.get(), events.data(), events.size());
    const std::size_t size = got > 0 ? static_cast<std::size_t>(got) : 0;
    more = size + largestEvent > events.size();  // where another event would have had room, there was none
    for (std::size_t at = 0; at + sizeof(inotify_event) <= size;) {
      inotify_event event;
      std::memcpy(&event, events.data() + at, sizeof event);
      const char* const name = events.data() + at + sizeof event;
      // The directory was removed, not another one before it.
      if ((event.mask & IN_IGNORED) != 0 && event.wd == watch_) watching_ = false;
      if ((event.mask & IN_Q_OVERFLOW) != 0) {
        lost = true;
      } else if (event.len > 0) {
        handleFileEvent(std::string_view(name, strnlen(name, event.len)), (event.mask & IN_MODIFY) != 0);
      }
      at += sizeof event + event.len;
    }
  }
  return lost;
}

void SharedTableService::flush() {
  for (const auto& written : std::exchange(context_->unflushed, {})) {
    if (const auto collection = written.lock()) collection->flush();
  }
}

void SharedTableService::checkInvariants() const {
  for (const auto& [path, mount] : mounts_) mount.collection->checkInvariants();
}

std::vector<TableFileInfo> tableFiles(const std::string& runDirectory) {
  std::vector<TableFileInfo> tables;
  std::error_code error;
  const std::filesystem::directory_iterator files(tableDirectory(runDirectory), error);
  if (error && error != std::errc::no_such_file_or_directory) {
    throw TableError(tableDirectory(runDirectory) + ": " + error.message());
  }
  for (const auto& file : files) {
    if (file.path().extension() != ".table") continue;
    const TableFileHeader read = readTableHeader(file.path().string());
    if (!read.fault.empty()) {
      TableFileInfo& table = tables.emplace_back();
      table.path = file.path().filename().string();
      table.fault = read.fault;
      continue;
    }
    const TableHeader& header = read.header;
    tables.push_back({.path = header.path,
                      .typeName = header.typeName,
                      .collection = header.collection,
                      .size = read.liveCount,
                      .capacity = header.capacity,
                      .generation = read.generation,
                      .reconciled = read.generation != 0 && read.generation == read.reconciled,
                      .writerAlive = tableLocked(tableDirectory(runDirectory), header.path),
                      .fault = {}});
  }
  std::sort(tables.begin(), tables.end(), [](const auto& a, const auto& b) { return a.path < b.path; });
  return tables;
}

}  // namespace LinuxPlatform
