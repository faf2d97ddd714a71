// The directory of one running agent: shared tables, control socket, trace files. Held by a lock that dies with its
// process. It belongs to the agent's user; linux/files/OwnFiles.h says what others may do there.
#pragma once

#include <string>

#include "linux/files/OwnFiles.h"

namespace LinuxPlatform {

class RunDirectory {
 public:
  // Makes the directory when it is missing and locks it. Throws std::runtime_error with one line when that is
  // impossible, when another agent holds it, or when it is another user's or others may write into it.
  explicit RunDirectory(const std::string& path);
  RunDirectory(const RunDirectory&) = delete;
  RunDirectory& operator=(const RunDirectory&) = delete;

  const std::string& path() const { return path_; }
  static std::string controlPath(const std::string& runDirectory) { return runDirectory + "/control"; }

 private:
  std::string path_;
  FileDescriptor lock_;
};

}  // namespace LinuxPlatform
