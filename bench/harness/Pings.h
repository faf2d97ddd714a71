// How long it takes until another process has heard of something, beside the least that this takes: eventfd pings.
#pragma once

#include <sched.h>
#include <sys/types.h>

#include <atomic>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "bench/harness/ChildProcess.h"

namespace Bench {

// Where a process notes when it heard: monotonicSeconds(), 0 for not yet; in a file of the directory that all map.
class Stamp {
 public:
  explicit Stamp(const std::string& directory);
  Stamp(const Stamp&) = delete;
  Stamp& operator=(const Stamp&) = delete;
  ~Stamp();
  // Notes the time, if none is noted.
  void hear();
  // What `act` does another process hears of, which has had nothing to do for a moment of random length: the seconds
  // until then.
  double secondsUntilHeard(const std::function<void()>& act);

 private:
  std::mt19937_64 random_{1};
  std::atomic<double>* seconds_;
};

// Where a process sleeps decides what it costs to wake it: of processes that wake each other in turn the one has the
// first processor and the other the last, if there is more than one.
class Processors {
 public:
  Processors();
  ~Processors();  // this process may run anywhere again
  Processors(const Processors&) = delete;
  Processors& operator=(const Processors&) = delete;
  void runOnFirst(pid_t process = 0) const { runOn(process, first_); }
  void runOnLast(pid_t process) const { runOn(process, last_); }
  void runAnywhere(pid_t process) const;

 private:
  static void runOn(pid_t process, unsigned processor);

  cpu_set_t anywhere_;
  unsigned first_ = 0;
  unsigned last_ = CPU_SETSIZE - 1;
};

// So many processes in a row, each of which waits for an eventfd. The first is woken from here and wakes the next; the
// last notes the time. To be made beside `Processors`.
class Pings {
 public:
  Pings(const std::string& directory, unsigned count, const Processors& processors);
  ~Pings();
  Pings(const Pings&) = delete;
  Pings& operator=(const Pings&) = delete;
  void ping();

 private:
  std::vector<int> eventFds_;
  std::vector<std::unique_ptr<ChildProcess>> processes_;
};

// The median of that many, in seconds.
double secondsOfPings(const std::string& parentDirectory, unsigned count, unsigned samples);

// One of them, as the mode "pinged" of the program: "--eventfd" is what it waits for, inherited, and "--next-eventfd"
// what it writes to then, or -1 for the stamp in the directory.
struct PingedOptions {
  int eventFd = -1;
  int nextEventFd = -1;
};
void runPinged(const std::string& directory, const PingedOptions& options);

// Ascending.
double medianOf(const std::vector<double>& ascending);

}  // namespace Bench
