#include "bench/routers/KernelWriter.h"

#include <arpa/inet.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <system_error>

namespace Bench {

namespace {

[[noreturn]] void fail(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

std::uint16_t attributeLength(std::size_t payload) {
  return static_cast<std::uint16_t>(sizeof(rtattr) + payload);
}

}  // namespace

KernelWriter::KernelWriter(int interface, std::size_t batch)
    : socket_(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE)), interface_(interface), batch_(batch) {
  if (!socket_) fail("a netlink socket");
}

void KernelWriter::write(const std::vector<RoutedPrefix>& routes) {
  for (std::size_t i = 0; i < routes.size(); ++i) {
    const bool isLast = i % batch_ == batch_ - 1 || i + 1 == routes.size();
    append(routes[i], isLast);
    if (isLast) send();
  }
}

// Every part is a multiple of 4 bytes long, as netlink wants them.
template <class Header>
std::size_t KernelWriter::put(const Header& header) {
  static_assert(sizeof header % NLMSG_ALIGNTO == 0);
  const std::size_t at = message_.size();
  message_.resize(at + sizeof header);
  std::memcpy(message_.data() + at, &header, sizeof header);
  return at;
}

void KernelWriter::append(const RoutedPrefix& route, bool acknowledged) {
  nlmsghdr header{};
  header.nlmsg_type = RTM_NEWROUTE;
  header.nlmsg_flags = static_cast<std::uint16_t>(NLM_F_REQUEST | NLM_F_CREATE | (acknowledged ? NLM_F_ACK : 0));
  header.nlmsg_seq = ++sequence_;
  const std::size_t begin = put(header);
  rtmsg message{};
  message.rtm_family = AF_INET;
  message.rtm_dst_len = static_cast<unsigned char>(route.prefix.length());
  message.rtm_table = RT_TABLE_MAIN;
  message.rtm_protocol = RTPROT_STATIC;
  message.rtm_scope = RT_SCOPE_UNIVERSE;
  message.rtm_type = RTN_UNICAST;
  put(message);
  put(rtattr{attributeLength(sizeof(in_addr)), RTA_DST});
  put(in_addr{htonl(route.prefix.addr().value())});
  const std::uint16_t hop = sizeof(rtnexthop) + sizeof(rtattr) + sizeof(in_addr);
  put(rtattr{attributeLength(hop * route.nexthops.size()), RTA_MULTIPATH});
  for (const IpAddr nexthop : route.nexthops) {
    put(rtnexthop{hop, 0, 0, interface_});
    put(rtattr{attributeLength(sizeof(in_addr)), RTA_GATEWAY});
    put(in_addr{htonl(nexthop.value())});
  }
  header.nlmsg_len = static_cast<std::uint32_t>(message_.size() - begin);
  std::memcpy(message_.data() + begin, &header, sizeof header);
}

// The answer is about the last route, or about one before it that the kernel has refused.
void KernelWriter::send() {
  if (::send(socket_.get(), message_.data(), message_.size(), 0) < 0) fail("routes for the kernel");
  message_.clear();
  std::array<std::byte, 8192> answer;  // NOLINT: filled by recv
  const ssize_t size = ::recv(socket_.get(), answer.data(), answer.size(), 0);
  if (size < 0) fail("the kernel's answer");
  nlmsghdr header{};
  nlmsgerr error{};
  if (static_cast<std::size_t>(size) < sizeof header + sizeof error) throw std::runtime_error("a short answer");
  std::memcpy(&header, answer.data(), sizeof header);
  std::memcpy(&error, answer.data() + sizeof header, sizeof error);
  if (header.nlmsg_type != NLMSG_ERROR || error.error != 0) {
    throw std::runtime_error("the kernel refuses a route: " + std::generic_category().message(-error.error));
  }
}

}  // namespace Bench
