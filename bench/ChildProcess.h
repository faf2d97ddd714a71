// Another process of the same program, which reports in lines of JSON on its standard output.
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

  // The next report; throws std::runtime_error when the process has ended instead.
  nlohmann::json report();
  // Asks it to end (SIGTERM), or lets it come to its own end, and waits; throws std::runtime_error when it failed.
  void stop();
  void wait();

 private:
  std::string name_;
  pid_t pid_ = -1;
  std::FILE* output_ = nullptr;
};

}  // namespace Bench
