// Messages of the netlink protocol, taken apart. They may come from anybody: each length is checked before a byte
// behind it is looked at, and what is not as it should be is "nothing", never an exception.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <string>

#include "platform/values/Net.h"

struct nlmsghdr;

namespace Netlink {

using Bytes = std::span<const std::byte>;

struct Attribute {
  std::uint16_t type = 0;  // without the bits that say how it is to be read
  Bytes payload;
};

// A list of attributes in bytes that outlive it. Of several of one type the last counts, as in the kernel.
class Attributes {
 public:
  Attributes() = default;
  explicit Attributes(Bytes bytes) : bytes_(bytes) {}
  // Every attribute lies within the bytes, and nothing is left behind the last.
  bool isWhole() const;
  // In their order, up to the first that is not whole.
  template <class Visit>
  void forEach(Visit visit) const {
    Bytes rest = bytes_;
    while (const auto attribute = next(rest)) visit(*attribute);
  }
  std::optional<Bytes> find(std::uint16_t type) const;
  bool has(std::uint16_t type) const { return find(type).has_value(); }
  // In host order. Nothing: it is not there, or not of this size.
  template <class Number>
  std::optional<Number> number(std::uint16_t type) const {
    const auto payload = find(type);
    if (!payload || payload->size() != sizeof(Number)) return std::nullopt;
    Number value;
    std::memcpy(&value, payload->data(), sizeof value);
    return value;
  }
  // In network order.
  template <class Number>
  std::optional<Number> bigEndian(std::uint16_t type) const {
    const auto value = number<Number>(type);
    return value ? std::optional(Platform::bigEndian(*value)) : std::nullopt;
  }
  // Of the family that its length says.
  std::optional<IpGenAddr> address(std::uint16_t type) const;
  std::optional<EthAddr> mac(std::uint16_t type) const;
  // Up to the first zero.
  std::optional<std::string> text(std::uint16_t type) const;
  // Empty: it is not there, or is not whole.
  Attributes nested(std::uint16_t type) const;

 private:
  // The one that `rest` begins with, which goes from there. Nothing: there is none that is whole.
  static std::optional<Attribute> next(Bytes& rest);
  Bytes bytes_;
};

// The message that `rest`, aligned to four bytes, begins with, which goes from there with its padding. Null: there is
// none that is whole; no byte is taken then.
const nlmsghdr* nextMessage(Bytes& rest);

// What stands in a message before its attributes: an rtmsg, a ndmsg, ... Null: the message is too short. And the
// attributes behind it.
Bytes payloadOf(const nlmsghdr& message);
template <class Header>
const Header* headerOf(const nlmsghdr& message) {
  const Bytes payload = payloadOf(message);
  return payload.size() < sizeof(Header) ? nullptr : reinterpret_cast<const Header*>(payload.data());
}
template <class Header>
Attributes attributesOf(const nlmsghdr& message) {
  constexpr std::size_t begin = (sizeof(Header) + 3) & ~std::size_t{3};
  const Bytes payload = payloadOf(message);
  return Attributes(payload.size() < begin ? Bytes() : payload.subspan(begin));
}

}  // namespace Netlink
