#include "linux/RunDirectory.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <system_error>

namespace LinuxPlatform {

namespace {

// The process that a lock file names, for the person who is refused; the lock itself does not depend on it.
std::string processIn(int fd) {
  std::array<char, 24> text{};
  const ssize_t count = pread(fd, text.data(), text.size(), 0);
  if (count <= 0) return "?";
  const std::string_view all(text.data(), static_cast<std::size_t>(count));
  return std::string(all.substr(0, all.find('\n')));
}

}  // namespace

RunDirectory::RunDirectory(const std::string& path) : path_(path) {
  std::error_code error;
  std::filesystem::create_directories(path, error);
  if (error) throw std::runtime_error(path + ": " + error.message());
  const std::string lock = path + "/agent.lock";
  lockFd_ = open(lock.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (lockFd_ < 0) throw std::runtime_error(lock + ": " + std::strerror(errno));
  if (flock(lockFd_, LOCK_EX | LOCK_NB) != 0) {
    const std::string holder = processIn(lockFd_);
    close(lockFd_);
    throw std::runtime_error(path + ": another agent runs in this directory (process " + holder + ")");
  }
  const std::string process = std::to_string(getpid()) + "\n";
  if (ftruncate(lockFd_, 0) != 0 || pwrite(lockFd_, process.data(), process.size(), 0) < 0) {
    const int reason = errno;
    close(lockFd_);
    throw std::runtime_error(lock + ": " + std::strerror(reason));
  }
}

RunDirectory::~RunDirectory() {
  close(lockFd_);
}

}  // namespace LinuxPlatform
