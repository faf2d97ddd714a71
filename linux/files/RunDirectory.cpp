#include "linux/files/RunDirectory.h"

#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "platform/values/Text.h"

namespace LinuxPlatform {

namespace {

// The process that a lock file names, for the person who is refused; the lock itself does not depend on it. Empty when
// there is no such process: the one that holds the lock has not written its name yet, or got it from one that ended.
std::string processIn(int fd) {
  std::array<char, 24> text{};
  const ssize_t count = pread(fd, text.data(), text.size(), 0);
  const std::string_view all(text.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
  const auto process = Platform::TextForm<std::uint32_t>::from(all.substr(0, all.find('\n')));
  if (!process || kill(static_cast<pid_t>(*process), 0) != 0) return {};
  return " (process " + std::to_string(*process) + ")";
}

}  // namespace

RunDirectory::RunDirectory(const std::string& path) : path_(path) {
  makeDirectory(path);
  checkOwnDirectory(path);
  const std::string name = path + "/agent.lock";
  do {
    OpenFile file = openOrCreate(name, lockMode);
    if (!file.fd) throw std::runtime_error(file.fault);
    lock_ = std::move(file.fd);
    if (flock(lock_.get(), LOCK_EX | LOCK_NB) != 0) {
      throw std::runtime_error(path + ": another agent runs in this directory" + processIn(lock_.get()));
    }
  } while (!leadsTo(name, lock_));  // removed by somebody who cleans up
  const std::string process = std::to_string(getpid()) + "\n";
  if (ftruncate(lock_.get(), 0) != 0 || pwrite(lock_.get(), process.data(), process.size(), 0) < 0) {
    throw std::runtime_error(name + ": " + std::strerror(errno));
  }
}

}  // namespace LinuxPlatform
