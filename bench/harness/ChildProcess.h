// Another process, as a rule of the same program, which reports in lines of JSON on its standard output, and may be
// told things in lines on its standard input.
#pragma once

#include <sys/types.h>

#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

namespace Bench {

class ChildProcess {
 public:
  // Starts this program, or the one in this file, with these arguments; throws std::system_error.
  explicit ChildProcess(const std::vector<std::string>& arguments, const std::string& program = "/proc/self/exe");
  // Terminates it if it runs.
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // One line on its standard input. A process that has ended hears nothing: that it has, the next report tells.
  void tell(const std::string& line);
  // The next line of its standard output, or the report that it is; throws std::runtime_error when the process has
  // ended instead, or says nothing for `patience`.
  static constexpr double patience = 300;  // seconds; where a machine is slow or busy a million routes take a minute
  std::string line();
  bool hasLine();  // already
  nlohmann::json report() { return nlohmann::json::parse(line()); }
  // What it reports of this.
  nlohmann::json ask(const std::string& command) {
    tell(command);
    return report();
  }
  // The rest of its standard output, as it comes.
  void readAll(const std::function<void(std::string_view)>& content);
  pid_t pid() const { return pid_; }
  // Asks it to end (SIGTERM), or lets it come to its own end (its standard input ends), and waits; throws
  // std::runtime_error when it failed.
  void stop();
  void wait();
  // Ends it at once (SIGKILL).
  void kill();

 private:
  bool readMore();  // false: that was all

  std::string name_;
  pid_t pid_ = -1;
  std::string read_;  // and not handed out yet
  int output_ = -1;
  int input_ = -1;
};

// Of the processor that a process has had; throws std::system_error when it has ended.
double processorSeconds(pid_t process);

// For a report: a process's lines of /proc/PID/status that speak of resident memory, in bytes. 0 is this process.
nlohmann::json residentMemory(pid_t process = 0);

}  // namespace Bench
