#include "netlink/fpm/FpmServer.h"

#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <system_error>
#include <utility>

namespace Netlink {

using LinuxPlatform::FileDescriptor;

namespace {

constexpr std::size_t readSize = std::size_t{64} * 1024;
constexpr double replayDelay = 1;   // seconds: more of what it is for may come
constexpr double replayPause = 30;  // seconds between two that the rib wants: a replay may be a million routes

void require(bool holds, const char* what) {
  if (!holds) throw std::system_error(errno, std::generic_category(), what);
}

struct SocketAddress {
  sockaddr_storage storage{};
  socklen_t size = 0;
};

SocketAddress socketAddress(const IpGenAddr& address, std::uint16_t port) {
  SocketAddress result;
  if (address.isV4()) {
    sockaddr_in v4{};
    v4.sin_family = AF_INET;
    v4.sin_port = htons(port);
    v4.sin_addr.s_addr = htonl(address.v4().value());
    std::memcpy(&result.storage, &v4, result.size = sizeof v4);
  } else {
    sockaddr_in6 v6{};
    v6.sin6_family = AF_INET6;
    v6.sin6_port = htons(port);
    std::memcpy(&v6.sin6_addr, address.v6().bytes().data(), sizeof v6.sin6_addr);
    std::memcpy(&result.storage, &v6, result.size = sizeof v6);
  }
  return result;
}

std::uint16_t boundPort(int fd) {
  sockaddr_storage bound{};
  socklen_t size = sizeof bound;
  require(getsockname(fd, reinterpret_cast<sockaddr*>(&bound), &size) == 0, "getsockname");
  in_port_t port = 0;
  // Both families have it in the same place.
  std::memcpy(&port, reinterpret_cast<const char*>(&bound) + offsetof(sockaddr_in, sin_port), sizeof port);
  return ntohs(port);
}

}  // namespace

FpmServer::FpmServer(LinuxPlatform::EventLoop& loop, FpmRib& rib, const IpGenAddr& address, std::uint16_t port)
    : loop_(loop), rib_(rib), buffer_(readSize) {
  const SocketAddress at = socketAddress(address, port);
  listenFd_ = FileDescriptor(socket(at.storage.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  require(static_cast<bool>(listenFd_), "socket");
  const int on = 1;
  setsockopt(listenFd_.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  require(bind(listenFd_.get(), reinterpret_cast<const sockaddr*>(&at.storage), at.size) == 0, "--listen");
  require(listen(listenFd_.get(), 4) == 0, "--listen");
  port_ = boundPort(listenFd_.get());
  loop_.fdIs(listenFd_.get(), EPOLLIN, [this](std::uint32_t) { handleNewcomer(); });
  replayTask_ = loop_.taskIs("fpmReplayTask", Platform::TaskPriority::background, [this] { handleReplay(); });
}

FpmServer::~FpmServer() {
  closeSession();
  loop_.fdDel(listenFd_.get());
}

void FpmServer::handleNewcomer() {
  FileDescriptor newcomer(accept4(listenFd_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
  if (!newcomer) return;  // gone again
  closeSession();
  sessionFd_ = std::move(newcomer);
  frames_ = FpmFrames();
  rib_.sessionBegins();
  loop_.fdIs(sessionFd_.get(), EPOLLIN, [this](std::uint32_t events) { handleSession(events); });
  sendable_();
}

void FpmServer::closeSession() {
  if (!sessionFd_) return;
  loop_.fdDel(sessionFd_.get());
  sessionFd_ = FileDescriptor();
  outgoing_.clear();
  sent_ = 0;
  isBlocked_ = false;
  rib_.sessionEnds();
}

void FpmServer::handleSession(std::uint32_t events) {
  try {
    if ((events & EPOLLOUT) != 0) flush();
    if ((events & ~std::uint32_t{EPOLLOUT}) != 0) receive();
  } catch (const FpmFault& fault) {
    ++faults_;
    std::fprintf(stderr, "fpm: the session is closed: %s\n", fault.what());
    closeSession();
  }
}

void FpmServer::receive() {
  const ssize_t received = recv(sessionFd_.get(), buffer_.data(), buffer_.size(), 0);
  if (received < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (received <= 0) {
    if (frames_.isWithinFrame()) throw FpmFault("it has ended within a frame");
    return closeSession();
  }
  frames_.append(Bytes(buffer_).first(static_cast<std::size_t>(received)));
  while (const auto frame = frames_.next()) rib_.apply(fpmMessagesIn(*frame));
  lookForReplay();
}

// --- To the suite ----------------------------------------------------------------------------------------------------

void FpmServer::send(Bytes frame) {
  outgoing_.insert(outgoing_.end(), frame.begin(), frame.end());
  if (outgoing_.size() >= readSize) flush();
}

// A session that is over is noticed by who reads from it.
void FpmServer::flush() {
  if (!sessionFd_) return;
  while (sent_ < outgoing_.size()) {
    const ssize_t count = ::send(sessionFd_.get(), outgoing_.data() + sent_, outgoing_.size() - sent_, MSG_NOSIGNAL);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) break;
    sent_ += static_cast<std::size_t>(count);
  }
  const bool isBlocked = sent_ < outgoing_.size();
  if (!isBlocked) {
    outgoing_.clear();
    sent_ = 0;
  }
  if (std::exchange(isBlocked_, isBlocked) == isBlocked) return;
  const std::uint32_t events = isBlocked ? std::uint32_t{EPOLLIN} | EPOLLOUT : std::uint32_t{EPOLLIN};
  loop_.fdIs(sessionFd_.get(), events, [this](std::uint32_t ready) { handleSession(ready); });
  if (!isBlocked) sendable_();
}

// --- Hearing all of it again -----------------------------------------------------------------------------------------

void FpmServer::lookForReplay() {
  if (!sessionFd_ || !rib_.wantsReplay() || std::exchange(isReplayDue_, true)) return;
  replayTask_->scheduleWithin(std::max(replayDelay, replayedAt_ + replayPause - loop_.now()));
}

void FpmServer::handleReplay() {
  isReplayDue_ = false;
  if (!sessionFd_ || !rib_.wantsReplay()) return;
  if (rib_.hasStale()) {  // what it is for may be answered by the one that is under way
    isReplayDue_ = true;
    return replayTask_->scheduleWithin(replayDelay);
  }
  std::fputs("fpm: the session is closed, to hear all routes again\n", stderr);
  replayedAt_ = loop_.now();
  closeSession();
}

}  // namespace Netlink
