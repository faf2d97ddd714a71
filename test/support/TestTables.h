// Two small table types for tests of the table service, with values that show at once when they are torn: every word of
// a value is the same.
#pragma once

#include <cstring>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/services/AgentBase.h"
#include "platform/tables/SharedTable.h"

namespace TestTables {

// Ten words under a number.
struct FixedRecord {
  std::uint64_t number = 0;
  std::uint64_t word = 0;
  std::uint64_t key() const { return number; }
  bool operator==(const FixedRecord&) const = default;
};

// As many words as `count` says.
struct SizedRecord {
  static constexpr std::uint32_t maxCount = 160;
  std::uint64_t number = 0;
  std::uint64_t word = 0;
  std::uint32_t count = 0;
  std::uint64_t key() const { return number; }
  bool operator==(const SizedRecord&) const = default;
};

// Twelve bytes, so that a key takes more than one word and does not fill the last.
inline void encodeNumber(std::uint64_t number, std::byte* out) {
  for (int i = 0; i < 8; ++i) out[i] = static_cast<std::byte>(number >> 4 >> (56 - 8 * i) & 0xff);
  for (int i = 8; i < 11; ++i) out[i] = std::byte{0};
  out[11] = static_cast<std::byte>(number & 15);
}
inline std::uint64_t decodeNumber(const std::byte* in) {
  std::uint64_t number = 0;
  for (int i = 0; i < 8; ++i) number = number << 8 | static_cast<std::uint64_t>(in[i]);
  return number << 4 | static_cast<std::uint64_t>(in[11]);
}
inline std::size_t encodeWords(std::uint64_t word, std::uint32_t count, std::byte* out) {
  for (std::uint32_t i = 0; i < count; ++i) std::memcpy(out + 8 * i, &word, 8);
  return 8 * std::size_t{count};
}
// The word that all words of these bytes are; nothing when they differ.
inline std::optional<std::uint64_t> decodeWords(Pondra::Bytes in) {
  std::uint64_t first = 0;
  for (std::size_t at = 0; at < in.size(); at += 8) {
    std::uint64_t word = 0;
    std::memcpy(&word, in.data() + at, 8);
    if (at == 0) first = word;
    if (word != first) return std::nullopt;
  }
  return first;
}

}  // namespace TestTables

namespace Pondra {

template <>
struct TableTraits<TestTables::FixedRecord> {
  using Value = TestTables::FixedRecord;
  using Key = std::uint64_t;
  static constexpr std::uint32_t keySize = 12, maxValueSize = 80, layoutVersion = 1;
  static constexpr bool variableSize = false;
  static void encodeKey(const Key& key, std::byte* out) { TestTables::encodeNumber(key, out); }
  static Key decodeKey(const std::byte* in) { return TestTables::decodeNumber(in); }
  static std::size_t encode(const Value& value, std::byte* out) { return TestTables::encodeWords(value.word, 10, out); }
  static std::optional<Value> decode(const Key& key, Bytes in) {
    const auto word = TestTables::decodeWords(in);
    if (!word || in.size() != maxValueSize) return std::nullopt;
    return Value{key, *word};
  }
  static std::vector<std::pair<std::string, std::string>> fields(const Value& value) {
    return {{"number", std::to_string(value.number)}, {"word", std::to_string(value.word)}};
  }
  static std::string text(const Value& value) {
    return std::to_string(value.number) + ": " + std::to_string(value.word);
  }
};

template <>
struct TableTraits<TestTables::SizedRecord> {
  using Value = TestTables::SizedRecord;
  using Key = std::uint64_t;
  static constexpr std::uint32_t keySize = 12, maxValueSize = 8 * Value::maxCount, layoutVersion = 1;
  static constexpr bool variableSize = true;
  static void encodeKey(const Key& key, std::byte* out) { TestTables::encodeNumber(key, out); }
  static Key decodeKey(const std::byte* in) { return TestTables::decodeNumber(in); }
  static std::size_t encode(const Value& value, std::byte* out) {
    return TestTables::encodeWords(value.word, value.count, out);
  }
  static std::optional<Value> decode(const Key& key, Bytes in) {
    const auto word = TestTables::decodeWords(in);
    if (!word || in.size() % 8 != 0) return std::nullopt;
    return Value{key, *word, static_cast<std::uint32_t>(in.size() / 8)};
  }
  static std::vector<std::pair<std::string, std::string>> fields(const Value& value) {
    return {{"number", std::to_string(value.number)}, {"count", std::to_string(value.count)}};
  }
  static std::string text(const Value& value) {
    return std::to_string(value.number) + ": " + std::to_string(value.count) + " x " + std::to_string(value.word);
  }
};

}  // namespace Pondra

namespace TestTables {

class FixedTable final : public Pondra::RouteTable<FixedRecord> {
 public:
  using RouteTable::RouteTable;
  static constexpr const char* typeName = "Test::FixedTable";
  Pondra::TableLayout layout() const override { return Pondra::layoutOf<FixedTable>(); }
};

class SizedTable final : public Pondra::RouteTable<SizedRecord> {
 public:
  using RouteTable::RouteTable;
  static constexpr const char* typeName = "Test::SizedTable";
  Pondra::TableLayout layout() const override { return Pondra::layoutOf<SizedTable>(); }
};

// The same entries as FixedTable, laid out by a later version.
class LaterTable final : public Pondra::RouteTable<FixedRecord> {
 public:
  using RouteTable::RouteTable;
  static constexpr const char* typeName = "Test::FixedTable";
  Pondra::TableLayout layout() const override {
    auto layout = Pondra::layoutOf<LaterTable>();
    layout.version = 2;
    return layout;
  }
};

inline Platform::TableTypes types() {
  Platform::TableTypes types;
  types.typeIs<FixedTable>();
  types.typeIs<SizedTable>();
  return types;
}

}  // namespace TestTables
