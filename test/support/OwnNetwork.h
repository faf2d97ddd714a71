// A network of the test's own, whose kernel tables it may fill as it likes. Commands that are started meanwhile are in
// it, too.
#pragma once

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <string>
#include <system_error>

// One network namespace, which this thread is in as long as the object exists.
class OwnNetwork {
 public:
  // Root enters another namespace of its own; anybody else becomes root in one of his, for good.
  OwnNetwork() : before_(open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC)) {
    if (unshare(CLONE_NEWNET) != 0 && unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) {
      fault_ = "no network namespace: " + std::generic_category().message(errno);
    } else if (!ip("link set lo up")) {
      fault_ = "no iproute2";
    } else if (!ip("link add vx type vxlan external dstport 4789") || !ip("link set vx up") ||
               !ip("nexthop add id 1 blackhole") || !ip("nexthop del id 1")) {
      fault_ = "a kernel without VXLAN devices or next-hop objects";
    }
  }
  ~OwnNetwork() {
    setns(before_, CLONE_NEWNET);
    close(before_);
  }
  OwnNetwork(const OwnNetwork&) = delete;
  OwnNetwork& operator=(const OwnNetwork&) = delete;

  // Why there is none, in a line; empty: there is one, with a VXLAN device "vx" that is up.
  const std::string& fault() const { return fault_; }

  static bool ip(const std::string& arguments) { return std::system((program + arguments + silently).c_str()) == 0; }
  // What it prints.
  static std::string ipOutput(const std::string& arguments) {
    std::string text;
    FILE* pipe = popen((program + arguments + " 2>/dev/null").c_str(), "r");
    std::array<char, 4096> part{};
    while (const std::size_t size = fread(part.data(), 1, part.size(), pipe)) text.append(part.data(), size);
    pclose(pipe);
    return text;
  }

 private:
  static inline const std::string program = "PATH=$PATH:/sbin:/usr/sbin ip ";
  static constexpr const char* silently = " >/dev/null 2>&1";
  int before_;
  std::string fault_;
};
