// The directory of one running agent: shared tables, control socket, trace files. Held by a lock that dies with its
// process.
#pragma once

#include <string>

namespace LinuxPlatform {

class RunDirectory {
 public:
  // Makes the directory when it is missing and locks it. Throws std::runtime_error with one line when that is
  // impossible, or when another agent holds it.
  explicit RunDirectory(const std::string& path);
  ~RunDirectory();
  RunDirectory(const RunDirectory&) = delete;
  RunDirectory& operator=(const RunDirectory&) = delete;

  const std::string& path() const { return path_; }
  static std::string controlPath(const std::string& runDirectory) { return runDirectory + "/control"; }

 private:
  std::string path_;
  int lockFd_ = -1;
};

}  // namespace LinuxPlatform
