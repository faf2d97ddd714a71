// The state database of a large switch, in a Redis server and embedded: what a start takes, and what it costs when the
// server was away and nothing has changed. bench/README.md says what the figures mean.
#include <hiredis/hiredis.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/harness/BenchProgram.h"
#include "bench/harness/ChildProcess.h"
#include "bench/harness/WorkFigures.h"
#include "linux/control/ControlClient.h"
#include "platform/values/Text.h"

namespace Bench {

namespace {

struct Options : BenchOptions {
  std::uint32_t vrfs = 10'000;
  std::uint32_t underlayRoutes = 100'000;
};

constexpr const char* switchName = "leaf1";
constexpr double patience = 120;  // seconds; more than anything here may take

void await(const char* what, const std::function<bool()>& holds) {
  const Stopwatch waiting;
  while (!holds()) {
    if (waiting.seconds() > patience) throw std::runtime_error(std::string("in vain: ") + what);
    constexpr timespec pause{0, 2'000'000};
    nanosleep(&pause, nullptr);
  }
}

// A server of this benchmark's own, and a plain client of it.
class Server {
 public:
  explicit Server(const std::string& directory)
      : socket_(directory + "/redis.sock"),
        process_({"--port", "0", "--unixsocket", socket_, "--dir", directory, "--save", "", "--logfile", "/dev/null"},
                 "/usr/bin/redis-server") {
    await("redis-server", [this] {
      client_.reset(redisConnectUnix(socket_.c_str()));
      return client_ && client_->err == 0;
    });
  }
  const std::string& socket() const { return socket_; }
  double memory() const { return residentMemory(process_.pid())["RssAnon"]; }
  // One command; its reply.
  using Reply = std::unique_ptr<redisReply, decltype(&freeReplyObject)>;
  Reply command(const std::string& text) const {
    return {static_cast<redisReply*>(redisCommand(client_.get(), text.c_str())), &freeReplyObject};
  }

 private:
  std::string socket_;
  ChildProcess process_;
  std::unique_ptr<redisContext, decltype(&redisFree)> client_{nullptr, &redisFree};
};

class Measurement {
 public:
  explicit Measurement(const Options& options) : options_(options) {}
  const Figures& figures() const { return figures_; }

  void run() {
    const BenchDirectory directory(options_.directory);
    const std::string scenario = directory.path() + "/scenario.json";
    std::ofstream(scenario) << content();
    started("embedded", directory, {"--fresh", "--scenario", scenario})->stop();
    const Server server(directory.path());
    const std::vector<std::string> database{"--state-db", "unix:" + server.socket(), "--switch", switchName};
    const Stopwatch filling;
    ChildProcess fill(with({"statedb", "fill", scenario}, database), ROUTECACHE_PROGRAM);
    fill.line();
    fill.wait();
    figures_.add("fill", "seconds", filling.seconds());
    figures_.add("fill", "serverBytes", server.memory());
    readPlainly(server);
    const auto agent = started("Redis", directory, database);
    loseAndFind(server, *agent, directory.path());
    agent->stop();
  }

 private:
  static std::vector<std::string> with(std::vector<std::string> words, const std::vector<std::string>& more) {
    words.insert(words.end(), more.begin(), more.end());
    return words;
  }
  std::string content() const;
  std::unique_ptr<ChildProcess> started(const std::string& phase, const BenchDirectory& directory,
                                        const std::vector<std::string>& database);
  void readPlainly(const Server& server);
  void loseAndFind(const Server& server, const ChildProcess& agent, const std::string& runDirectory);
  static double longestTask(const std::string& runDirectory);

  const Options& options_;
  Figures figures_;
};

std::string Measurement::content() const {
  nlohmann::json scenario = {{"routing/hardware/status", {{"hwRouteCachingEnabled", false}}},
                             {"routecache/capability",
                              {{"hwRouteTableSize", 65536}, {"sfeRouteTableSize", 64}, {"adjacencyTableSize", 1024}}}};
  for (std::uint32_t vrf = 1; vrf <= options_.vrfs; ++vrf) {
    const std::string name = "vrf" + std::to_string(vrf);
    scenario["vrf/vrfNameStatus"]["nameToId"][name] = vrf;
    scenario["routing/hardware/route/status"]["vrfStatus"][name]["hwVrfId"] = vrf + 1000;
  }
  auto& routes = scenario["routing/underlay/route"]["route"];
  for (std::uint32_t route = 0; route < options_.underlayRoutes; ++route) {
    routes["10." + std::to_string(route >> 12U) + "." + std::to_string((route >> 4U) & 255U) + "." +
           std::to_string((route & 15U) << 4U) + "/28"] = route + 1;
  }
  return scenario.dump();
}

// Until it is ready.
std::unique_ptr<ChildProcess> Measurement::started(const std::string& phase, const BenchDirectory& directory,
                                                   const std::vector<std::string>& database) {
  const Stopwatch starting;
  auto agent =
      std::make_unique<ChildProcess>(with({"run", "--run-dir", directory.path()}, database), ROUTECACHE_PROGRAM);
  agent->line();  // where its state is from
  agent->line();  // ready
  figures_.add(phase, "seconds", starting.seconds());
  figures_.add(phase, "cpuSeconds", processorSeconds(agent->pid()));
  figures_.add(phase, "bytes", residentMemory(agent->pid())["RssAnon"]);
  figures_.add(phase, "heldSeconds", longestTask(directory.path()));
  return agent;
}

double Measurement::longestTask(const std::string& runDirectory) {
  double longest = 0;
  Tools::askAgent(runDirectory, {{"op", "tasks"}}, [&longest](const Tools::Json& task) {
    longest = std::max(longest, Platform::fromText<double>(task.value("longestRun", "")));
  });
  return longest;
}

// A program that does nothing but ask for all of it and keep it.
void Measurement::readPlainly(const Server& server) {
  std::map<std::string, std::map<std::string, std::string>> all;
  const Stopwatch reading;
  const auto keys = server.command(std::string("KEYS ") + switchName + "|*");
  for (std::size_t i = 0; i < keys->elements; ++i) {
    const std::string key = keys->element[i]->str;
    const auto hash = server.command("HGETALL " + key);
    for (std::size_t field = 0; hash->type == REDIS_REPLY_ARRAY && field + 1 < hash->elements; field += 2) {
      all[key].emplace(hash->element[field]->str, hash->element[field + 1]->str);
    }
  }
  figures_.add("Redis", "rivalSeconds", reading.seconds());
}

// All connections are cut, and the agent compares everything with what it knew.
void Measurement::loseAndFind(const Server& server, const ChildProcess& agent, const std::string& runDirectory) {
  const auto number = [&](const char* field) {
    double value = 0;
    Tools::askAgent(runDirectory, {{"op", "get"}, {"path", "platform/stateDb"}, {"field", field}},
                    [&value](const Tools::Json& line) { value = Platform::fromText<double>(line.value("value", "")); });
    return value;
  };
  const double sessions = number("sessions");
  const double readings = number("readings");
  const double paths = static_cast<double>(server.command(std::string("KEYS ") + switchName + "|*")->elements) - 1;
  const double cpuBefore = processorSeconds(agent.pid());
  const Stopwatch losing;
  server.command("CLIENT KILL TYPE pubsub");
  await("another session", [&] { return number("sessions") > sessions; });
  await("all readings", [&] { return number("readings") >= readings + paths; });
  figures_.add("lost and found", "seconds", losing.seconds());
  figures_.add("lost and found", "cpuSeconds", processorSeconds(agent.pid()) - cpuBefore);
  figures_.add("lost and found", "heldSeconds", longestTask(runDirectory));
}

void print(const Options& options, const Figures& figures) {
  std::printf("%u VRFs, %u underlay routes; medians of %u runs\n\n", options.vrfs, options.underlayRoutes,
              options.runs);
  std::printf("%-16s %9s %9s %9s %9s\n", "", "seconds", "CPU s", "held, ms", "MB");
  for (const auto& phase : figures.phases()) {
    const auto median = [&](const char* figure) {
      return figures.has(phase, figure) ? figures.median(phase, figure) : 0.0;
    };
    std::printf("%-16s %9.3f %9.3f %9.2f %9.1f\n", phase.c_str(), median("seconds"), median("cpuSeconds"),
                1e3 * median("heldSeconds"), (median("bytes") + median("serverBytes")) / 1e6);
  }
}

constexpr Bar bars[] = {
    {"Redis", "seconds", "rivalSeconds", Bar::told, "s"},  // HGETALL of every hash, and nothing done with it
    {"Redis", "heldSeconds", nullptr, 8, "ms", 1e3},
    {"embedded", "heldSeconds", nullptr, 8, "ms", 1e3},
    {"lost and found", "heldSeconds", nullptr, 8, "ms", 1e3},
};

}  // namespace

}  // namespace Bench

int main(int argc, char** argv) {
  using namespace Bench;
  Options options;
  BenchProgram program("StateDbBench", "Measures an agent's start from a large state, in a Redis server and embedded.",
                       options);
  program.routesAre(options.underlayRoutes, "Underlay routes", 100, 1'000'000);
  program.app().add_option("--vrfs", options.vrfs, "VRFs")->check(CLI::Range(1U, 20'000U))->capture_default_str();
  return program.run<Measurement>(argc, argv, options, print, bars);
}
