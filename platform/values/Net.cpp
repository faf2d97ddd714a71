#include "platform/values/Net.h"

#include <algorithm>
#include <charconv>
#include <ostream>

#include "platform/values/Assert.h"
#include "platform/values/Printable.h"

namespace {

constexpr bool isPrintableAscii(char c) {
  return c >= 0x20 && c <= 0x7e;
}

// --- Reading ---------------------------------------------------------------------------------------------------------

// A decimal number without sign or leading zeros, up to `max`, from the front of the text.
std::optional<std::uint32_t> takeNumber(std::string_view& text, std::uint32_t max) {
  std::uint32_t value = 0;
  std::size_t digits = 0;
  while (digits < text.size() && text[digits] >= '0' && text[digits] <= '9') {
    value = value * 10 + static_cast<std::uint32_t>(text[digits++] - '0');
    if (value > max) return std::nullopt;
  }
  if (digits == 0 || (digits > 1 && text[0] == '0')) return std::nullopt;
  text.remove_prefix(digits);
  return value;
}

bool take(std::string_view& text, char expected) {
  if (text.empty() || text[0] != expected) return false;
  text.remove_prefix(1);
  return true;
}

std::optional<std::uint32_t> readIpv4(std::string_view text) {
  std::uint32_t value = 0;
  for (unsigned i = 0; i < 4; ++i) {
    if (i > 0 && !take(text, '.')) return std::nullopt;
    const auto octet = takeNumber(text, 255);
    if (!octet) return std::nullopt;
    value = value << 8 | *octet;
  }
  if (!text.empty()) return std::nullopt;
  return value;
}

// The value of a hexadecimal digit of either case, or 16.
unsigned hexDigit(char c) {
  if (c >= '0' && c <= '9') return static_cast<unsigned>(c - '0');
  if (c >= 'a' && c <= 'f') return static_cast<unsigned>(c - 'a') + 10;
  if (c >= 'A' && c <= 'F') return static_cast<unsigned>(c - 'A') + 10;
  return 16;
}

// One to four hexadecimal digits from the front of the text.
std::optional<std::uint16_t> takeGroup(std::string_view& text) {
  unsigned value = 0;
  std::size_t digits = 0;
  for (; digits < text.size() && hexDigit(text[digits]) < 16; ++digits) {
    if (digits == 4) return std::nullopt;
    value = value << 4 | hexDigit(text[digits]);
  }
  if (digits == 0) return std::nullopt;
  text.remove_prefix(digits);
  return static_cast<std::uint16_t>(value);
}

using Groups = std::array<std::uint16_t, 8>;

// Groups with colons between them, up to the end of the text or to a "::", which is left standing. The last two groups
// may be written as an IPv4 address. False when the text is malformed or holds more groups than there is room for.
bool takeGroups(std::string_view& text, Groups& groups, std::size_t& count) {
  for (;;) {
    const std::string_view group = text.substr(0, text.find(':'));
    if (group.find('.') != std::string_view::npos) {
      const auto ipv4 = readIpv4(text);
      if (!ipv4 || count + 2 > groups.size()) return false;
      groups[count++] = static_cast<std::uint16_t>(*ipv4 >> 16);
      groups[count++] = static_cast<std::uint16_t>(*ipv4);
      text = {};
      return true;
    }
    const auto value = takeGroup(text);
    if (!value || count == groups.size()) return false;
    groups[count++] = *value;
    if (text.empty() || text.starts_with("::")) return true;
    if (!take(text, ':')) return false;
  }
}

std::optional<Ip6Addr> readIpv6(std::string_view text) {
  Groups groups{};
  std::size_t count = 0;
  if (!text.starts_with("::") && !takeGroups(text, groups, count)) return std::nullopt;
  if (text.empty()) {
    if (count != groups.size()) return std::nullopt;
  } else {
    text.remove_prefix(2);  // "::": at least one group of zeros
    Groups tail{};
    std::size_t tailCount = 0;
    if (!text.empty() && (!takeGroups(text, tail, tailCount) || !text.empty())) return std::nullopt;
    if (count + tailCount >= groups.size()) return std::nullopt;
    std::copy_n(tail.begin(), tailCount, groups.end() - static_cast<std::ptrdiff_t>(tailCount));
  }
  const auto half = [&](std::size_t from) {
    std::uint64_t value = 0;
    for (std::size_t i = from; i < from + 4; ++i) value = value << 16 | groups[i];
    return value;
  };
  return Ip6Addr(half(0), half(4));
}

// "address/length".
template <class P>
std::optional<P> readPrefix(std::string_view text) {
  const auto slash = text.find('/');
  if (slash == std::string_view::npos) return std::nullopt;
  const auto addr = Platform::TextForm<typename P::Addr>::from(text.substr(0, slash));
  text.remove_prefix(slash + 1);
  const auto length = takeNumber(text, P::maxLength);
  if (!addr || !length || !text.empty()) return std::nullopt;
  return P(*addr, *length);
}

// --- Writing ---------------------------------------------------------------------------------------------------------

void appendNumber(std::string& text, unsigned value) {
  std::array<char, 10> digits;
  text.append(digits.data(), std::to_chars(digits.data(), digits.data() + digits.size(), value).ptr);
}

void appendHex(std::string& text, std::uint64_t value) {
  std::array<char, 16> digits;
  text.append(digits.data(), std::to_chars(digits.data(), digits.data() + digits.size(), value, 16).ptr);
}

void appendIpv4(std::string& text, std::uint32_t value) {
  for (int shift = 24; shift >= 0; shift -= 8) {
    appendNumber(text, value >> shift & 0xff);
    if (shift > 0) text += '.';
  }
}

// Where "::" stands: the first of the longest runs of two or more zero groups.
struct ZeroRun {
  std::size_t begin = 8;
  std::size_t length = 1;
};

ZeroRun longestZeroRun(const Groups& groups) {
  ZeroRun best;
  for (std::size_t i = 0; i < groups.size(); ++i) {
    std::size_t end = i;
    while (end < groups.size() && groups[end] == 0) ++end;
    if (end - i > best.length) best = {i, end - i};
    i = std::max(i, end);
  }
  return best;
}

std::string ipv6Text(const Ip6Addr& addr) {
  std::string text;
  if (addr.high() == 0 && addr.low() >> 32 == 0xffff) {  // an IPv4-mapped address
    text = "::ffff:";
    appendIpv4(text, static_cast<std::uint32_t>(addr.low()));
    return text;
  }
  Groups groups;
  for (std::size_t i = 0; i < 8; ++i) {
    groups[i] = static_cast<std::uint16_t>((i < 4 ? addr.high() : addr.low()) >> (48 - 16 * (i % 4)));
  }
  const ZeroRun zeros = longestZeroRun(groups);
  for (std::size_t i = 0; i < groups.size(); ++i) {
    if (i == zeros.begin) {
      text += "::";
      i += zeros.length - 1;
      continue;
    }
    if (!text.empty() && text.back() != ':') text += ':';
    appendHex(text, groups[i]);
  }
  return text;
}

template <class P>
std::string prefixText(const P& prefix) {
  std::string text = Platform::toText(prefix.addr());
  text += '/';
  appendNumber(text, prefix.length());
  return text;
}

template <class Id>
std::string fecText(const Id& id) {
  std::string text = "0x";
  appendHex(text, id.value());
  return text;
}

template <class Id>
std::optional<Id> readFec(std::string_view text) {
  const int base = text.starts_with("0x") ? 16 : 10;
  if (base == 16) text.remove_prefix(2);
  std::uint64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return Id(value);
}

}  // namespace

// --- Types -----------------------------------------------------------------------------------------------------------

IntfId::IntfId(std::string_view name) {
  if (name.size() > 8) throw RangeError("interface name over 8 bytes");
  if (!std::all_of(name.begin(), name.end(), isPrintableAscii))
    throw RangeError("interface name that cannot be printed");
  for (std::size_t i = 0; i < 8; ++i) {
    value_ = value_ << 8 | (i < name.size() ? static_cast<std::uint8_t>(name[i]) : 0U);
  }
}

std::string IntfId::name() const {
  std::string name;
  for (std::uint64_t rest = value_; rest != 0; rest <<= 8) {
    const char c = static_cast<char>(rest >> 56);
    name += isPrintableAscii(c) ? c : '?';  // only fromValue() can have brought it in
  }
  return name;
}

L3::VrfName::VrfName(std::string_view name) : name_(name) {
  if (name.size() > maxLength) throw RangeError("VRF name over 100 bytes");
}

std::uint64_t L3::VrfName::hash() const {
  return Platform::hashBytes(reinterpret_cast<const unsigned char*>(name_.data()), name_.size());
}

namespace Fib {

template <class Tag>
Pondra::Fib::AdjType BasicFecId<Tag>::adjType() const {
  PLATFORM_ASSERT((value_ >> Fib::adjTypePos()) < Fib::adjTypeMax());
  return static_cast<Pondra::Fib::AdjType>(value_ >> adjTypePos());
}

template class BasicFecId<struct FecIdTag>;
template class BasicFecId<struct GlobalFecIdTag>;

}  // namespace Fib

// --- Texts -----------------------------------------------------------------------------------------------------------

namespace Platform {

std::string TextForm<IpAddr>::to(const IpAddr& value) {
  std::string text;
  appendIpv4(text, value.value());
  return text;
}

std::optional<IpAddr> TextForm<IpAddr>::from(std::string_view string) {
  const auto value = readIpv4(string);
  return value ? std::optional(IpAddr(*value)) : std::nullopt;
}

std::string TextForm<Ip6Addr>::to(const Ip6Addr& value) {
  return ipv6Text(value);
}

std::optional<Ip6Addr> TextForm<Ip6Addr>::from(std::string_view string) {
  return readIpv6(string);
}

std::string TextForm<IpGenAddr>::to(const IpGenAddr& value) {
  if (value.isEmpty()) return {};
  return value.isV4() ? toText(value.v4()) : toText(value.v6());
}

std::optional<IpGenAddr> TextForm<IpGenAddr>::from(std::string_view string) {
  if (string.empty()) return IpGenAddr();
  if (string.find(':') != std::string_view::npos) return TextForm<Ip6Addr>::from(string);
  return TextForm<IpAddr>::from(string);
}

std::string TextForm<Prefix>::to(const Prefix& value) {
  return prefixText(value);
}

std::optional<Prefix> TextForm<Prefix>::from(std::string_view string) {
  return readPrefix<Prefix>(string);
}

std::string TextForm<Ip6Prefix>::to(const Ip6Prefix& value) {
  return prefixText(value);
}

std::optional<Ip6Prefix> TextForm<Ip6Prefix>::from(std::string_view string) {
  return readPrefix<Ip6Prefix>(string);
}

std::string TextForm<IpGenPrefix>::to(const IpGenPrefix& value) {
  if (value.isEmpty()) return {};
  return value.isV4() ? toText(value.v4()) : toText(value.v6());
}

std::optional<IpGenPrefix> TextForm<IpGenPrefix>::from(std::string_view string) {
  if (string.empty()) return IpGenPrefix();
  if (string.find(':') != std::string_view::npos) return TextForm<Ip6Prefix>::from(string);
  return TextForm<Prefix>::from(string);
}

std::string TextForm<EthAddr>::to(const EthAddr& value) {
  constexpr std::string_view digits = "0123456789abcdef";
  std::string text;
  for (const std::uint8_t byte : value.bytes()) {
    if (!text.empty()) text += ':';
    text += digits[byte >> 4];
    text += digits[byte & 15];
  }
  return text;
}

std::optional<EthAddr> TextForm<EthAddr>::from(std::string_view string) {
  EthAddr::Bytes bytes{};
  if (string.size() != 3 * bytes.size() - 1) return std::nullopt;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    const unsigned high = hexDigit(string[3 * i]);
    const unsigned low = hexDigit(string[3 * i + 1]);
    if (high > 15 || low > 15 || (i > 0 && string[3 * i - 1] != ':')) return std::nullopt;
    bytes[i] = static_cast<std::uint8_t>(high << 4 | low);
  }
  return EthAddr(bytes);
}

std::string TextForm<IntfId>::to(const IntfId& value) {
  return value.name();
}

std::optional<IntfId> TextForm<IntfId>::from(std::string_view string) {
  if (string.size() > 8 || !std::all_of(string.begin(), string.end(), isPrintableAscii)) return std::nullopt;
  return IntfId(string);
}

std::string TextForm<Vxlan::Vni>::to(const Vxlan::Vni& value) {
  return value.isPresent() ? std::to_string(value.value()) : "none";
}

std::optional<Vxlan::Vni> TextForm<Vxlan::Vni>::from(std::string_view string) {
  if (string == "none") return Vxlan::Vni();
  const auto value = takeNumber(string, Vxlan::Vni::max);
  if (!value || !string.empty()) return std::nullopt;
  return Vxlan::Vni(*value);
}

std::string TextForm<L3::VrfName>::to(const L3::VrfName& value) {
  return value.text();
}

std::optional<L3::VrfName> TextForm<L3::VrfName>::from(std::string_view string) {
  // Zero would end the name of the VRF's table files, and the state database cannot hold what is not UTF-8.
  const bool isName = string.size() <= L3::VrfName::maxLength && string.find('\0') == std::string_view::npos;
  if (!isName || !isUtf8(string)) return std::nullopt;
  return L3::VrfName(string);
}

std::string TextForm<Fib::FecId>::to(const Fib::FecId& value) {
  return fecText(value);
}

std::optional<Fib::FecId> TextForm<Fib::FecId>::from(std::string_view string) {
  return readFec<Fib::FecId>(string);
}

std::string TextForm<Fib::GlobalFecId>::to(const Fib::GlobalFecId& value) {
  return fecText(value);
}

std::optional<Fib::GlobalFecId> TextForm<Fib::GlobalFecId>::from(std::string_view string) {
  return readFec<Fib::GlobalFecId>(string);
}

}  // namespace Platform

std::ostream& operator<<(std::ostream& out, const IpAddr& value) {
  return out << Platform::toText(value);
}
std::ostream& operator<<(std::ostream& out, const Ip6Addr& value) {
  return out << Platform::toText(value);
}
std::ostream& operator<<(std::ostream& out, const IpGenAddr& value) {
  return out << Platform::toText(value);
}
std::ostream& operator<<(std::ostream& out, const Prefix& value) {
  return out << Platform::toText(value);
}
std::ostream& operator<<(std::ostream& out, const Ip6Prefix& value) {
  return out << Platform::toText(value);
}
std::ostream& operator<<(std::ostream& out, const IpGenPrefix& value) {
  return out << Platform::toText(value);
}
std::ostream& operator<<(std::ostream& out, const EthAddr& value) {
  return out << Platform::toText(value);
}
std::ostream& operator<<(std::ostream& out, const IntfId& value) {
  return out << Platform::toText(value);
}
