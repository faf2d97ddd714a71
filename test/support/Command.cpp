#include "test/support/Command.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <iomanip>
#include <sstream>
#include <vector>

#include "platform/values/Assert.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::minutes patience{5};

// The end of what may be long.
std::string tail(const std::string& text) {
  constexpr std::size_t enough = 2000;
  return text.size() <= enough ? text : "[...]" + text.substr(text.size() - enough);
}

// As a descriptor to read it from.
int readable(const std::string& input) {
  const int file = ::memfd_create("input", MFD_CLOEXEC);
  PLATFORM_ASSERT(::write(file, input.data(), input.size()) == static_cast<ssize_t>(input.size()));
  PLATFORM_ASSERT(::lseek(file, 0, SEEK_SET) == 0);
  return file;
}

std::vector<std::string> words(const std::string& text) {
  std::vector<std::string> all;
  std::istringstream in(text);
  for (std::string word; in >> std::quoted(word, '\'');) all.push_back(word);
  return all;
}

// In the new process.
[[noreturn]] void become(std::vector<char*> argv, int in, int out, int err) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  for (int signal = 1; signal < NSIG; ++signal) ::signal(signal, SIG_DFL);  // those of the C library's own stay
  sigset_t none;
  ::sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
  ::dup2(in, STDIN_FILENO);
  ::dup2(out, STDOUT_FILENO);
  ::dup2(err, STDERR_FILENO);
  ::execv(argv[0], argv.data());
  ::_exit(127);
}

}  // namespace

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

Command::Command(const std::string& arguments, const std::string& input, const char* outFile,
                 const std::string& program) {
  std::vector<std::string> all = words(arguments);
  all.insert(all.begin(), program.empty() ? ROUTECACHE_COMMAND : program);
  std::vector<char*> argv;
  argv.reserve(all.size() + 1);
  for (auto& word : all) argv.push_back(word.data());
  argv.push_back(nullptr);

  std::array<int, 2> out{};
  std::array<int, 2> err{};
  PLATFORM_ASSERT(::pipe2(out.data(), O_CLOEXEC) == 0 && ::pipe2(err.data(), O_CLOEXEC) == 0);
  if (outFile != nullptr) PLATFORM_ASSERT(::dup3(::open(outFile, O_WRONLY), out[1], O_CLOEXEC) >= 0);
  const int in = readable(input);
  process_ = ::fork();
  PLATFORM_ASSERT(process_ >= 0);
  if (process_ == 0) become(std::move(argv), in, out[1], err[1]);
  for (const int end : {in, out[1], err[1]}) ::close(end);
  out_.end = out[0];
  err_.end = err[0];
}

Command::~Command() {
  if (process_ > 0) {
    ::kill(process_, SIGKILL);
    ::waitpid(process_, nullptr, 0);
  }
  for (const Stream& stream : {out_, err_}) {
    if (stream.end >= 0) ::close(stream.end);
  }
}

void Command::Stream::read() {
  std::array<char, 65536> bytes;
  const ssize_t count = ::read(end, bytes.data(), bytes.size());
  if (count > 0) {
    text.append(bytes.data(), static_cast<std::size_t>(count));
  } else {
    ::close(std::exchange(end, -1));
  }
}

// Takes in what comes next. False: nothing will.
bool Command::listen(Clock::time_point deadline) {
  if (out_.end < 0 && err_.end < 0) return false;
  std::array<pollfd, 2> ends{{{out_.end, POLLIN, 0}, {err_.end, POLLIN, 0}}};  // poll passes over -1
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
  if (::poll(ends.data(), ends.size(), static_cast<int>(std::max<std::int64_t>(left, 0))) <= 0) {
    ADD_FAILURE() << "a process takes too long; so far it has said:\n" << tail(out_.text) << tail(err_.text);
    return false;
  }
  if (ends[0].revents != 0) out_.read();
  if (ends[1].revents != 0) err_.read();
  return true;
}

bool Command::holds(const Stream& stream, const std::string& text) {
  const auto deadline = Clock::now() + patience;
  while (stream.text.find(text) == std::string::npos) {
    if (!listen(deadline)) return false;
  }
  return true;
}

Outcome Command::wait() {
  const auto deadline = Clock::now() + patience;
  while (listen(deadline)) {
  }
  if (out_.end >= 0 || err_.end >= 0) ::kill(process_, SIGKILL);
  int status = 0;
  ::waitpid(process_, &status, 0);
  process_ = -1;
  return {out_.text, err_.text, WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status)};
}

Outcome Command::stop(int signal) {
  ::kill(process_, signal);
  return wait();
}
