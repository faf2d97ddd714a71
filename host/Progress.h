// How far a long operation is, told on standard error when that is a terminal.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>

namespace Tools {

// Says nothing in the first seconds; then keeps one line up to date and wipes it out in the end.
class Progress {
 public:
  explicit Progress(std::string what);  // "entries written"
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;
  ~Progress();
  // One more is done. Cheap: the clock is read every so often only.
  void step() {
    if ((++done_ & 4095) == 0) report();
  }

 private:
  void report();

  std::string what_;
  bool terminal_;
  bool shown_ = false;
  std::size_t done_ = 0;
  std::chrono::steady_clock::time_point next_;
};

}  // namespace Tools
