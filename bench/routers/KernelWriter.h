// Writes routes into the kernel's table as fast as the kernel takes them: what a mirror of the agent's routes could do
// at most.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "linux/files/FileDescriptor.h"
#include "platform/values/Net.h"

namespace Bench {

// A route as every router of this benchmark is given it.
struct RoutedPrefix {
  Prefix prefix;
  std::vector<IpAddr> nexthops;
};

class KernelWriter {
 public:
  // Over this interface, so many routes to a message, of which the kernel acknowledges the last. Throws
  // std::system_error.
  KernelWriter(int interface, std::size_t batch);
  // Throws std::runtime_error when the kernel refuses one.
  void write(const std::vector<RoutedPrefix>& routes);

 private:
  void append(const RoutedPrefix& route, bool acknowledged);
  template <class Header>
  std::size_t put(const Header& header);
  void send();

  LinuxPlatform::FileDescriptor socket_;
  int interface_;
  std::size_t batch_;
  std::uint32_t sequence_ = 0;
  std::vector<std::byte> message_;
};

}  // namespace Bench
