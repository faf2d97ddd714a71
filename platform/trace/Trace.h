// Trace handles. A trace line costs a test of a level when it is off; when it is on its arguments are copied raw into a
// record and put into words by whoever reads the trace.
//
//   trace_(5, "allocated id: ", adjId);
//
// Levels run from 0 (always worth keeping) to 9 (every handler's signature on entry).
#pragma once

#include <array>
#include <cstdint>
#include <cstring>
#include <functional>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>

#include "platform/values/Net.h"

namespace Platform {

// --- Arguments -------------------------------------------------------------------------------------------------------
//
// A record's arguments are a sequence of items, each a tag byte and its bytes (host order):
//   'L'  8 + 2   a fixed text: its address in the tracing process and its length; the sink replaces it (below)
//   'S'  2 + n   a text: length, bytes
//   'U'  8       unsigned; 'I' 8 signed; 'D' 8 double; 'B' 1 bool
//   'V'  1 + 1 + n  a value type: its code, its length, its bytes; the code names the function that puts it into words
enum class TraceTag : std::uint8_t {
  fixedText = 'L',
  text = 'S',
  unsignedNumber = 'U',
  signedNumber = 'I',
  real = 'D',
  boolean = 'B',
  value = 'V',
};

// The code of a trivially copyable value type in records: 0 is none. Codes are part of the trace file's format: 1 to 31
// are the platform's (the list below), 32 and up the agent's. A type without a code is traced by its text.
template <class T>
inline constexpr std::uint8_t traceCode = 0;
template <>
inline constexpr std::uint8_t traceCode<IpAddr> = 1;
template <>
inline constexpr std::uint8_t traceCode<Ip6Addr> = 2;
template <>
inline constexpr std::uint8_t traceCode<IpGenAddr> = 3;
template <>
inline constexpr std::uint8_t traceCode<Prefix> = 4;
template <>
inline constexpr std::uint8_t traceCode<Ip6Prefix> = 5;
template <>
inline constexpr std::uint8_t traceCode<IpGenPrefix> = 6;
template <>
inline constexpr std::uint8_t traceCode<EthAddr> = 7;
template <>
inline constexpr std::uint8_t traceCode<IntfId> = 8;
template <>
inline constexpr std::uint8_t traceCode<Vxlan::Vni> = 9;
template <>
inline constexpr std::uint8_t traceCode<Fib::FecId> = 10;

// The longest record, arguments included: what does not fit is cut off at a whole argument.
inline constexpr std::size_t maxTraceRecord = 512;

class TraceRecord {
 public:
  std::span<const std::uint8_t> bytes() const { return {bytes_.data(), size_}; }

  template <std::size_t N>
  void add(const char (&literal)[N]) {
    const auto address = reinterpret_cast<std::uintptr_t>(static_cast<const char*>(literal));
    const auto length = static_cast<std::uint16_t>(N - 1);
    if (!open(TraceTag::fixedText, 10)) return;
    append(&address, 8);
    append(&length, 2);
  }
  void add(std::string_view text);
  void add(const std::string& text) { add(std::string_view(text)); }
  template <class T>
  void add(const T& value) {
    if constexpr (std::is_same_v<T, bool>) {
      if (open(TraceTag::boolean, 1)) append(&value, 1);
    } else if constexpr (std::is_floating_point_v<T>) {
      number(TraceTag::real, static_cast<double>(value));
    } else if constexpr (std::is_integral_v<T> && std::is_signed_v<T>) {
      number(TraceTag::signedNumber, static_cast<std::int64_t>(value));
    } else if constexpr (std::is_integral_v<T> || std::is_enum_v<T>) {
      number(TraceTag::unsignedNumber, static_cast<std::uint64_t>(value));
    } else if constexpr (traceCode<T> != 0) {
      static_assert(std::is_trivially_copyable_v<T> && sizeof(T) < 256);
      const std::array<std::uint8_t, 2> head{traceCode<T>, sizeof(T)};
      if (!open(TraceTag::value, 2 + sizeof(T))) return;
      append(head.data(), 2);
      append(&value, sizeof(T));
    } else {
      add(std::string_view(TextForm<T>::to(value)));
    }
  }

 private:
  template <class N>
  void number(TraceTag tag, N value) {
    if (open(tag, 8)) append(&value, 8);
  }
  bool open(TraceTag tag, std::size_t payload) {
    if (size_ + 1 + payload > bytes_.size()) return false;
    bytes_[size_++] = static_cast<std::uint8_t>(tag);
    return true;
  }
  void append(const void* from, std::size_t count) {
    std::memcpy(bytes_.data() + size_, from, count);
    size_ += count;
  }
  std::array<std::uint8_t, maxTraceRecord> bytes_;  // NOLINT: only the first size_ bytes are ever read
  std::size_t size_ = 0;
};

// Puts values into words by their code. The platform's own codes are there from the start.
class TraceVocabulary {
 public:
  using ToText = std::function<std::string(std::span<const std::uint8_t>)>;
  TraceVocabulary();
  void codeIs(std::uint8_t code, ToText toText) { codes_[code] = std::move(toText); }
  template <class T>
  void valueTypeIs() {
    codeIs(traceCode<T>, [](std::span<const std::uint8_t> bytes) {
      T value;
      if (bytes.size() != sizeof(T)) return std::string("?");
      std::memcpy(static_cast<void*>(&value), bytes.data(), sizeof(T));
      return TextForm<T>::to(value);
    });
  }
  // The items of one record, joined without separators. `fixedText` turns a fixed text's 8-byte name into the text;
  // in the tracing process that is the address itself. Malformed bytes end the text with "?".
  std::string text(std::span<const std::uint8_t> items,
                   const std::function<std::string(std::uint64_t, std::uint16_t)>& fixedText) const;
  // The same for a record that was made in this process.
  std::string text(std::span<const std::uint8_t> items) const;

 private:
  std::map<std::uint8_t, ToText> codes_;
};

// --- Handles and sinks -----------------------------------------------------------------------------------------------

// Where records go: a trace file, a test's list of lines. Called on the event thread.
class TraceSink {
 public:
  virtual ~TraceSink() = default;
  virtual void record(std::string_view handle, unsigned level, std::span<const std::uint8_t> items) = 0;
};

// The settings of the fast trace facility, in the order of its initialiser's arguments.
struct FastTraceSettings {
  std::string fileName;                       // "%d" in it becomes the process id
  std::array<std::uint32_t, 10> bufferSize;   // KiB per level 0 to 9; each level is a ring of its own
  std::optional<std::string> secondFileName;  // a copy of the trace; none
  std::uint32_t syncInterval = 0;             // seconds between forced writes to disk; 0: left to the kernel
  std::uint32_t maxArguments = 24;            // items kept of one record
  std::uint32_t multithreadingMode = 0;       // 0: one thread traces
  bool overwrite = true;                      // a full ring overwrites its oldest records
  std::uint32_t maxRecordSize = 512;          // bytes
};

// The process's tracing: which handles are on, and where records go. Outlives every handle.
class TraceFacility {
 public:
  virtual ~TraceFacility() = default;
  // Opens the trace file; false when that is impossible (the agent lives on without one).
  virtual bool fastTraceInit(const FastTraceSettings& settings) = 0;
  // The highest level that the handle of this name records, -1 for none; asked when a handle is made.
  virtual int levelOf(std::string_view handle) const = 0;
  virtual TraceSink& sink() = 0;
};

// Named after the state machine that it serves.
class TraceHandle {
 public:
  TraceHandle(TraceFacility& facility, std::string name)
      : name_(std::move(name)), level_(facility.levelOf(name_)), sink_(&facility.sink()) {}
  bool enabled(unsigned level) const { return static_cast<int>(level) <= level_; }
  // The highest level recorded; -1 is off.
  int level() const { return level_; }
  void levelIs(int level) { level_ = level; }

  template <class... Arguments>
  void operator()(unsigned level, const Arguments&... arguments) const {
    if (!enabled(level)) [[likely]]
      return;
    TraceRecord record;
    (record.add(arguments), ...);
    sink_->record(name_, level, record.bytes());
  }

 private:
  std::string name_;
  int level_;
  TraceSink* sink_;
};

}  // namespace Platform
