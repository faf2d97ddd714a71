#include "bench/routers/BirdDaemon.h"

#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <string_view>
#include <thread>

#include "bench/harness/BenchDirectory.h"
#include "bench/harness/WorkFigures.h"
#include "bench/routers/OwnNetwork.h"
#include "platform/values/Text.h"

namespace Bench {

namespace {

constexpr const char* program = "/usr/sbin/bird";
constexpr const char* client = "/usr/sbin/birdc";

// Returns the file.
std::string configured(const std::string& directory, const std::vector<RoutedPrefix>& routes, bool exporting) {
  std::string name = directory + "/bird.conf";
  std::ofstream file(name);
  file << "router id 10.1.255.254;\nprotocol device {}\n";
  if (exporting) file << "protocol kernel { ipv4 { import none; export all; }; }\n";
  file << "protocol static { ipv4;\n";
  for (const RoutedPrefix& route : routes) {
    file << "route " << Platform::toText(route.prefix);
    for (const IpAddr nexthop : route.nexthops) file << " via " << Platform::toText(nexthop);
    file << ";\n";
  }
  file << "}\n";
  return name;
}

}  // namespace

bool BirdDaemon::isInstalled() {
  return ::access(program, X_OK) == 0 && ::access(client, X_OK) == 0;
}

BirdDaemon::BirdDaemon(const std::string& directory, const std::vector<RoutedPrefix>& routes, bool exporting)
    : directory_(directory),
      process_({"-f", "-c", configured(directory, routes, exporting), "-s", directory + "/control"}, program) {}

// Asks every so often; the figure is the daemon's own processor time, to which the waiting does not add.
void BirdDaemon::await(const char* what, const std::function<bool()>& isSo) {
  const Stopwatch waiting;
  while (!isSo()) {
    require(!process_.hasLine(), "BIRD runs");
    require(waiting.seconds() < ChildProcess::patience, what);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
}

double BirdDaemon::loaded(std::size_t expected) {
  await("BIRD has all routes", [&] { return routes() == expected; });
  return processorSeconds(process_.pid());
}

double BirdDaemon::exported(std::size_t expected) {
  await("the kernel has all of BIRD's routes", [&] { return kernelRoutes() >= expected; });
  return processorSeconds(process_.pid());
}

double BirdDaemon::residentBytes() const {
  return residentMemory(process_.pid())["RssAnon"];
}

// "1000000 of 1000000 routes for 1000000 networks in table master4"; 0 before it answers.
std::size_t BirdDaemon::routes() const {
  if (::access((directory_ + "/control").c_str(), F_OK) != 0) return 0;
  std::string answer;
  ChildProcess asking({"-s", directory_ + "/control", "show", "route", "count"}, client);
  asking.readAll([&answer](std::string_view content) { answer += content; });
  const std::size_t of = answer.find(" of ");
  if (of == std::string::npos) return 0;
  return std::strtoul(answer.c_str() + of + 4, nullptr, 10);
}

}  // namespace Bench
