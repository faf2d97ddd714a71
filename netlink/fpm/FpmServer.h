// Where a routing suite connects: one session at a time, and a new one takes the place of the one before, which may be
// dead without anybody having noticed. When routes have to be said again the session is closed: a suite that comes back
// says all of them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "linux/files/FileDescriptor.h"
#include "linux/loop/EventLoop.h"
#include "netlink/fpm/FpmFrames.h"
#include "netlink/fpm/FpmRib.h"
#include "netlink/fpm/RouteFeedback.h"

namespace Netlink {

class FpmServer final : public FeedbackSink {
 public:
  // Both outlive it. `address` is an IPv4 or IPv6 address; port 0: any that is free. Throws std::system_error.
  FpmServer(LinuxPlatform::EventLoop& loop, FpmRib& rib, const IpGenAddr& address, std::uint16_t port);
  ~FpmServer() override;
  FpmServer(const FpmServer&) = delete;
  FpmServer& operator=(const FpmServer&) = delete;

  std::uint16_t port() const { return port_; }
  // What is sent waits here until the suite takes it; `sendable` is called when all of it has gone that had to wait,
  // and when a session begins.
  bool canSend() const override { return sessionFd_ && !isBlocked_; }
  void send(Bytes frame) override;
  void flush() override;
  void sendableIs(std::function<void()> sendable) { sendable_ = std::move(sendable); }
  // Another session, when the rib wants it: a moment later, and not too often.
  void lookForReplay();
  std::uint64_t faults() const { return faults_; }  // sessions that were closed for what came

 private:
  void handleNewcomer();
  void handleSession(std::uint32_t events);
  void receive();
  void closeSession();
  void handleReplay();

  LinuxPlatform::EventLoop& loop_;
  FpmRib& rib_;
  std::uint16_t port_ = 0;
  LinuxPlatform::FileDescriptor listenFd_;
  LinuxPlatform::FileDescriptor sessionFd_;
  FpmFrames frames_;
  std::vector<std::byte> buffer_;
  std::vector<std::byte> outgoing_;
  std::size_t sent_ = 0;    // bytes of it that are gone
  bool isBlocked_ = false;  // the suite does not take more at the moment
  std::function<void()> sendable_ = [] {};
  std::uint64_t faults_ = 0;
  std::unique_ptr<Platform::Task> replayTask_;
  bool isReplayDue_ = false;                                      // the task is on its way
  double replayedAt_ = -std::numeric_limits<double>::infinity();  // when a session was closed for it
};

}  // namespace Netlink
