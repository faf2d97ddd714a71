// Numbers and addresses as bytes of a table entry. Big endian throughout, so that keys compare with memcmp as the
// numbers order.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstring>

#include "platform/values/Net.h"

namespace Platform {

// Writes one after the other; the caller has made sure of the room.
class WireWriter {
 public:
  explicit WireWriter(std::byte* out) : begin_(out), out_(out) {}
  std::size_t size() const { return static_cast<std::size_t>(out_ - begin_); }
  template <std::unsigned_integral T>
  WireWriter& number(T value) {
    for (std::size_t i = sizeof(T); i-- > 0;) *out_++ = static_cast<std::byte>(value >> (8 * i));
    return *this;
  }
  WireWriter& bytes(const void* from, std::size_t count) {
    std::memcpy(out_, from, count);
    out_ += count;
    return *this;
  }
  WireWriter& address(const Ip6Addr& addr) { return bytes(addr.bytes().data(), 16); }
  // Family, then 16 bytes, an IPv4 address in the last four.
  WireWriter& address(const IpGenAddr& addr) {
    number(static_cast<std::uint8_t>(addr.family()));
    return address(addr.v6());
  }

 private:
  std::byte* begin_;
  std::byte* out_;
};

// Reads one after the other; the caller has made sure that the bytes are there.
class WireReader {
 public:
  explicit WireReader(const std::byte* in) : in_(in) {}
  template <std::unsigned_integral T>
  T number() {
    T value = 0;
    for (std::size_t i = 0; i < sizeof(T); ++i) {
      value = static_cast<T>(static_cast<std::uint64_t>(value) << 8 | std::to_integer<std::uint64_t>(*in_++));
    }
    return value;
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
  const std::byte* in_;
};

}  // namespace Platform
