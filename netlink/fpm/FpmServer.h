// Where a routing suite connects: one session at a time, and a new one takes the place of the one before, which may be
// dead without anybody having noticed.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "linux/files/FileDescriptor.h"
#include "linux/loop/EventLoop.h"
#include "netlink/fpm/FpmFrames.h"
#include "netlink/fpm/FpmRib.h"

namespace Netlink {

class FpmServer {
 public:
  // Both outlive it. `address` is an IPv4 or IPv6 address; port 0: any that is free. Throws std::system_error.
  FpmServer(LinuxPlatform::EventLoop& loop, FpmRib& rib, const IpGenAddr& address, std::uint16_t port);
  ~FpmServer();
  FpmServer(const FpmServer&) = delete;
  FpmServer& operator=(const FpmServer&) = delete;

  std::uint16_t port() const { return port_; }
  std::uint64_t faults() const { return faults_; }  // sessions that were closed for what came

 private:
  void handleNewcomer();
  void handleSession();
  void receive();
  void closeSession();

  LinuxPlatform::EventLoop& loop_;
  FpmRib& rib_;
  std::uint16_t port_ = 0;
  LinuxPlatform::FileDescriptor listenFd_;
  LinuxPlatform::FileDescriptor sessionFd_;
  FpmFrames frames_;
  std::vector<std::byte> buffer_;
  std::uint64_t faults_ = 0;
};

}  // namespace Netlink
