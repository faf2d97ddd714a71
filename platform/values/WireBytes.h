// Numbers and addresses as bytes of a table entry. Big endian throughout, so that keys compare with memcmp as the
// numbers order.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <utility>

#include "platform/values/ByteOrder.h"
#include "platform/values/Net.h"

namespace Platform {

// Both go by words of eight bytes from the beginning on, and the rest in pieces of 4, 2 and 1: what a processor has
// just stored in one piece it loads at once, bytes of several pieces much later. A key is looked up as soon as it is
// written.

// Writes one after the other; the caller has made sure of the room. The bytes stand there once size() has been asked
// for or the writer has gone.
class WireWriter {
 public:
  explicit WireWriter(std::byte* out) : begin_(out), out_(out) {}
  WireWriter(const WireWriter&) = delete;
  WireWriter& operator=(const WireWriter&) = delete;
  ~WireWriter() { flush(); }
  std::size_t size() {
    flush();
    return static_cast<std::size_t>(out_ - begin_);
  }
  template <std::unsigned_integral T>
  WireWriter& number(T value) {
    const unsigned room = 8 - filled_;
    if (sizeof(T) < room) {
      word_ |= std::uint64_t{value} << 8 * (room - sizeof(T));
      filled_ += sizeof(T);
      return *this;
    }
    const unsigned left = sizeof(T) - room;  // bytes for the next word
    word_ |= std::uint64_t{value} >> 8 * left;
    putHighest<std::uint64_t>();
    word_ = left == 0 ? 0 : std::uint64_t{value} << (64 - 8 * left);
    filled_ = left;
    return *this;
  }
  WireWriter& bytes(const void* from, std::size_t count) {
    flush();
    std::memcpy(out_, from, count);
    out_ += count;
    return *this;
  }
  WireWriter& address(const Ip6Addr& addr) { return number(addr.high()).number(addr.low()); }
  // Family, then 16 bytes, an IPv4 address in the last four.
  WireWriter& address(const IpGenAddr& addr) {
    number(static_cast<std::uint8_t>(addr.family()));
    return address(addr.v6());
  }

 private:
  [[gnu::always_inline]] void flush() {
    if ((filled_ & 4) != 0) putHighest<std::uint32_t>();
    if ((filled_ & 2) != 0) putHighest<std::uint16_t>();
    if ((filled_ & 1) != 0) putHighest<std::uint8_t>();
    word_ = 0;
    filled_ = 0;
  }
  template <class Piece>
  void putHighest() {
    const std::uint64_t inMemory = bigEndian(word_);
    std::memcpy(out_, &inMemory, sizeof(Piece));
    out_ += sizeof(Piece);
    if constexpr (sizeof(Piece) < sizeof word_) word_ <<= 8 * sizeof(Piece);
  }

  std::byte* begin_;
  std::byte* out_;
  std::uint64_t word_ = 0;  // what is not there yet, from its highest byte on
  unsigned filled_ = 0;     // bytes of it
};

// Reads one after the other; the caller has made sure that the bytes are there.
class WireReader {
 public:
  explicit WireReader(const std::byte* in) : begin_(in), in_(in) {}
  template <std::unsigned_integral T>
  T number() {
    const std::byte* from = std::exchange(in_, in_ + sizeof(T));
    if (static_cast<std::size_t>(from - begin_) % 8 + sizeof(T) <= 8) {
      std::uint64_t word = 0;
      std::memcpy(&word, from, sizeof(T));
      return static_cast<T>(bigEndian(word) >> (64 - 8 * sizeof(T)));
    }
    std::uint64_t value = 0;  // of two words
    for (std::size_t i = 0; i < sizeof(T); ++i) value = value << 8 | std::to_integer<std::uint64_t>(from[i]);
    return static_cast<T>(value);
  }
  void bytes(void* to, std::size_t count) {
    std::memcpy(to, in_, count);
    in_ += count;
  }
  Ip6Addr address6() {
    Ip6Addr::Bytes value{};
    bytes(value.data(), value.size());
    return Ip6Addr(value);
  }
  // The empty address for a family that there is not.
  IpGenAddr address() {
    const auto family = static_cast<AddressFamily>(number<std::uint8_t>());
    const Ip6Addr addr = address6();
    if (family == AddressFamily::ipv4) return IpAddr(static_cast<std::uint32_t>(addr.low()));
    if (family == AddressFamily::ipv6) return addr;
    return {};
  }

 private:
  const std::byte* begin_;
  const std::byte* in_;
};

}  // namespace Platform
