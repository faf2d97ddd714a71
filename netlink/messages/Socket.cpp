#include "netlink/messages/Socket.h"

#include <linux/netlink.h>
#include <sys/socket.h>

#include <cerrno>
#include <system_error>

namespace Netlink {

namespace {

// The answers of a whole batch that is refused, as the kernel counts their memory; and the longest batch.
constexpr int receiveBytes = 4 << 20;
constexpr int sendBytes = 4 << 20;
constexpr std::size_t messageBytes = 256 * 1024;  // of what is received at once: a dump's part has 32 KiB

[[noreturn]] void fail(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

// Where forcing is not allowed the system's own limit holds: less room, and sooner an overrun.
void roomIs(int fd, int forced, int asked, int bytes) {
  if (::setsockopt(fd, SOL_SOCKET, forced, &bytes, sizeof bytes) == 0) return;
  ::setsockopt(fd, SOL_SOCKET, asked, &bytes, sizeof bytes);
}

}  // namespace

Socket::Socket(std::uint32_t groups)
    : fd_(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE)), buffer_(messageBytes) {
  if (!fd_) fail("a netlink socket");
  roomIs(fd(), SO_RCVBUFFORCE, SO_RCVBUF, receiveBytes);
  roomIs(fd(), SO_SNDBUFFORCE, SO_SNDBUF, sendBytes);
  const int on = 1;
  // Answers without the message that they answer, and dumps of what was asked for only. Without the second the dump has
  // more in it, which its reader leaves out.
  ::setsockopt(fd(), SOL_NETLINK, NETLINK_CAP_ACK, &on, sizeof on);
  ::setsockopt(fd(), SOL_NETLINK, NETLINK_GET_STRICT_CHK, &on, sizeof on);
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  address.nl_groups = groups;
  if (::bind(fd(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) fail("a netlink socket's name");
}

void Socket::send(const MessageBuffer& message) {
  const Bytes bytes = message.bytes();
  ssize_t sent = -1;
  do {
    sent = ::send(fd(), bytes.data(), bytes.size(), 0);
  } while (sent < 0 && errno == EINTR);
  if (sent < 0) fail("messages for the kernel");
}

Socket::Receipt Socket::receive(Bytes& messages) {
  ssize_t size = -1;
  do {
    // The length of what did not fit would be told, too.
    size = ::recv(fd(), buffer_.data(), buffer_.size(), MSG_TRUNC);
  } while (size < 0 && errno == EINTR);
  if (size < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return Receipt::nothing;
  if (size < 0 && errno == ENOBUFS) return Receipt::overrun;
  if (size < 0) fail("the kernel's answer");
  const auto length = static_cast<std::size_t>(size);
  if (length > buffer_.size()) return Receipt::overrun;
  messages = Bytes(buffer_).first(length);
  return Receipt::messages;
}

Socket::Outcome Socket::exchange(const MessageBuffer& batch, std::uint32_t firstSequence) {
  Outcome outcome;
  try {
    send(batch);
  } catch (const std::system_error& error) {
    if (error.code().value() != ENOBUFS && error.code().value() != ENOMEM) throw;
    outcome.isWhole = false;  // for want of memory
    return outcome;
  }
  for (bool isLast = false; !isLast;) {
    Bytes rest;
    const Receipt receipt = receive(rest);
    if (receipt == Receipt::overrun) outcome.isWhole = false;
    if (receipt == Receipt::nothing) {
      outcome.isWhole = false;
      break;
    }
    while (const nlmsghdr* answer = nextMessage(rest)) {
      const std::size_t message = answer->nlmsg_seq - firstSequence;
      if (answer->nlmsg_type != NLMSG_ERROR || message >= batch.messages()) continue;
      if (const int error = errorIn(*answer)) outcome.refusals.push_back({message, error});
      isLast = isLast || message + 1 == batch.messages();
    }
  }
  return outcome;
}

int errorIn(const nlmsghdr& message) {
  const Bytes payload = payloadOf(message);
  int error = 0;
  if (payload.size() < sizeof error) return EPROTO;
  std::memcpy(&error, payload.data(), sizeof error);
  return -error;
}

}  // namespace Netlink
