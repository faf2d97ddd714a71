#include "linux/files/OwnFiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <system_error>

namespace LinuxPlatform {

namespace {

constexpr mode_t permissions = 07777;

const char* kindOf(mode_t mode) {
  switch (mode & S_IFMT) {
    case S_IFREG:
      return "a file";
    case S_IFDIR:
      return "a directory";
    case S_IFLNK:
      return "a symbolic link";
    case S_IFIFO:
      return "a FIFO";
    case S_IFSOCK:
      return "a socket";
    default:
      return "a device";
  }
}

std::string failure(const std::string& name, int error) {
  return name + ": " + std::strerror(error);
}

std::string foreign(const std::string& name, uid_t owner) {
  return name + ": it belongs to user " + std::to_string(owner) + ", not to this one (" + std::to_string(geteuid()) +
         ")";
}

std::string octal(mode_t mode) {
  char text[8];
  std::snprintf(text, sizeof text, "%o", static_cast<unsigned>(mode));
  return text;
}

// What speaks against a file that has been opened: a kind that is none, or, for a writer, another's file. One of ours
// that permits more than it should is cut down.
std::string faultOf(int fd, const std::string& name, int flags, mode_t mode) {
  struct stat status {};
  if (fstat(fd, &status) != 0) return failure(name, errno);
  if (!S_ISREG(status.st_mode)) return name + ": it is " + kindOf(status.st_mode) + ", not a file";
  if ((flags & O_ACCMODE) == O_RDONLY) return {};
  if (status.st_uid != geteuid()) return foreign(name, status.st_uid);
  const bool lax = (status.st_mode & permissions & ~mode) != 0;
  return lax && fchmod(fd, status.st_mode & mode) != 0 ? failure(name, errno) : std::string();
}

// Looked at before it is opened, for opening a device may set it off; and again afterwards, for it may be another by
// then.
OpenFile opened(const std::string& name, int flags, mode_t mode) {
  OpenFile file;
  struct stat status {};
  if (lstat(name.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
    file.fault = name + ": it is " + kindOf(status.st_mode) + ", not a file";
    return file;
  }
  file.fd = FileDescriptor(open(name.c_str(), flags | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY, mode));
  if (!file.fd) {
    file.error = errno;
    if (errno != ENOENT || (flags & O_CREAT) != 0) file.fault = failure(name, file.error);
    return file;
  }
  file.fault = faultOf(file.fd.get(), name, flags, mode);
  if (!file.fault.empty()) file.fd = FileDescriptor();
  return file;
}

// Behind a slash the link at the end of a path is followed.
std::string withoutSlashes(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

struct stat statusOfDirectory(const std::string& path) {
  struct stat status {};
  if (lstat(path.c_str(), &status) != 0) throw std::runtime_error(failure(path, errno));
  if (!S_ISDIR(status.st_mode)) {
    throw std::runtime_error(path + ": it is " + kindOf(status.st_mode) + ", not a directory");
  }
  return status;
}

}  // namespace

OpenFile openToRead(const std::string& name) {
  return opened(name, O_RDONLY, 0);
}

OpenFile openToWrite(const std::string& name, mode_t mode) {
  return opened(name, O_RDWR, mode);
}

OpenFile openOrCreate(const std::string& name, mode_t mode) {
  return opened(name, O_RDWR | O_CREAT, mode);
}

OpenFile createAfresh(const std::string& name, mode_t mode) {
  unlink(name.c_str());
  return opened(name, O_RDWR | O_CREAT | O_EXCL, mode);
}

bool leadsTo(const std::string& name, const FileDescriptor& fd) {
  struct stat here {};
  struct stat there {};
  return fstat(fd.get(), &here) == 0 && lstat(name.c_str(), &there) == 0 && here.st_dev == there.st_dev &&
         here.st_ino == there.st_ino;
}

void makeDirectory(const std::string& given) {
  const std::string path = withoutSlashes(given);
  const auto above = std::filesystem::path(path).parent_path();
  std::error_code error;
  if (!above.empty()) std::filesystem::create_directories(above, error);
  if (error) throw std::runtime_error(path + ": " + error.message());
  if (mkdir(path.c_str(), directoryMode) != 0 && errno != EEXIST) throw std::runtime_error(failure(path, errno));
  statusOfDirectory(path);
}

void checkOwnDirectory(const std::string& given) {
  const std::string path = withoutSlashes(given);
  const struct stat status = statusOfDirectory(path);
  if (status.st_uid != geteuid()) throw std::runtime_error(foreign(path, status.st_uid));
  if ((status.st_mode & (S_IWGRP | S_IWOTH)) == 0) return;
  throw std::runtime_error(path + ": others may write into it (mode " + octal(status.st_mode & permissions) +
                           "); chmod go-w, or take another directory");
}

}  // namespace LinuxPlatform
