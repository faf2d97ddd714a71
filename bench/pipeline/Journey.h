// What happens to the routes of a switch in its life, at full size, with hardware route caching off or on: one run of
// the agent after the other over the same tables. bench/README.md says what is timed.
#pragma once

#include <cstddef>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "bench/harness/BenchDirectory.h"
#include "bench/harness/ChildProcess.h"
#include "bench/harness/Figures.h"
#include "bench/pipeline/PipelineWorkload.h"
#include "bench/pipeline/PublishedTables.h"
#include "bench/pipeline/RouteProbe.h"
#include "bench/pipeline/RoutingProcess.h"

namespace Bench {

// A phase with caching on is told apart by its name.
std::string phaseName(const std::string& phase, bool caching);

// The processes of a switch over tables of its own.
class JourneySwitch {
 public:
  JourneySwitch(const std::string& parentDirectory, const Workload& workload, const Tools::RibChange& rib);

  const std::string& directory() const { return directory_.path(); }
  const Workload& workload() const { return workload_; }
  RoutingProcess& routing() { return routing_; }
  ChildProcess& agent() { return *agent_; }
  PublishedTables& published() { return *published_; }

  void startAgent();
  void killAgent() { agent_.reset(); }
  // The agent's answers (bench/pipeline/PipelineAgent.h).
  nlohmann::json settle(std::size_t routes, std::size_t waiting = 0);
  nlohmann::json reconcile() { return agent_->ask("reconcile"); }
  // When it was told to.
  double set(const std::string& path, const std::string& field, const std::string& value);
  double del(const std::string& path, const std::string& field);

 private:
  Workload workload_;
  BenchDirectory directory_;
  RoutingProcess routing_;
  std::optional<PublishedTables> published_;  // from the first start on
  std::unique_ptr<ChildProcess> agent_;
};

class Journey {
 public:
  // The workload's routes are `rib`. All of it outlives the journey.
  Journey(const std::string& parentDirectory, const Workload& workload, const Tools::RibChange& rib, Figures& figures);
  void run();

 private:
  std::string name(const std::string& phase) const { return phaseName(phase, switch_.workload().caching); }
  // What an answer says of a phase that began then and concerned so many routes.
  void add(const std::string& phase, double start, const nlohmann::json& answer, std::size_t routes);
  void addMemory(const std::string& phase, const nlohmann::json& answer, std::size_t routes);
  void addLatency(const std::string& phase, const ProbeTimes& times);

  void load();
  void oneRoute(const std::string& phase);
  void move();
  void vrfGoesAndReturns();
  void tunnelGoesAndReturns();
  void restart();
  void withdrawWhileDown();
  void othersWait();
  void withdrawAndLoad();

  std::string parentDirectory_;
  Figures& figures_;
  std::size_t routes_;
  JourneySwitch switch_;
};

// Figures of their own runs: the load of a small table, memory after a peak, very many VRFs.
void measureSmallLoad(const std::string& parentDirectory, const Workload& workload, Figures& figures);
void measurePeak(const std::string& parentDirectory, const Workload& workload, const Tools::RibChange& rib,
                 Figures& figures);
void measureManyVrfs(const std::string& parentDirectory, Figures& figures);

}  // namespace Bench
