#include "host/Progress.h"

#include <unistd.h>

#include <iostream>

namespace Tools {

namespace {
constexpr auto quietTime = std::chrono::seconds(3);
constexpr auto interval = std::chrono::milliseconds(200);
constexpr const char* wipe = "\r\033[K";
}  // namespace

Progress::Progress(std::string what)
    : what_(std::move(what)),
      terminal_(::isatty(STDERR_FILENO) != 0),
      next_(std::chrono::steady_clock::now() + quietTime) {}

Progress::~Progress() {
  if (shown_) std::cerr << wipe << std::flush;
}

void Progress::report() {
  if (!terminal_) return;
  const auto now = std::chrono::steady_clock::now();
  if (now < next_) return;
  next_ = now + interval;
  shown_ = true;
  std::cerr << wipe << done_ << ' ' << what_ << std::flush;
}

}  // namespace Tools
