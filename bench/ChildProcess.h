// Another process of the same program, which reports in lines of JSON on its standard output, and may be told things in
// lines on its standard input.
#pragma once

#include <sys/types.h>

#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace Bench {

class ChildProcess {
 public:
  // Starts this program with these arguments; throws std::system_error.
  explicit ChildProcess(const std::vector<std::string>& arguments);
  // Terminates it if it runs.
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // One line on its standard input. A process that has ended hears nothing: that it has, the next report tells.
  void tell(const std::string& line);
  // The next report; throws std::runtime_error when the process has ended instead.
  nlohmann::json report();
  // Asks it to end (SIGTERM), or lets it come to its own end (its standard input ends), and waits; throws
  // std::runtime_error when it failed.
  void stop();
  void wait();

 private:
  std::string name_;
  pid_t pid_ = -1;
  std::FILE* output_ = nullptr;
  int input_ = -1;
};

// For a report: this process's lines of /proc/self/status that speak of resident memory, in bytes.
nlohmann::json residentMemory();

}  // namespace Bench
