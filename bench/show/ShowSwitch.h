// The switch of ShowBench: a RIB, and the launcher as a process of its own with an agent that has published it.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "RouteCache/CommandTexts.h"
#include "RouteCache/RouteCache.h"
#include "bench/harness/BenchDirectory.h"
#include "bench/harness/ChildProcess.h"
#include "bench/harness/Tables.h"
#include "bench/pipeline/PipelineWorkload.h"
#include "linux/control/ControlClient.h"
#include "simulator/routing/RibWriter.h"

namespace Bench {

inline constexpr std::uint32_t listedVrf = 1;  // pi VRF ids
inline constexpr std::uint32_t loadedVrf = 2;

// The request that a show command sends.
Tools::Json showRequest(const std::string& command, bool asJson);
// Of listedVrf.
std::string listingCommand();

class ShowSwitch {
 public:
  // Begins with all of the workload's routes, in listedVrf, published, and nothing left to do; further ones have room.
  ShowSwitch(const std::string& parentDirectory, const Workload& workload, std::uint32_t furtherRoutes);

  const std::string& runDirectory() const { return directory_.path(); }
  pid_t agent() const { return launcher_->pid(); }

  // Asks the agent; hands over the reply's content as it comes.
  void show(const std::string& command, bool asJson, const std::function<void(std::string_view)>& content) const;

  // Writes further routes in loadedVrf to the RIB: seconds until they are published.
  double load(const Tools::RibChange& further);
  // Takes them back, and waits until nothing is left to do.
  void withdraw();

  // Since the agent's start, in seconds: the longest that a client of the control socket, or a task, held the thread.
  double longestTurn() const;
  double longestTask() const;

  // Ends the agent.
  void stop() { launcher_->stop(); }

 private:
  void start(const Workload& workload, std::uint32_t furtherRoutes);
  void awaitPublished(std::size_t routes) const;
  void settle() const;

  BenchDirectory directory_;
  Tables tables_;
  Tools::RibWriter rib_;
  std::unique_ptr<ChildProcess> launcher_;
  std::shared_ptr<RouteCache::Ipv4RouteStatus> published_;
};

}  // namespace Bench
