#include "linux/files/InputFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "platform/values/Text.h"

namespace LinuxPlatform {

namespace {

[[noreturn]] void refuse(const std::string& name, const std::string& reason) {
  throw Platform::BadText(name + ": " + reason);
}

// Asks without taking anything out of the pipe: at the end of a pipe there is nothing to copy, before it there is, or
// there will be.
bool hasWriter(int pipe) {
  std::array<int, 2> copy{};
  if (::pipe2(copy.data(), O_CLOEXEC) != 0) return true;
  const FileDescriptor out(copy[0]);
  const FileDescriptor in(copy[1]);
  return ::tee(pipe, in.get(), 1, SPLICE_F_NONBLOCK) != 0;
}

}  // namespace

FileDescriptor openInput(const std::string& name) {
  FileDescriptor fd(::open(name.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
  if (!fd) refuse(name, std::strerror(errno));
  struct stat status {};
  if (::fstat(fd.get(), &status) != 0) refuse(name, std::strerror(errno));
  if (S_ISDIR(status.st_mode)) refuse(name, std::strerror(EISDIR));
  if (S_ISFIFO(status.st_mode) && !hasWriter(fd.get())) refuse(name, "a pipe that nobody writes to");
  ::fcntl(fd.get(), F_SETFL, ::fcntl(fd.get(), F_GETFL) & ~O_NONBLOCK);
  return fd;
}

std::string readInput(const std::string& name, std::size_t mostBytes) {
  const FileDescriptor fd = openInput(name);
  std::string text;
  std::array<char, 65536> bytes;  // NOLINT: filled by read
  for (;;) {
    const ssize_t count = ::read(fd.get(), bytes.data(), bytes.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) refuse(name, std::strerror(errno));
    if (count == 0) return text;
    text.append(bytes.data(), static_cast<std::size_t>(count));
    if (text.size() > mostBytes) refuse(name, "more than " + std::to_string(mostBytes) + " bytes");
  }
}

}  // namespace LinuxPlatform
