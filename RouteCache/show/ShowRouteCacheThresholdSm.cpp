#include "RouteCache/hw/HitBitTimeSlices.h"
#include "RouteCache/show/ShowRouteCacheSm.h"

namespace RouteCache {

// --- What the commands have in common --------------------------------------------------------------------------------

ShowRouteCacheSm::ShowRouteCacheSm(const ShowRouteCacheInputs& inputs)
    : in_(inputs), trace_(in_.trace, "RouteCacheCli") {}

void ShowRouteCacheSm::handleAsyncCommand(Agent::CommandSocket& socket, Agent::OutputFormat format) {
  trace_(8, "handleAsyncCommand", " socket: ", socket.number(), " format: ", format, " of ", in_.name);
  socket_ = &socket;
  renderer_ = &socket.renderer(format);
  callBegan_ = in_.clock->now();
  if (!printerCreated_) renderer_->start();
  const bool complete = print();
  printerCreated_ = true;
  if (!complete) return;
  renderer_->end();
  renderer_->ioflush();
  executionCompletedIs(true);
}

bool ShowRouteCacheSm::shouldYield() const {
  return yieldInTest_ || socket_->shouldYield() || in_.clock->now() - callBegan_ > in_.maxRunTime;
}

void ShowRouteCacheSm::printVrfNotFound(const std::string& vrfName) {
  renderer_->addAttributes("%s\n", {{"cmdErr", Platform::formatted("VRF %s not found.", {vrfName})}});
}

void ShowRouteCacheSm::printRuler(std::size_t width) {
  renderer_->addFrills("%s\n", {std::string(width, '-')});
}

// --- Thresholds ------------------------------------------------------------------------------------------------------

ShowRouteCacheThresholdSm::ShowRouteCacheThresholdSm(const ShowRouteCacheInputs& inputs,
                                                     std::shared_ptr<const HwRouteSm> hwRouteSm)
    : ShowRouteCacheSm(inputs), hwRouteSm_(std::move(hwRouteSm)) {}

std::shared_ptr<ShowRouteCacheThresholdSm> showRouteCacheThresholdSmFactory(
    const ShowRouteCacheInputs& inputs, std::shared_ptr<const HwRouteSm> hwRouteSm) {
  return std::make_shared<ShowRouteCacheThresholdSm>(inputs, std::move(hwRouteSm));
}

bool ShowRouteCacheThresholdSm::print() {
  renderer().startDict("thresholdParams");
  renderer().addFrills("%-20s %-20s %-20s\n", {"Level", "Hw Utilization (%)", "Idle Time (secs)"});
  printRuler(60);
  if (hwRouteSm_) {
    const HwRouteSm& hw = *hwRouteSm_;
    printLevel("low", hw.lowThresholdHwUtilPercentage(), hw.lowThresholdIdleTimeSlice());
    printLevel("medium", hw.mediumThresholdHwUtilPercentage(), hw.mediumThresholdIdleTimeSlice());
    printLevel("high", hw.highThresholdHwUtilPercentage(), hw.highThresholdIdleTimeSlice());
  } else {
    const CliConfig& config = *cliConfig_;
    printLevel("low", config.lowThresholdHwUtilPercentage(), timeSliceOfIdle(config.lowThresholdIdleTime()));
    printLevel("medium", config.mediumThresholdHwUtilPercentage(), timeSliceOfIdle(config.mediumThresholdIdleTime()));
    printLevel("high", config.highThresholdHwUtilPercentage(), timeSliceOfIdle(config.highThresholdIdleTime()));
  }
  renderer().endDict();
  return true;
}

void ShowRouteCacheThresholdSm::printLevel(const char* level, std::uint8_t hwUtilPercentage,
                                           std::uint16_t idleTimeSlice) {
  const int idleTime = CliConfig::maxIdleTime - secondsPerTimeSlice * idleTimeSlice;
  renderer().startDictEntry(level);
  renderer().addAttributes("%-20s %-20d %-20d\n",
                           {{"level", level}, {"hwUtil", hwUtilPercentage}, {"idleTime", idleTime}});
  renderer().endDictEntry();
}

}  // namespace RouteCache
