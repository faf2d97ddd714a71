#include "bench/harness/Pings.h"

#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <iostream>
#include <system_error>
#include <thread>

#include "bench/harness/BenchDirectory.h"
#include "bench/harness/WorkFigures.h"

namespace Bench {

namespace {

void sleep(double seconds) {
  std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
}

}  // namespace

// --- The stamp -------------------------------------------------------------------------------------------------------

Stamp::Stamp(const std::string& directory) {
  const std::string name = directory + "/stamp";
  const int fd = ::open(name.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0 || ::ftruncate(fd, sizeof *seconds_) != 0) throw std::system_error(errno, std::generic_category(), name);
  void* const mapped = ::mmap(nullptr, sizeof *seconds_, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  ::close(fd);
  if (mapped == MAP_FAILED) throw std::system_error(errno, std::generic_category(), name);
  seconds_ = static_cast<std::atomic<double>*>(mapped);  // of zero bytes, which are 0 seconds
}

Stamp::~Stamp() {
  ::munmap(seconds_, sizeof *seconds_);
}

void Stamp::hear() {
  if (*seconds_ == 0) *seconds_ = monotonicSeconds();
}

double Stamp::secondsUntilHeard(const std::function<void()>& act) {
  constexpr double patience = 10;
  sleep(std::uniform_real_distribution<double>(0.5e-3, 2.5e-3)(random_));
  *seconds_ = 0;
  const double start = monotonicSeconds();
  act();
  while (*seconds_ == 0) {
    require(monotonicSeconds() - start < patience, "the other process hears of it");
    sleep(1e-3);
  }
  return *seconds_ - start;
}

// --- Processors ------------------------------------------------------------------------------------------------------

Processors::Processors() {
  require(::sched_getaffinity(0, sizeof anywhere_, &anywhere_) == 0, "the processors are known");
  while (!CPU_ISSET(first_, &anywhere_)) ++first_;
  while (!CPU_ISSET(last_, &anywhere_)) --last_;
}

Processors::~Processors() {
  runAnywhere(0);
}

void Processors::runAnywhere(pid_t process) const {
  ::sched_setaffinity(process, sizeof anywhere_, &anywhere_);
}

void Processors::runOn(pid_t process, unsigned processor) {
  cpu_set_t processors;
  CPU_ZERO(&processors);
  CPU_SET(processor, &processors);
  require(::sched_setaffinity(process, sizeof processors, &processors) == 0, "a process runs where it is told to");
}

// --- Pings -----------------------------------------------------------------------------------------------------------

namespace {

constexpr std::uint64_t wake = 1;
constexpr std::uint64_t end = 2;

void write(int eventFd, std::uint64_t value) {
  require(::write(eventFd, &value, sizeof value) == sizeof value, "an eventfd is written");
}

}  // namespace

Pings::Pings(const std::string& directory, unsigned count, const Processors& processors) {
  for (unsigned i = 0; i < count; ++i) eventFds_.push_back(::eventfd(0, 0));  // inherited
  for (unsigned i = 0; i < count; ++i) {
    const int next = i + 1 < count ? eventFds_[i + 1] : -1;
    processes_.push_back(std::make_unique<ChildProcess>(
        std::vector<std::string>{"pinged", "--dir", directory, "--eventfd", std::to_string(eventFds_[i]),
                                 "--next-eventfd", std::to_string(next)}));
    processes_.back()->report();  // it is there
    const pid_t process = processes_.back()->pid();
    i % 2 == 0 ? processors.runOnLast(process) : processors.runOnFirst(process);
  }
}

Pings::~Pings() {
  for (const int eventFd : eventFds_) {
    const std::uint64_t value = end;
    [[maybe_unused]] const auto written = ::write(eventFd, &value, sizeof value);
    ::close(eventFd);
  }
}

void Pings::ping() {
  write(eventFds_.front(), wake);
}

double secondsOfPings(const std::string& parentDirectory, unsigned count, unsigned samples) {
  const BenchDirectory directory(parentDirectory);
  const Processors processors;
  Pings pings(directory.path(), count, processors);
  processors.runOnFirst();
  Stamp stamp(directory.path());
  std::vector<double> seconds;
  for (unsigned i = 0; i < samples; ++i) seconds.push_back(stamp.secondsUntilHeard([&] { pings.ping(); }));
  std::ranges::sort(seconds);
  return medianOf(seconds);
}

void runPinged(const std::string& directory, const PingedOptions& options) {
  Stamp stamp(directory);
  std::cout << "{}" << std::endl;
  for (std::uint64_t told = 0; ::read(options.eventFd, &told, sizeof told) == sizeof told && told == wake;) {
    if (options.nextEventFd >= 0) {
      write(options.nextEventFd, wake);
    } else {
      stamp.hear();
    }
  }
}

double medianOf(const std::vector<double>& ascending) {
  return ascending.at(ascending.size() / 2);
}

}  // namespace Bench
