// A command's end of the control socket, in the process of the agent's end.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <string>
#include <string_view>

// Nothing of it may block: the loop that answers runs on the same thread.
class Peer {
 public:
  explicit Peer(const std::string& path) : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    EXPECT_EQ(connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  }
  ~Peer() { leave(); }
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;

  void send(std::string_view bytes) {
    EXPECT_EQ(::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
  }
  // What has arrived; sets `closed` at the end of the connection.
  std::string receive() {
    std::string all;
    std::array<char, 65536> buffer{};
    ssize_t count = 0;
    while ((count = recv(fd_, buffer.data(), buffer.size(), 0)) > 0) {
      all.append(buffer.data(), static_cast<std::size_t>(count));
    }
    closed = count == 0 || errno == ECONNRESET;
    return all;
  }
  // Bytes that the kernel keeps of what is sent and not received, at most.
  int sendBuffer() const {
    int bytes = 0;
    socklen_t size = sizeof bytes;
    EXPECT_EQ(getsockopt(fd_, SOL_SOCKET, SO_SNDBUF, &bytes, &size), 0);
    return bytes;
  }
  void leave() {
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
  }
  bool closed = false;

 private:
  int fd_;
};
