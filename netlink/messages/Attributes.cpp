#include "netlink/messages/Attributes.h"

#include <libmnl/libmnl.h>

#include <algorithm>
#include <array>

namespace Netlink {

std::optional<Attribute> Attributes::next(Bytes& rest) {
  if (rest.size() < sizeof(nlattr)) return std::nullopt;
  nlattr header;
  std::memcpy(&header, rest.data(), sizeof header);
  if (header.nla_len < sizeof header || header.nla_len > rest.size()) return std::nullopt;
  const Attribute attribute{static_cast<std::uint16_t>(header.nla_type & NLA_TYPE_MASK),
                            rest.first(header.nla_len).subspan(sizeof header)};
  rest = rest.subspan(std::min<std::size_t>(MNL_ALIGN(std::size_t{header.nla_len}), rest.size()));
  return attribute;
}

bool Attributes::isWhole() const {
  Bytes rest = bytes_;
  while (next(rest)) continue;
  return rest.empty();
}

std::optional<Bytes> Attributes::find(std::uint16_t type) const {
  std::optional<Bytes> found;
  forEach([&](const Attribute& attribute) {
    if (attribute.type == type) found = attribute.payload;
  });
  return found;
}

std::optional<IpGenAddr> Attributes::address(std::uint16_t type) const {
  if (const auto v4 = bigEndian<std::uint32_t>(type)) return IpAddr(*v4);
  const auto payload = find(type);
  Ip6Addr::Bytes bytes;
  if (!payload || payload->size() != bytes.size()) return std::nullopt;
  std::memcpy(bytes.data(), payload->data(), bytes.size());
  return Ip6Addr(bytes);
}

std::optional<EthAddr> Attributes::mac(std::uint16_t type) const {
  const auto payload = find(type);
  EthAddr::Bytes bytes;
  if (!payload || payload->size() != bytes.size()) return std::nullopt;
  std::memcpy(bytes.data(), payload->data(), bytes.size());
  return EthAddr(bytes);
}

std::optional<std::string> Attributes::text(std::uint16_t type) const {
  const auto payload = find(type);
  if (!payload) return std::nullopt;
  const auto* begin = reinterpret_cast<const char*>(payload->data());
  return std::string(begin, std::find(begin, begin + payload->size(), '\0'));
}

Attributes Attributes::nested(std::uint16_t type) const {
  const Attributes inner(find(type).value_or(Bytes()));
  return inner.isWhole() ? inner : Attributes();
}

const nlmsghdr* nextMessage(Bytes& rest) {
  // mnl_nlmsg_ok() takes lengths for signed: one of over 2 GiB passes there.
  if (rest.size() < sizeof(nlmsghdr)) return nullptr;
  const auto* message = reinterpret_cast<const nlmsghdr*>(rest.data());
  if (message->nlmsg_len < sizeof(nlmsghdr) || message->nlmsg_len > rest.size()) return nullptr;
  rest = rest.subspan(std::min<std::size_t>(MNL_ALIGN(std::size_t{message->nlmsg_len}), rest.size()));
  return message;
}

Bytes payloadOf(const nlmsghdr& message) {
  return Bytes(reinterpret_cast<const std::byte*>(&message), message.nlmsg_len).subspan(MNL_NLMSG_HDRLEN);
}

}  // namespace Netlink
