#include "linux/files/TraceFile.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "linux/files/OwnFiles.h"

namespace LinuxPlatform {

using Platform::FastTraceSettings;
using Platform::TraceTag;

namespace {

constexpr std::size_t headerSize = 4096;
constexpr std::size_t definitionsSize = 256 * 1024;
constexpr std::uint32_t fillingFlag = 0x80000000;
constexpr std::size_t recordHeadSize = 28;
constexpr std::size_t recordTailSize = 4;
static_assert(sizeof(TraceFileHeader) <= headerSize);

std::uint64_t nanoseconds(clockid_t clock) {
  timespec time{};
  clock_gettime(clock, &time);
  return static_cast<std::uint64_t>(time.tv_sec) * 1'000'000'000 + static_cast<std::uint64_t>(time.tv_nsec);
}

template <class T>
void put(std::uint8_t* at, const T& value) {
  std::memcpy(at, &value, sizeof value);
}

template <class T>
T get(const std::uint8_t* at) {
  T value;
  std::memcpy(&value, at, sizeof value);
  return value;
}

constexpr std::uint64_t secondNs = 1'000'000'000;
// Less is the time between reading one clock and the other.
constexpr std::uint64_t leastStep = 1'000'000;

constexpr std::uint64_t roundedUp(std::uint64_t size) {
  return (size + 7) & ~std::uint64_t{7};
}

constexpr std::uint64_t recordLength(std::size_t itemsSize) {
  return roundedUp(recordHeadSize + itemsSize + recordTailSize);
}

constexpr std::uint64_t maxRecordLength = recordLength(Platform::maxTraceRecord);

// The bytes of the item at the front, its tag included; 0 when it is malformed or cut off.
std::size_t itemSize(std::span<const std::uint8_t> items) {
  std::size_t size = 0;
  switch (static_cast<TraceTag>(items[0])) {
    case TraceTag::fixedText:
      size = 1 + 8 + 2;
      break;
    case TraceTag::text:
      size = items.size() < 3 ? 0 : 3 + std::size_t{get<std::uint16_t>(&items[1])};
      break;
    case TraceTag::unsignedNumber:
    case TraceTag::signedNumber:
    case TraceTag::real:
      size = 1 + 8;
      break;
    case TraceTag::boolean:
      size = 1 + 1;
      break;
    case TraceTag::value:
      size = items.size() < 3 ? 0 : 3 + std::size_t{items[2]};
      break;
  }
  return size > items.size() ? 0 : size;
}

}  // namespace

// --- Writing ---------------------------------------------------------------------------------------------------------

TraceClocks TraceClocks::ofTheSystem() {
  return {[] { return nanoseconds(CLOCK_MONOTONIC); }, [] { return nanoseconds(CLOCK_REALTIME); }};
}

TraceFile::TraceFile(const std::string& fileName, const FastTraceSettings& settings, const TraceClocks& clocks)
    : clocks_(clocks), settings_(settings) {
  size_ = headerSize + definitionsSize;
  for (const auto kibibytes : settings.bufferSize) size_ += std::size_t{kibibytes} * 1024;

  std::rename(fileName.c_str(), (fileName + ".old").c_str());
  fd_ = FileDescriptor(open(fileName.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, readableMode));
  if (!fd_) throw std::system_error(errno, std::generic_category(), fileName);
  // All of it now: a disk that fills up later must not kill whoever writes into the mapping.
  int error = posix_fallocate(fd_.get(), 0, static_cast<off_t>(size_));
  void* mapping = MAP_FAILED;
  if (error == 0) {
    mapping = mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_SHARED, fd_.get(), 0);
    if (mapping == MAP_FAILED) error = errno;
  }
  if (error != 0) {
    unlink(fileName.c_str());
    throw std::system_error(error, std::generic_category(), fileName);
  }
  base_ = static_cast<std::uint8_t*>(mapping);
  header_ = reinterpret_cast<TraceFileHeader*>(base_);
  header_->processId = static_cast<std::uint64_t>(getpid());
  header_->epoch = clocks_.wall() - clocks_.monotonic();
  header_->overwrites = settings.overwrite ? 1 : 0;
  header_->definitionsOffset = headerSize;
  header_->definitionsSize = definitionsSize;
  std::uint64_t offset = headerSize + definitionsSize;
  for (std::size_t level = 0; level < TraceFileHeader::levels; ++level) {
    header_->rings[level].offset = offset;
    header_->rings[level].size = std::uint64_t{settings.bufferSize[level]} * 1024;
    offset += header_->rings[level].size;
  }
  std::atomic_ref(header_->magic).store(TraceFileHeader::magicNumber, std::memory_order_release);
  known_.resize(1024);
}

TraceFile::~TraceFile() {
  munmap(base_, size_);
}

void TraceFile::record(std::uint64_t time, std::string_view handle, unsigned level,
                       std::span<const std::uint8_t> items) {
  if (level >= TraceFileHeader::levels) return;
  TraceFileHeader::Ring& ring = header_->rings[level];
  const auto longest = items.first(std::min<std::size_t>(items.size(), settings_.maxRecordSize));
  std::uint8_t* to = roomFor(ring, recordLength(longest.size()));
  if (to == nullptr) {
    ++header_->lost;
    return;
  }
  const std::size_t itemsSize = copyItems(longest, to + recordHeadSize);
  const std::uint64_t length = recordLength(itemsSize);
  put(to, static_cast<std::uint32_t>(length));
  put(to + 4, static_cast<std::uint32_t>(itemsSize));
  put(to + 8, sequence_++);
  put(to + 16, time);
  put(to + 24, numberOfHandle(handle));
  put(to + length - recordTailSize, static_cast<std::uint32_t>(length));
  std::atomic_ref(ring.written).store(ring.written + length, std::memory_order_release);
  if (time >= nextEpochCheck_) checkEpoch(time);
  if (settings_.syncInterval != 0) syncSometimes(time);
}

// Where the next record of this length goes; null when the ring does not take it.
std::uint8_t* TraceFile::roomFor(TraceFileHeader::Ring& ring, std::uint64_t length) {
  const std::uint64_t at = ring.size == 0 ? 0 : ring.written % ring.size;
  const std::uint64_t filling = at + length > ring.size ? ring.size - at : 0;
  if (length > ring.size) return nullptr;
  if (!settings_.overwrite && ring.written + filling + length > ring.size) return nullptr;
  std::uint8_t* ringBase = base_ + ring.offset;
  if (filling == 0) return ringBase + at;
  const std::uint32_t mark = static_cast<std::uint32_t>(filling) | fillingFlag;
  put(ringBase + at, mark);
  put(ringBase + ring.size - recordTailSize, mark);
  std::atomic_ref(ring.written).store(ring.written + filling, std::memory_order_release);
  return ringBase;
}

// Copies the items, fixed texts by number; returns the bytes of those that are kept: whole ones, not too many.
std::size_t TraceFile::copyItems(std::span<const std::uint8_t> items, std::uint8_t* to) {
  std::memcpy(to, items.data(), items.size());
  std::size_t used = 0;
  for (std::uint32_t count = 0; used < items.size() && count < settings_.maxArguments; ++count) {
    const auto rest = items.subspan(used);
    const std::size_t size = itemSize(rest);
    if (size == 0) break;
    if (static_cast<TraceTag>(rest[0]) == TraceTag::fixedText) {
      const auto address = static_cast<std::uintptr_t>(get<std::uint64_t>(&rest[1]));
      put(to + used + 1, std::uint64_t{numberOfFixedText(address, get<std::uint16_t>(&rest[9]))});
    }
    used += size;
  }
  return used;
}

std::uint32_t TraceFile::define(std::string_view text) {
  const std::size_t used = header_->definitionsUsed;
  if (used + 2 + text.size() > header_->definitionsSize) return noNumber;
  std::uint8_t* at = base_ + header_->definitionsOffset + used;
  put(at, static_cast<std::uint16_t>(text.size()));
  std::memcpy(at + 2, text.data(), text.size());
  std::atomic_ref(header_->definitionsUsed).store(used + 2 + text.size(), std::memory_order_release);
  return definitions_++;
}

std::uint32_t TraceFile::numberOfFixedText(std::uintptr_t address, std::uint16_t length) {
  const std::size_t mask = known_.size() - 1;
  std::size_t at = (address * 0x9E3779B97F4A7C15U >> 40) & mask;
  while (known_[at].address != 0) {
    if (known_[at].address == address && known_[at].length == length) return known_[at].number;
    at = (at + 1) & mask;
  }
  const std::uint32_t number = define({reinterpret_cast<const char*>(address), length});  // NOLINT: it was a pointer
  known_[at] = {address, length, number};
  if (++knownCount_ * 2 > known_.size()) growKnown();
  return number;
}

void TraceFile::growKnown() {
  std::vector<Known> old = std::exchange(known_, std::vector<Known>(known_.size() * 2));
  for (const Known& entry : old) {
    if (entry.address == 0) continue;
    std::size_t at = (entry.address * 0x9E3779B97F4A7C15U >> 40) & (known_.size() - 1);
    while (known_[at].address != 0) at = (at + 1) & (known_.size() - 1);
    known_[at] = entry;
  }
}

// A handle may be gone and another stand at its address, so names are compared, not addresses; most often it is the
// last record's.
std::uint32_t TraceFile::numberOfHandle(std::string_view handle) {
  if (lastHandleNumber_ != noNumber && handle == lastHandle_) return lastHandleNumber_;
  auto found = handles_.find(handle);
  if (found == handles_.end()) {
    const std::string_view name = handle.substr(0, Platform::maxTraceRecord);
    found = handles_.emplace(std::string(handle), define(name)).first;
  }
  lastHandle_ = found->first;
  lastHandleNumber_ = found->second;
  return found->second;
}

void TraceFile::syncSometimes(std::uint64_t time) {
  if (time - lastSync_ < settings_.syncInterval * secondNs) return;
  lastSync_ = time;
  sync_file_range(fd_.get(), 0, 0, SYNC_FILE_RANGE_WRITE);  // starts the writing, does not wait for it
}

void TraceFile::checkEpoch(std::uint64_t time) {
  nextEpochCheck_ = time + secondNs;
  const std::uint64_t epoch = clocks_.wall() - clocks_.monotonic();
  const auto step = static_cast<std::int64_t>(epoch - header_->epoch);
  if (std::uint64_t(std::abs(step)) < leastStep) return;
  std::atomic_ref(header_->epoch).store(epoch, std::memory_order_relaxed);
}

bool FileTraceFacility::fastTraceInit(const FastTraceSettings& settings) {
  std::vector<std::string> names{placed(settings.fileName)};
  if (settings.secondFileName) names.push_back(placed(*settings.secondFileName));
  std::vector<std::unique_ptr<TraceFile>> files;
  try {
    for (const auto& name : names) files.push_back(std::make_unique<TraceFile>(name, settings, clocks_));
  } catch (const std::system_error& error) {
    std::fprintf(stderr, "no trace file: %s\n", error.what());
    return false;
  }
  files_ = std::move(files);
  fileName_ = names.front();
  for (const auto& early : std::exchange(early_, {})) {
    for (const auto& file : files_) file->record(early.time, early.handle, early.level, early.items);
  }
  return true;
}

std::string FileTraceFacility::placed(std::string name) const {
  const auto process = name.find("%d");
  if (process != std::string::npos) name.replace(process, 2, std::to_string(getpid()));
  return name.find('/') == std::string::npos ? directory_ + "/" + name : name;
}

void FileTraceFacility::record(std::string_view handle, unsigned level, std::span<const std::uint8_t> items) {
  const std::uint64_t time = clocks_.monotonic();
  for (const auto& file : files_) file->record(time, handle, level, items);
  if (!files_.empty() || early_.size() == maxEarly) return;
  early_.push_back({time, std::string(handle), level, {items.begin(), items.end()}});
}

// --- Reading ---------------------------------------------------------------------------------------------------------

namespace {

// A copy of a trace file's bytes; the file itself may go on changing.
class TraceImage {
 public:
  explicit TraceImage(const std::string& fileName) : fileName_(fileName) {
    const FileDescriptor fd(open(fileName.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (!fd) refuse(std::strerror(errno));
    struct stat status {};
    fstat(fd.get(), &status);
    const bool regular = S_ISREG(status.st_mode);
    if (regular) bytes_ = readAll(fd.get(), 0, static_cast<std::size_t>(status.st_size));
    const auto after = regular ? readAll(fd.get(), 0, sizeof header_) : std::vector<std::uint8_t>();
    if (bytes_.size() < headerSize || after.size() < sizeof header_) refuse("not a trace file");
    std::memcpy(&header_, bytes_.data(), sizeof header_);
    std::memcpy(&headerAfter_, after.data(), sizeof headerAfter_);
    if (header_.magic != TraceFileHeader::magicNumber) refuse("not a trace file");
    if (!inside(header_.definitionsOffset, header_.definitionsSize)) refuse("a damaged trace file");
    for (const auto& ring : header_.rings) {
      if (!inside(ring.offset, ring.size) || ring.size % 8 != 0) refuse("a damaged trace file");
    }
    readDefinitions();
  }

  const TraceFileHeader& header() const { return header_; }

  std::string definition(std::uint64_t number) const {
    return number < definitions_.size() ? definitions_[static_cast<std::size_t>(number)] : "?";
  }

  // Calls visit(record bytes, length) for each whole record of a ring, newest first.
  template <class Visit>
  void visitRing(std::size_t level, Visit&& visit) const {
    const TraceFileHeader::Ring& ring = header_.rings[level];
    if (ring.size == 0) return;
    const std::uint8_t* base = bytes_.data() + ring.offset;
    std::uint64_t end = ring.written;
    // What may have been overwritten meanwhile: by finished records, and by the one that was under way.
    const std::uint64_t writtenAfter = headerAfter_.rings[level].written + maxRecordLength;
    const bool overwritten = header_.overwrites != 0 && writtenAfter > ring.size;
    // Once round the ring and no further, whatever a damaged header says.
    const std::uint64_t once = ring.written > ring.size ? ring.written - ring.size : 0;
    const std::uint64_t oldest = std::max(once, overwritten ? writtenAfter - ring.size : 0);
    while (end > oldest && end % 8 == 0) {
      const std::uint64_t at = end % ring.size == 0 ? ring.size : end % ring.size;
      const auto mark = get<std::uint32_t>(base + at - recordTailSize);
      const std::uint64_t length = mark & ~fillingFlag;
      if (length < 8 || length % 8 != 0 || length > at || end - length < oldest) return;
      const std::uint8_t* record = base + at - length;
      if (get<std::uint32_t>(record) != mark) return;
      if ((mark & fillingFlag) == 0) {
        const bool whole = length >= recordHeadSize + recordTailSize &&
                           get<std::uint32_t>(record + 4) <= length - recordHeadSize - recordTailSize;
        if (!whole) return;
        visit(record);
      }
      end -= length;
    }
  }

 private:
  [[noreturn]] void refuse(const std::string& reason) const { throw std::runtime_error(fileName_ + ": " + reason); }

  bool inside(std::uint64_t offset, std::uint64_t size) const {
    return offset <= bytes_.size() && size <= bytes_.size() - offset;
  }

  static std::vector<std::uint8_t> readAll(int fd, off_t from, std::size_t size) {
    std::vector<std::uint8_t> bytes(size);
    std::size_t done = 0;
    while (done < size) {
      const ssize_t count = pread(fd, bytes.data() + done, size - done, from + static_cast<off_t>(done));
      if (count < 0 && errno == EINTR) continue;
      if (count <= 0) break;
      done += static_cast<std::size_t>(count);
    }
    bytes.resize(done);
    return bytes;
  }

  void readDefinitions() {
    std::span<const std::uint8_t> rest(bytes_.data() + header_.definitionsOffset,
                                       std::min(header_.definitionsUsed, header_.definitionsSize));
    while (rest.size() >= 2) {
      const std::size_t length = get<std::uint16_t>(rest.data());
      if (rest.size() - 2 < length) return;
      const auto text = rest.subspan(2, length);
      definitions_.emplace_back(text.begin(), text.end());
      rest = rest.subspan(2 + length);
    }
  }

  std::string fileName_;
  std::vector<std::uint8_t> bytes_;
  TraceFileHeader header_{};
  TraceFileHeader headerAfter_{};
  std::vector<std::string> definitions_;
};

}  // namespace

std::vector<TraceLine> readTrace(const std::string& fileName, const Platform::TraceVocabulary& vocabulary,
                                 unsigned maxLevel) {
  const TraceImage image(fileName);
  const auto fixedText = [&](std::uint64_t number, std::uint16_t) { return image.definition(number); };
  std::vector<TraceLine> lines;
  for (unsigned level = 0; level <= std::min(maxLevel, 9U); ++level) {
    image.visitRing(level, [&](const std::uint8_t* record) {
      const std::span items(record + recordHeadSize, get<std::uint32_t>(record + 4));
      lines.push_back({get<std::uint64_t>(record + 8), get<std::uint64_t>(record + 16) + image.header().epoch, level,
                       image.definition(get<std::uint32_t>(record + 24)), vocabulary.text(items, fixedText)});
    });
  }
  std::sort(lines.begin(), lines.end(), [](const TraceLine& a, const TraceLine& b) { return a.sequence < b.sequence; });
  return lines;
}

}  // namespace LinuxPlatform
