#include "bench/harness/ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace Bench {

ChildProcess::ChildProcess(const std::vector<std::string>& arguments, const std::string& program)
    : name_(arguments.front()) {
  std::array<int, 2> ends;    // of its output
  std::array<int, 2> spoken;  // of its input: a socket, so that telling one that has ended is no signal
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) throw std::system_error(errno, std::generic_category(), "pipe");
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, spoken.data()) != 0) {
    throw std::system_error(errno, std::generic_category(), "socketpair");
  }
  std::vector<std::string> words{program};
  words.insert(words.end(), arguments.begin(), arguments.end());
  std::vector<char*> pointers;
  pointers.reserve(words.size() + 1);
  for (auto& word : words) pointers.push_back(word.data());
  pointers.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, spoken[1], STDIN_FILENO);
  const int fault = posix_spawn(&pid_, words.front().c_str(), &actions, nullptr, pointers.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  ::close(ends[1]);
  ::close(spoken[1]);
  input_ = spoken[0];
  output_ = ends[0];
  if (fault != 0) {
    pid_ = -1;
    throw std::system_error(fault, std::generic_category(), "posix_spawn");
  }
}

ChildProcess::~ChildProcess() {
  kill();
  if (output_ >= 0) ::close(output_);
  if (input_ >= 0) ::close(input_);
}

void ChildProcess::kill() {
  if (pid_ <= 0) return;
  ::kill(pid_, SIGKILL);
  ::waitpid(std::exchange(pid_, -1), nullptr, 0);
}

void ChildProcess::tell(const std::string& line) {
  const std::string whole = line + "\n";
  ::send(input_, whole.data(), whole.size(), MSG_NOSIGNAL);
}

std::string ChildProcess::line() {
  std::size_t end = 0;
  while ((end = read_.find('\n')) == std::string::npos) {
    if (!readMore()) throw std::runtime_error(name_ + ": the process ended without a report");
  }
  std::string line = read_.substr(0, end + 1);
  read_.erase(0, end + 1);
  return line;
}

bool ChildProcess::hasLine() {
  pollfd output{output_, POLLIN, 0};
  return read_.find('\n') != std::string::npos || ::poll(&output, 1, 0) > 0;
}

void ChildProcess::readAll(const std::function<void(std::string_view)>& content) {
  do {
    content(std::exchange(read_, {}));
  } while (readMore());
}

bool ChildProcess::readMore() {
  pollfd output{output_, POLLIN, 0};
  if (::poll(&output, 1, static_cast<int>(patience * 1000)) == 0) {
    throw std::runtime_error(name_ + ": no report within " + std::to_string(static_cast<int>(patience)) + " seconds");
  }
  std::array<char, 64 * 1024> buffer;  // NOLINT: filled by read
  const ssize_t count = ::read(output_, buffer.data(), buffer.size());
  if (count > 0) read_.append(buffer.data(), static_cast<std::size_t>(count));
  return count > 0;
}

void ChildProcess::stop() {
  ::kill(pid_, SIGTERM);
  wait();
}

void ChildProcess::wait() {
  ::close(std::exchange(input_, -1));
  int status = 0;
  ::waitpid(std::exchange(pid_, -1), &status, 0);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) throw std::runtime_error(name_ + ": the process failed");
}

double processorSeconds(pid_t process) {
  clockid_t clock{};
  timespec time{};
  if (::clock_getcpuclockid(process, &clock) != 0 || ::clock_gettime(clock, &time) != 0) {
    throw std::system_error(errno, std::generic_category(), "the clock of a process");
  }
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

nlohmann::json residentMemory(pid_t process) {
  nlohmann::json found = nlohmann::json::object();
  std::ifstream status("/proc/" + (process == 0 ? "self" : std::to_string(process)) + "/status");
  for (std::string name; status >> name;) {
    std::uint64_t kilobytes = 0;
    if (name == "VmRSS:" || name == "VmHWM:" || name == "RssAnon:" || name == "RssFile:" || name == "RssShmem:") {
      status >> kilobytes;
      name.pop_back();
      found[name] = kilobytes * 1024;
    }
    status.ignore(1024, '\n');
  }
  return found;
}

}  // namespace Bench
