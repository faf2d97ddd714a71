// TableRivalsBench's other processes, which read what its own one writes.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

namespace Bench {

// Looks up in, and walks, what lies in the directory; holds Abseil's maps itself. Obeys lines: "loaded PHASE" (how the
// maps are to be filled: shuffled or ordered), "read PHASE" (the works of bench/rivals/RivalWorks.h), and "spin STORE":
// looks up at full speed until the next line.
void runRivalReader(const std::string& directory, std::uint32_t routes);

// Follows the routes' table and looks up what it is told of. Obeys "serve": until the next line, and then until nothing
// is left to tell; and "report", when it is there. Notes the time of a change in `Stamp`, if none is noted.
void runRivalFollower(const std::string& directory);

// Waits for the eventfd, and notes the time whenever 1 is written to it; ends when that is more. Reports when it is
// there.
void runPinged(const std::string& directory, int eventFd);

// Where a process notes when it heard: monotonicSeconds(), 0 for not yet; in a file of the directory that all map.
class Stamp {
 public:
  explicit Stamp(const std::string& directory);
  Stamp(const Stamp&) = delete;
  Stamp& operator=(const Stamp&) = delete;
  ~Stamp();
  std::atomic<double>& seconds() { return *seconds_; }

 private:
  std::atomic<double>* seconds_;
};

}  // namespace Bench
