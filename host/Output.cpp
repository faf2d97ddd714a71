#include "host/Output.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <stdexcept>
#include <string>
#include <utility>

namespace Tools {

void flushOutput() {
  const int before = std::exchange(errno, 0);  // of the one who printed, when that went beyond the buffer
  std::cout.flush();
  const bool flushed = std::fflush(stdout) == 0;
  if (std::cout && flushed && std::ferror(stdout) == 0) return;
  const int reason = errno != 0 ? errno : before;
  throw std::runtime_error(std::string("standard output: ") + (reason != 0 ? std::strerror(reason) : "it is closed"));
}

}  // namespace Tools
