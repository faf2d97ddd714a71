// The `routecache` command as a person runs it, or another program: a process of its own.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <csignal>
#include <string>
#include <vector>

std::vector<std::string> linesOf(const std::string& text);

// What a process that has ended leaves behind.
struct Outcome {
  std::string out;  // its standard output
  std::string err;  // its standard error
  int exitCode;     // or minus the signal that ended it

  // One line on standard error, and nothing else.
  bool isOneComplaint() const { return out.empty() && !err.empty() && err.find('\n') == err.size() - 1; }
};

// One process, from its start until wait() or stop(). It outlives neither the object nor the test's own process: both
// kill it. Signals have their default dispositions, whatever the test's own process was started
// with. What takes minutes fails the test and is not waited for any longer.
class Command {
 public:
  // `arguments` as one text, parted by blanks; 'quotes' hold an argument with blanks, or an empty one. `input` is its
  // standard input. Its standard output goes to a file that `outFile` names, if any.
  explicit Command(const std::string& arguments, const std::string& input = "", const char* outFile = nullptr,
                   const std::string& program = "");
  ~Command();
  Command(const Command&) = delete;
  Command& operator=(const Command&) = delete;

  // Waits until its standard output, from the start, holds this text. False: it has ended without, or takes minutes.
  bool says(const std::string& text) { return holds(out_, text); }
  // The same of its standard error.
  bool complains(const std::string& text) { return holds(err_, text); }
  // Waits for its own end. Nothing else may be called after this or stop().
  Outcome wait();
  void signal(int signal) const { kill(process_, signal); }
  // Sends a signal, and waits for the end.
  Outcome stop(int signal);

 private:
  // One of its outputs.
  struct Stream {
    int end = -1;      // where to read it; -1: it is over
    std::string text;  // as far as it is read
    void read();
  };

  bool listen(std::chrono::steady_clock::time_point deadline);
  bool holds(const Stream& stream, const std::string& text);

  pid_t process_ = -1;
  Stream out_;
  Stream err_;
};
