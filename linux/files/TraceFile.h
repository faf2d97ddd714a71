// Trace files: the fast trace facility. Records go raw into a file mapped into memory, so a trace survives the process
// that wrote it, killed or not; whoever reads the file puts them into words.
//
// The file, host byte order:
//
//   header       4096 bytes, TraceFileHeader
//   definitions  texts that records name by number: u16 length and the bytes, one after the other; only ever added to
//   ring 0 .. 9  one for each level, so that a chatty level does not push out a quiet one
//
// A record in a ring, its length a multiple of 8:
//
//   offset  size  field
//        0     4  length of the whole record; with the top bit set it is filling up to the ring's end, nothing else
//        4     4  size of the items
//        8     8  sequence number over all levels
//       16     8  monotonic time, nanoseconds; the header says what to add for the wall clock's
//       24     4  definition number of the handle's name
//       28     n  items (platform/trace/Trace.h); a fixed text's 8 bytes hold its definition number
//        …     4  the length again, as the record's last bytes: a reader walks a ring backwards from its end, which is
//                 where the newest record ends
//
// `written` of a ring moves after its record is whole, so a record that its writer was killed in is not seen.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "lib/trace/TraceLevels.h"
#include "linux/files/FileDescriptor.h"
#include "platform/trace/Trace.h"

namespace LinuxPlatform {

struct TraceFileHeader {
  static constexpr std::uint64_t magicNumber = 0x0165636172544352;  // "RCTrace" and the version
  static constexpr std::size_t levels = 10;
  struct Ring {
    std::uint64_t offset;   // in the file
    std::uint64_t size;     // bytes
    std::uint64_t written;  // bytes ever written; the next record begins at this modulo size
  };
  std::uint64_t magic;
  std::uint64_t processId;
  std::uint64_t epoch;  // wall clock minus monotonic clock as last seen, nanoseconds
  std::uint64_t definitionsOffset;
  std::uint64_t definitionsSize;
  std::uint64_t overwrites;  // 1: a full ring overwrites its oldest records, 0: it takes no more
  std::uint64_t lost;        // records that found no room: too long, or in a ring that does not overwrite
  std::array<Ring, levels> rings;
  std::uint64_t definitionsUsed;  // behind the rings: read after them it covers what their records name
};
static_assert(sizeof(TraceFileHeader) == 8 * 8 + 10 * 24, "other processes read these bytes");

// Nanoseconds of the two clocks.
struct TraceClocks {
  std::uint64_t (*monotonic)();
  std::uint64_t (*wall)();
  static TraceClocks ofTheSystem();
};

// Writes one trace file. A record costs its copy and a table lookup for each fixed text in it.
//
// The wall clock may be set while the agent runs. Records keep the monotonic time, and the difference of the clocks is
// looked at again with the first record of each second: once it has changed, all records are shown by the clock as it
// is now, in their order and with the true time between them.
class TraceFile {
 public:
  // Makes the file; one of the same name is kept beside it as NAME.old. Throws std::system_error.
  TraceFile(const std::string& fileName, const Platform::FastTraceSettings& settings, const TraceClocks& clocks);
  ~TraceFile();
  TraceFile(const TraceFile&) = delete;
  TraceFile& operator=(const TraceFile&) = delete;

  // `time` is the monotonic clock's.
  void record(std::uint64_t time, std::string_view handle, unsigned level, std::span<const std::uint8_t> items);

 private:
  // Definition numbers of texts by where they lie in this process: fixed texts never move or change.
  struct Known {
    std::uintptr_t address = 0;
    std::uint32_t length = 0;
    std::uint32_t number = 0;
  };
  static constexpr std::uint32_t noNumber = 0xFFFFFFFF;

  std::uint32_t define(std::string_view text);
  std::uint32_t numberOfFixedText(std::uintptr_t address, std::uint16_t length);
  std::uint32_t numberOfHandle(std::string_view handle);
  void growKnown();
  std::size_t copyItems(std::span<const std::uint8_t> items, std::uint8_t* to);
  std::uint8_t* roomFor(TraceFileHeader::Ring& ring, std::uint64_t length);
  void syncSometimes(std::uint64_t time);
  void checkEpoch(std::uint64_t time);

  TraceClocks clocks_;
  Platform::FastTraceSettings settings_;
  FileDescriptor fd_;
  std::uint8_t* base_ = nullptr;
  std::size_t size_ = 0;
  TraceFileHeader* header_ = nullptr;
  std::uint64_t sequence_ = 0;
  std::uint64_t lastSync_ = 0;
  std::uint64_t nextEpochCheck_ = 0;  // monotonic time
  std::uint32_t definitions_ = 0;
  std::vector<Known> known_;  // open addressing, a power of two
  std::size_t knownCount_ = 0;
  std::map<std::string, std::uint32_t, std::less<>> handles_;
  std::string_view lastHandle_;  // of the last record: its own copy of the name
  std::uint32_t lastHandleNumber_ = noNumber;
};

// The process's tracing into trace files. What is recorded before the agent has named its file, the first maxEarly
// records of it, is kept and goes into the first file.
class FileTraceFacility final : public Platform::TraceFacility, private Platform::TraceSink {
 public:
  static constexpr std::size_t maxEarly = 64;

  // A file name without a slash goes into `directory`.
  explicit FileTraceFacility(std::string directory, const TraceClocks& clocks = TraceClocks::ofTheSystem())
      : directory_(std::move(directory)), clocks_(clocks) {}

  bool fastTraceInit(const Platform::FastTraceSettings& settings) override;
  int levelOf(std::string_view handle) const override { return levels_.levelOf(handle); }
  Platform::TraceSink& sink() override { return *this; }
  TraceLevels& levels() { return levels_; }
  // Of the first file, once there is one.
  const std::string& fileName() const { return fileName_; }

 private:
  std::string placed(std::string name) const;
  void record(std::string_view handle, unsigned level, std::span<const std::uint8_t> items) override;

  // A record whose file is not named yet.
  struct EarlyRecord {
    std::uint64_t time = 0;
    std::string handle;
    unsigned level = 0;
    std::vector<std::uint8_t> items;
  };

  std::string directory_;
  TraceClocks clocks_;
  std::vector<EarlyRecord> early_;
  TraceLevels levels_;
  std::string fileName_;
  std::vector<std::unique_ptr<TraceFile>> files_;
};

// One record of a trace file in words.
struct TraceLine {
  std::uint64_t sequence = 0;
  std::uint64_t time = 0;  // wall clock, nanoseconds since 1970
  unsigned level = 0;
  std::string handle;
  std::string text;
};

// The records of all levels up to `maxLevel`, oldest first. The file may be one that is being written. Throws
// std::runtime_error with one line that names the file; damage inside a ring ends that ring's records.
std::vector<TraceLine> readTrace(const std::string& fileName, const Platform::TraceVocabulary& vocabulary,
                                 unsigned maxLevel = 9);

}  // namespace LinuxPlatform
