#include "platform/trace/Trace.h"

#include <algorithm>

namespace Platform {

void TraceRecord::add(std::string_view text) {
  const auto length = static_cast<std::uint16_t>(std::min<std::size_t>(text.size(), maxTraceRecord / 2));
  if (!open(TraceTag::text, 2U + length)) return;
  append(&length, 2);
  append(text.data(), length);
}

TraceVocabulary::TraceVocabulary() {
  valueTypeIs<IpAddr>();
  valueTypeIs<Ip6Addr>();
  valueTypeIs<IpGenAddr>();
  valueTypeIs<Prefix>();
  valueTypeIs<Ip6Prefix>();
  valueTypeIs<IpGenPrefix>();
  valueTypeIs<EthAddr>();
  valueTypeIs<IntfId>();
  valueTypeIs<Vxlan::Vni>();
  valueTypeIs<Fib::FecId>();
}

namespace {

// Reads items off the front of a record; every read is checked against its end.
class ItemReader {
 public:
  explicit ItemReader(std::span<const std::uint8_t> bytes) : rest_(bytes) {}
  bool atEnd() const { return rest_.empty(); }
  template <class T>
  bool read(T& value) {
    if (rest_.size() < sizeof(T)) return false;
    std::memcpy(&value, rest_.data(), sizeof(T));
    rest_ = rest_.subspan(sizeof(T));
    return true;
  }
  bool read(std::span<const std::uint8_t>& bytes, std::size_t count) {
    if (rest_.size() < count) return false;
    bytes = rest_.first(count);
    rest_ = rest_.subspan(count);
    return true;
  }

 private:
  std::span<const std::uint8_t> rest_;
};

}  // namespace

std::string TraceVocabulary::text(std::span<const std::uint8_t> items,
                                  const std::function<std::string(std::uint64_t, std::uint16_t)>& fixedText) const {
  std::string line;
  ItemReader reader(items);
  while (!reader.atEnd()) {
    std::uint8_t tag = 0;
    reader.read(tag);
    std::uint64_t number = 0;
    std::uint16_t length = 0;
    std::span<const std::uint8_t> bytes;
    switch (static_cast<TraceTag>(tag)) {
      case TraceTag::fixedText:
        if (!reader.read(number) || !reader.read(length)) return line + "?";
        line += fixedText(number, length);
        break;
      case TraceTag::text:
        if (!reader.read(length) || !reader.read(bytes, length)) return line + "?";
        line.append(bytes.begin(), bytes.end());
        break;
      case TraceTag::unsignedNumber:
        if (!reader.read(number)) return line + "?";
        line += std::to_string(number);
        break;
      case TraceTag::signedNumber:
        if (!reader.read(number)) return line + "?";
        line += std::to_string(static_cast<std::int64_t>(number));
        break;
      case TraceTag::real: {
        double real = 0;
        if (!reader.read(real)) return line + "?";
        line += TextForm<double>::to(real);
        break;
      }
      case TraceTag::boolean: {
        std::uint8_t boolean = 0;
        if (!reader.read(boolean)) return line + "?";
        line += boolean != 0 ? "true" : "false";
        break;
      }
      case TraceTag::value: {
        std::uint8_t code = 0;
        std::uint8_t size = 0;
        if (!reader.read(code) || !reader.read(size) || !reader.read(bytes, size)) return line + "?";
        const auto found = codes_.find(code);
        line += found == codes_.end() ? "?" : found->second(bytes);
        break;
      }
      default:
        return line + "?";
    }
  }
  return line;
}

std::string TraceVocabulary::text(std::span<const std::uint8_t> items) const {
  return text(items, [](std::uint64_t address, std::uint16_t length) {
    return std::string(reinterpret_cast<const char*>(static_cast<std::uintptr_t>(address)), length);  // NOLINT
  });
}

}  // namespace Platform
