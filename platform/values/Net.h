// The network value types: addresses, prefixes, MAC addresses, interface names. Plain values of fixed width, trivially
// copyable, so that they can lie in shared memory; they stand in the global namespace because the whole system speaks
// in them. Every one has ==, an order, hash() and a TextForm.
#pragma once

#include <array>
#include <bit>
#include <compare>
#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>

#include "platform/values/ByteOrder.h"
#include "platform/values/Hash.h"
#include "platform/values/Text.h"

// Thrown for a number outside what a type admits: a prefix length of 33, a name of 101 bytes.
class RangeError : public std::out_of_range {
 public:
  using std::out_of_range::out_of_range;
};

enum class AddressFamily : std::uint8_t { none = 0, ipv4 = 1, ipv6 = 2 };

// An IPv4 address. The number is in host order: 10.0.0.1 is 0x0a000001. Ordered by that number.
class IpAddr {
 public:
  constexpr IpAddr() = default;
  constexpr explicit IpAddr(std::uint32_t value) : value_(value) {}
  constexpr std::uint32_t value() const { return value_; }
  constexpr bool isZero() const { return value_ == 0; }
  constexpr auto operator<=>(const IpAddr&) const = default;
  constexpr std::uint64_t hash() const { return Platform::hashOf(value_); }

 private:
  std::uint32_t value_ = 0;
};

// An IPv6 address: 16 bytes in network order, ordered as those bytes are. Its text form is that of RFC 5952.
class Ip6Addr {
 public:
  using Bytes = std::array<std::uint8_t, 16>;
  constexpr Ip6Addr() = default;
  constexpr explicit Ip6Addr(const Bytes& bytes) : bytes_(bytes) {}
  // From the two halves in host order.
  constexpr Ip6Addr(std::uint64_t high, std::uint64_t low)
      : bytes_(std::bit_cast<Bytes>(Halves{Platform::bigEndian(high), Platform::bigEndian(low)})) {}
  constexpr const Bytes& bytes() const { return bytes_; }
  constexpr std::uint64_t high() const { return Platform::bigEndian(halves()[0]); }  // bytes 0..7 in host order
  constexpr std::uint64_t low() const { return Platform::bigEndian(halves()[1]); }   // bytes 8..15 in host order
  constexpr bool isZero() const { return *this == Ip6Addr(); }
  constexpr bool operator==(const Ip6Addr& other) const {
    return ((halves()[0] ^ other.halves()[0]) | (halves()[1] ^ other.halves()[1])) == 0;
  }
  constexpr auto operator<=>(const Ip6Addr& other) const {
    const auto order = high() <=> other.high();
    return order != 0 ? order : low() <=> other.low();
  }
  constexpr std::uint64_t hash() const { return Platform::hashMix(Platform::hashOf(high()), low()); }

 private:
  using Halves = std::array<std::uint64_t, 2>;  // as they lie in memory
  constexpr Halves halves() const { return std::bit_cast<Halves>(bytes_); }
  Bytes bytes_{};
};

// An address of either family, or none. Ordered by family (none, IPv4, IPv6), then by address. Text: the address's own;
// the empty one is "".
class IpGenAddr {
 public:
  constexpr IpGenAddr() = default;
  constexpr IpGenAddr(IpAddr addr) : family_(AddressFamily::ipv4), addr_(0, addr.value()) {}  // NOLINT: a widening
  constexpr IpGenAddr(Ip6Addr addr) : family_(AddressFamily::ipv6), addr_(addr) {}            // NOLINT: a widening
  constexpr AddressFamily family() const { return family_; }
  constexpr bool isEmpty() const { return family_ == AddressFamily::none; }
  constexpr bool isV4() const { return family_ == AddressFamily::ipv4; }
  constexpr bool isV6() const { return family_ == AddressFamily::ipv6; }
  // Meaningful only for the family at hand.
  constexpr IpAddr v4() const { return IpAddr(static_cast<std::uint32_t>(addr_.low())); }
  constexpr Ip6Addr v6() const { return addr_; }
  constexpr bool operator==(const IpGenAddr&) const = default;
  constexpr auto operator<=>(const IpGenAddr& other) const {
    const auto order = family_ <=> other.family_;
    return order != 0 ? order : addr_ <=> other.addr_;
  }
  constexpr std::uint64_t hash() const { return Platform::hashMix(addr_.hash(), static_cast<std::uint64_t>(family_)); }

 private:
  AddressFamily family_ = AddressFamily::none;
  Ip6Addr addr_;  // an IPv4 address lies in the low 32 bits
};

// An IPv4 prefix. Host bits are cleared on construction; a length over 32 throws RangeError. Ordered by address, then
// by length, shorter first. Text: "10.0.0.0/8".
class Prefix {
 public:
  using Addr = IpAddr;
  static constexpr unsigned maxLength = 32;
  constexpr Prefix() = default;
  constexpr Prefix(IpAddr addr, unsigned length)
      : addr_(addr.value() & mask(checked(length))), length_(narrow(length)) {}
  constexpr IpAddr addr() const { return addr_; }
  constexpr unsigned length() const { return length_; }
  constexpr bool isHost() const { return length_ == maxLength; }
  // The mask with the top `length` bits set, host order.
  static constexpr std::uint32_t mask(unsigned length) { return length == 0 ? 0 : ~std::uint32_t{0} << (32 - length); }
  // The highest address inside the prefix.
  constexpr IpAddr last() const { return IpAddr(addr_.value() | ~mask(length_)); }
  // True when every address of `other` lies in this prefix; a prefix covers itself.
  constexpr bool covers(const Prefix& other) const {
    return length_ <= other.length_ && ((addr_.value() ^ other.addr_.value()) & mask(length_)) == 0;
  }
  // Bit i of the address, counted from the most significant, i < 32.
  constexpr bool bit(unsigned i) const { return (addr_.value() >> (31 - i) & 1) != 0; }
  constexpr auto operator<=>(const Prefix&) const = default;
  constexpr std::uint64_t hash() const { return Platform::hashOf(std::uint64_t{addr_.value()} << 8 | length_); }

 private:
  static constexpr unsigned checked(unsigned length) {
    if (length > maxLength) throw RangeError("IPv4 prefix length over 32");
    return length;
  }
  static constexpr std::uint8_t narrow(unsigned length) { return static_cast<std::uint8_t>(length); }
  IpAddr addr_;
  std::uint8_t length_ = 0;
};

// An IPv6 prefix, with the same rules over 128 bits. Text: "2001:db8::/32".
class Ip6Prefix {
 public:
  using Addr = Ip6Addr;
  static constexpr unsigned maxLength = 128;
  constexpr Ip6Prefix() = default;
  constexpr Ip6Prefix(const Ip6Addr& addr, unsigned length)
      : addr_(addr.high() & highMask(checked(length)), addr.low() & lowMask(checked(length))),
        length_(static_cast<std::uint8_t>(length)) {}
  constexpr const Ip6Addr& addr() const { return addr_; }
  constexpr unsigned length() const { return length_; }
  constexpr bool isHost() const { return length_ == maxLength; }
  constexpr bool covers(const Ip6Prefix& other) const {
    return length_ <= other.length_ && ((addr_.high() ^ other.addr_.high()) & highMask(length_)) == 0 &&
           ((addr_.low() ^ other.addr_.low()) & lowMask(length_)) == 0;
  }
  constexpr bool bit(unsigned i) const {
    return ((i < 64 ? addr_.high() >> (63 - i) : addr_.low() >> (127 - i)) & 1) != 0;
  }
  // The masks of the two halves for a length of 0 to 128.
  static constexpr std::uint64_t highMask(unsigned length) { return halfMask(length > 64 ? 64 : length); }
  static constexpr std::uint64_t lowMask(unsigned length) { return halfMask(length > 64 ? length - 64 : 0); }
  constexpr bool operator==(const Ip6Prefix&) const = default;
  constexpr auto operator<=>(const Ip6Prefix& other) const {
    const auto order = addr_ <=> other.addr_;
    return order != 0 ? order : length_ <=> other.length_;
  }
  constexpr std::uint64_t hash() const { return Platform::hashMix(addr_.hash(), length_); }

 private:
  static constexpr unsigned checked(unsigned length) {
    if (length > maxLength) throw RangeError("IPv6 prefix length over 128");
    return length;
  }
  static constexpr std::uint64_t halfMask(unsigned bits) { return bits == 0 ? 0 : ~std::uint64_t{0} << (64 - bits); }
  Ip6Addr addr_;
  std::uint8_t length_ = 0;
};

// A prefix of either family, or the empty one. The empty one has no family; 0.0.0.0/0 and ::/0 are not empty. Ordered
// by family (none, IPv4, IPv6), then as the family orders. Text: the prefix's own; the empty one is "".
class IpGenPrefix {
 public:
  constexpr IpGenPrefix() = default;
  constexpr IpGenPrefix(const Prefix& prefix)  // NOLINT: a widening
      : addr_(prefix.addr()), length_(static_cast<std::uint8_t>(prefix.length())) {}
  constexpr IpGenPrefix(const Ip6Prefix& prefix)  // NOLINT: a widening
      : addr_(prefix.addr()), length_(static_cast<std::uint8_t>(prefix.length())) {}
  constexpr AddressFamily family() const { return addr_.family(); }
  constexpr bool isEmpty() const { return addr_.isEmpty(); }
  constexpr bool isV4() const { return addr_.isV4(); }
  constexpr bool isV6() const { return addr_.isV6(); }
  constexpr unsigned length() const { return length_; }
  constexpr const IpGenAddr& addr() const { return addr_; }
  // Meaningful only for the family at hand.
  constexpr Prefix v4() const { return {addr_.v4(), length_}; }
  constexpr Ip6Prefix v6() const { return {addr_.v6(), length_}; }
  constexpr bool operator==(const IpGenPrefix&) const = default;
  constexpr auto operator<=>(const IpGenPrefix& other) const {
    const auto order = addr_ <=> other.addr_;
    return order != 0 ? order : length_ <=> other.length_;
  }
  constexpr std::uint64_t hash() const { return Platform::hashMix(addr_.hash(), length_); }

 private:
  IpGenAddr addr_;
  std::uint8_t length_ = 0;
};

// A MAC address: 6 bytes as they go over the wire. Text: "00:1c:73:00:00:01"; upper case is read as well.
class EthAddr {
 public:
  using Bytes = std::array<std::uint8_t, 6>;
  constexpr EthAddr() = default;
  constexpr explicit EthAddr(const Bytes& bytes) : bytes_(bytes) {}
  constexpr const Bytes& bytes() const { return bytes_; }
  constexpr std::uint64_t value() const {  // the 48 bits as a number
    std::uint64_t value = 0;
    for (const auto byte : bytes_) value = value << 8 | byte;
    return value;
  }
  constexpr auto operator<=>(const EthAddr&) const = default;
  constexpr std::uint64_t hash() const { return Platform::hashOf(value()); }

 private:
  Bytes bytes_{};
};

// An interface, named by an identifier of 8 bytes: its name, up to 8 printable ASCII characters, zero filled
// ("Vxlan1", "Vxlan254"). The empty identifier is "". Ordered by the bytes of the name.
class IntfId {
 public:
  constexpr IntfId() = default;
  // Throws RangeError for a name over 8 bytes or one that holds a byte that is not printable ASCII.
  explicit IntfId(std::string_view name);
  std::string name() const;
  // The 8 name bytes, zero filled, as one big-endian number: what equality, order and hash go by.
  constexpr std::uint64_t value() const { return value_; }
  static constexpr IntfId fromValue(std::uint64_t value) {
    IntfId id;
    id.value_ = value;
    return id;
  }
  constexpr bool isEmpty() const { return value_ == 0; }
  constexpr auto operator<=>(const IntfId&) const = default;
  constexpr std::uint64_t hash() const { return Platform::hashOf(value_); }

 private:
  std::uint64_t value_ = 0;
};

namespace Bridging {
using ExtendedVlanId = std::uint16_t;  // a forwarding domain; 0 is none
}  // namespace Bridging

namespace Vxlan {
// A VXLAN network identifier, 0 to 0xFFFFFF, or the explicit absence of one. Text: the number, or "none".
class Vni {
 public:
  static constexpr std::uint32_t max = 0xFFFFFF;
  constexpr Vni() = default;
  constexpr explicit Vni(std::uint32_t value) : value_(value) {
    if (value > max) throw RangeError("VNI over 16777215");
  }
  constexpr bool isPresent() const { return value_ != absent; }
  constexpr std::uint32_t value() const { return value_; }  // over max when absent
  constexpr auto operator<=>(const Vni&) const = default;
  constexpr std::uint64_t hash() const { return Platform::hashOf(value_); }

 private:
  static constexpr std::uint32_t absent = 0xFFFFFFFF;
  std::uint32_t value_ = absent;
};
}  // namespace Vxlan

namespace L3 {
// A VRF's name: at most 100 bytes, else RangeError. The default value is the default VRF, "default". From a text come
// only names that every tool can give back: UTF-8, no zero byte.
class VrfName {
 public:
  static constexpr std::size_t maxLength = 100;
  VrfName() : name_("default") {}
  VrfName(std::string_view name);                                        // NOLINT: a name is a name
  VrfName(const char* name) : VrfName(std::string_view(name)) {}         // NOLINT
  VrfName(const std::string& name) : VrfName(std::string_view(name)) {}  // NOLINT
  const std::string& text() const { return name_; }
  bool isDefault() const { return name_ == "default"; }
  auto operator<=>(const VrfName&) const = default;
  std::uint64_t hash() const;

 private:
  std::string name_;
};
}  // namespace L3

namespace Fib {
// The FEC library: forwarding equivalence classes are named by 64 bits, the adjacency type in bits 63..56 and the
// per-type index in the low 32 bits. 0 is no FEC.
constexpr unsigned adjTypePos() {
  return 56;
}
constexpr std::uint64_t adjTypeMax() {
  return 31;
}
}  // namespace Fib

namespace Pondra::Fib {
// Adjacency types by number. Only those that this system names are listed.
enum class AdjType : std::uint8_t {
  none = 0,
  ipv4NexthopAdj_ = 1,
  ipv6NexthopAdj_ = 2,
  routeCacheFwdAdj_ = 24,
};
}  // namespace Pondra::Fib

namespace Fib {
template <class Tag>
class BasicFecId {
 public:
  constexpr BasicFecId() = default;
  constexpr explicit BasicFecId(std::uint64_t value) : value_(value) {}
  constexpr BasicFecId(Pondra::Fib::AdjType type, std::uint32_t index)
      : value_(static_cast<std::uint64_t>(type) << adjTypePos() | index) {}
  constexpr std::uint64_t value() const { return value_; }
  // Asserts "(value_ >> Fib::adjTypePos()) < Fib::adjTypeMax()".
  Pondra::Fib::AdjType adjType() const;
  constexpr std::uint32_t index() const { return static_cast<std::uint32_t>(value_); }
  constexpr bool isEmpty() const { return value_ == 0; }
  constexpr auto operator<=>(const BasicFecId&) const = default;
  constexpr std::uint64_t hash() const { return Platform::hashOf(value_); }

 private:
  std::uint64_t value_ = 0;
};
using FecId = BasicFecId<struct FecIdTag>;              // local to this switch's FIB
using GlobalFecId = BasicFecId<struct GlobalFecIdTag>;  // the same bits, switch-wide
extern template class BasicFecId<struct FecIdTag>;
extern template class BasicFecId<struct GlobalFecIdTag>;
}  // namespace Fib

namespace Platform {

#define PLATFORM_TEXT_FORM(Type, text)                        \
  template <>                                                 \
  struct TextForm<Type> {                                     \
    static constexpr const char* what = text;                 \
    static std::string to(const Type& value);                 \
    static std::optional<Type> from(std::string_view string); \
  }
PLATFORM_TEXT_FORM(IpAddr, "an IPv4 address");
PLATFORM_TEXT_FORM(Ip6Addr, "an IPv6 address");
PLATFORM_TEXT_FORM(IpGenAddr, "an IP address");
PLATFORM_TEXT_FORM(Prefix, "an IPv4 prefix");
PLATFORM_TEXT_FORM(Ip6Prefix, "an IPv6 prefix");
PLATFORM_TEXT_FORM(IpGenPrefix, "an IP prefix");
PLATFORM_TEXT_FORM(EthAddr, "a MAC address");
PLATFORM_TEXT_FORM(IntfId, "an interface name of at most 8 bytes");
PLATFORM_TEXT_FORM(Vxlan::Vni, "a VNI (0 to 16777215, or none)");
PLATFORM_TEXT_FORM(L3::VrfName, "a VRF name (UTF-8, at most 100 bytes, none of them zero)");
PLATFORM_TEXT_FORM(Fib::FecId, "a FEC id (decimal, or hexadecimal after 0x)");
PLATFORM_TEXT_FORM(Fib::GlobalFecId, "a FEC id (decimal, or hexadecimal after 0x)");

}  // namespace Platform

std::ostream& operator<<(std::ostream& out, const IpAddr& value);
std::ostream& operator<<(std::ostream& out, const Ip6Addr& value);
std::ostream& operator<<(std::ostream& out, const IpGenAddr& value);
std::ostream& operator<<(std::ostream& out, const Prefix& value);
std::ostream& operator<<(std::ostream& out, const Ip6Prefix& value);
std::ostream& operator<<(std::ostream& out, const IpGenPrefix& value);
std::ostream& operator<<(std::ostream& out, const EthAddr& value);
std::ostream& operator<<(std::ostream& out, const IntfId& value);
