// Messages of the netlink protocol, put together one behind the other: a batch, as one send() takes it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "netlink/messages/Attributes.h"

namespace Netlink {

// Grows as needed and keeps its room when it is cleared. Of the message and the nests that are being built each is
// ended before what holds it is: in the order of a stack.
class MessageBuffer {
 public:
  // Begins a message. `header` stands before the attributes: an rtmsg, a ndmsg, ...; `flags` as NLM_F_... say.
  template <class Header>
  void messageBegins(std::uint16_t type, std::uint16_t flags, std::uint32_t sequence, const Header& header) {
    begin(type, flags, sequence);
    append(&header, sizeof header);
  }
  void messageEnds();
  // The last message that has ended asks for an answer also when all is well.
  void answerIsWanted();

  void add(std::uint16_t type, Bytes payload);
  // In host order.
  template <class Number>
  void addNumber(std::uint16_t type, Number value) {
    add(type, std::as_bytes(std::span(&value, 1)));
  }
  // In network order.
  template <class Number>
  void addBigEndian(std::uint16_t type, Number value) {
    addNumber(type, Platform::bigEndian(value));
  }
  void addAddress(std::uint16_t type, const IpGenAddr& address);  // 4 or 16 bytes
  void addMac(std::uint16_t type, const EthAddr& mac);
  void addText(std::uint16_t type, std::string_view text);  // and a zero
  // What is added until nestEnds() stands in it.
  void nestBegins(std::uint16_t type);
  void nestEnds();
  // Bytes behind the last attribute that are none: an rtnexthop, say.
  template <class Header>
  void addBare(const Header& header) {
    append(&header, sizeof header);
  }

  Bytes bytes() const { return bytes_; }
  std::size_t messages() const { return messages_; }
  bool empty() const { return messages_ == 0; }
  void clear();

 private:
  void begin(std::uint16_t type, std::uint16_t flags, std::uint32_t sequence);
  void append(const void* data, std::size_t size);  // and padding to four bytes

  std::vector<std::byte> bytes_;
  std::size_t messages_ = 0;          // that have ended
  std::size_t messageAt_ = 0;         // the one being built
  std::vector<std::size_t> nestsAt_;  // being built
};

}  // namespace Netlink
