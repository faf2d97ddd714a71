#include "netlink/messages/MessageBuffer.h"

#include <libmnl/libmnl.h>

#include <cstddef>
#include <cstring>
#include <string>

#include "platform/values/Assert.h"

namespace Netlink {

void MessageBuffer::append(const void* data, std::size_t size) {
  const std::size_t at = bytes_.size();
  bytes_.resize(at + MNL_ALIGN(size));
  if (size != 0) std::memcpy(bytes_.data() + at, data, size);
}

void MessageBuffer::begin(std::uint16_t type, std::uint16_t flags, std::uint32_t sequence) {
  nlmsghdr header{};
  header.nlmsg_type = type;
  header.nlmsg_flags = flags;
  header.nlmsg_seq = sequence;
  messageAt_ = bytes_.size();
  append(&header, sizeof header);
}

void MessageBuffer::messageEnds() {
  PLATFORM_ASSERT(nestsAt_.empty());
  const auto size = static_cast<std::uint32_t>(bytes_.size() - messageAt_);
  std::memcpy(bytes_.data() + messageAt_ + offsetof(nlmsghdr, nlmsg_len), &size, sizeof size);
  ++messages_;
}

void MessageBuffer::answerIsWanted() {
  PLATFORM_ASSERT(messages_ > 0);
  std::uint16_t flags = 0;
  std::byte* at = bytes_.data() + messageAt_ + offsetof(nlmsghdr, nlmsg_flags);
  std::memcpy(&flags, at, sizeof flags);
  flags |= NLM_F_ACK;
  std::memcpy(at, &flags, sizeof flags);
}

void MessageBuffer::add(std::uint16_t type, Bytes payload) {
  PLATFORM_ASSERT(payload.size() <= UINT16_MAX - sizeof(nlattr));
  const nlattr header{static_cast<std::uint16_t>(sizeof header + payload.size()), type};
  append(&header, sizeof header);
  append(payload.data(), payload.size());
}

void MessageBuffer::addAddress(std::uint16_t type, const IpGenAddr& address) {
  if (address.isV4()) return addBigEndian(type, address.v4().value());
  const Ip6Addr v6 = address.v6();
  add(type, std::as_bytes(std::span(v6.bytes())));
}

void MessageBuffer::addMac(std::uint16_t type, const EthAddr& mac) {
  add(type, std::as_bytes(std::span(mac.bytes())));
}

void MessageBuffer::addText(std::uint16_t type, std::string_view text) {
  const nlattr header{static_cast<std::uint16_t>(sizeof header + text.size() + 1), type};
  append(&header, sizeof header);
  const std::string ended(text);
  append(ended.c_str(), ended.size() + 1);
}

void MessageBuffer::nestBegins(std::uint16_t type) {
  nestsAt_.push_back(bytes_.size());
  const nlattr header{sizeof header, static_cast<std::uint16_t>(type | NLA_F_NESTED)};
  append(&header, sizeof header);
}

void MessageBuffer::nestEnds() {
  const std::size_t at = nestsAt_.back();
  nestsAt_.pop_back();
  const std::size_t size = bytes_.size() - at;
  PLATFORM_ASSERT(size <= UINT16_MAX);
  const auto length = static_cast<std::uint16_t>(size);
  std::memcpy(bytes_.data() + at + offsetof(nlattr, nla_len), &length, sizeof length);
}

void MessageBuffer::clear() {
  bytes_.clear();
  messages_ = 0;
}

}  // namespace Netlink
