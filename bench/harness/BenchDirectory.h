// A directory of its own for one measurement.
#pragma once

#include <ctime>
#include <string>

namespace Bench {

// Made under `parent`, and removed with everything in it.
class BenchDirectory {
 public:
  explicit BenchDirectory(const std::string& parent);
  ~BenchDirectory();
  BenchDirectory(const BenchDirectory&) = delete;
  BenchDirectory& operator=(const BenchDirectory&) = delete;
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// Memory where there is a file system of it, so that no disk is measured: /dev/shm, else the temporary directory.
std::string defaultParentDirectory();

// Seconds of the clock that all processes of the machine share.
double monotonicSeconds();

// Seconds since it was made, by that clock and by this process's time on a processor, which other work on the machine
// does not add to.
class Stopwatch {
 public:
  double seconds() const { return monotonicSeconds() - start_; }
  double cpuSeconds() const { return static_cast<double>(std::clock() - cpuStart_) / CLOCKS_PER_SEC; }

 private:
  double start_ = monotonicSeconds();
  std::clock_t cpuStart_ = std::clock();
};

}  // namespace Bench
