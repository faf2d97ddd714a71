#include "host/Simulation.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <iostream>

#include "host/Output.h"
#include "host/Progress.h"
#include "lib/statedb/EntityFields.h"
#include "platform/tables/Rib.h"
#include "platform/values/Paths.h"
#include "simulator/routing/RibWriter.h"

namespace Tools {

using Simulator::RowFormat;

RowFormat rowFormatOf(const std::string& out) {
  if (out.empty()) return RowFormat::none;
  const std::string ending = std::filesystem::path(out).extension().string();
  if (ending == ".csv") return RowFormat::csv;
  if (ending == ".json") return RowFormat::json;
  throw Platform::BadText("--out: '" + out + "' ends neither in .csv nor in .json");
}

// --- What there is to send to ----------------------------------------------------------------------------------------

namespace {

// The key in "COLLECTION[KEY]"; nothing for another field.
std::optional<std::string> keyIn(const std::string& field, const std::string& collection) {
  const auto steps = LinuxPlatform::parseField(field);
  return steps.size() == 1 && steps.front().name == collection ? steps.front().key : std::nullopt;
}

}  // namespace

SwitchVrfs::SwitchVrfs(const Ask& ask) {
  ask(Paths::vrfIdMap, [this](const std::string& field, const std::string& value) {
    const auto key = keyIn(field, "globalVrfIdToHwVrfId");
    if (key) hwOfPi_[Platform::fromText<std::uint32_t>(*key)] = Platform::fromText<std::uint32_t>(value);
  });
  ask(Paths::vrfNames, [this](const std::string& field, const std::string& value) {
    if (const auto key = keyIn(field, "nameToId")) piOfName_[*key] = Platform::fromText<std::uint32_t>(value);
  });
}

std::optional<std::uint32_t> SwitchVrfs::hwVrfIdOfPi(std::uint32_t piVrfId) const {
  const auto found = hwOfPi_.find(piVrfId);
  return found == hwOfPi_.end() ? std::nullopt : std::optional(found->second);
}

std::optional<std::uint32_t> SwitchVrfs::hwVrfIdOfName(const L3::VrfName& name) const {
  const auto found = piOfName_.find(name.text());
  return found == piOfName_.end() ? std::nullopt : hwVrfIdOfPi(found->second);
}

TrafficInputs trafficInputs(Pondra::TableService& tables, const SwitchVrfs& vrfs) {
  using Routing::Rib::RouteConfig;
  TrafficInputs inputs;
  inputs.hwVrfIdOf = [vrfs](const L3::VrfName& name) { return vrfs.hwVrfIdOfName(name); };
  tables.mount(Paths::ribRoutes, RouteConfig::typeName, Pondra::MountKind::keyedReader);
  for (const auto& route : *tables.get<RouteConfig>(Paths::ribRoutes)) {
    const auto& prefix = route.key().prefix();
    const auto hwVrfId = vrfs.hwVrfIdOfPi(route.key().vrfId());
    if (hwVrfId && prefix.isV4() && prefix.v4().isHost()) inputs.destinations.push_back({*hwVrfId, prefix.addr().v4()});
  }
  return inputs;
}

// --- The run ---------------------------------------------------------------------------------------------------------

namespace {

// Without this, a pipe that nobody reads would keep its writer waiting for ever.
void checkOpens(const std::string& file) {
  const int fd = ::open(file.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC | O_CREAT, 0666);
  if (fd < 0)
    throw std::runtime_error(file + ": " + (errno == ENXIO ? "a pipe that nobody reads" : std::strerror(errno)));
  ::close(fd);
}

}  // namespace

Simulation::Simulation(Pondra::TableService& tables, Platform::TaskScheduler& scheduler,
                       std::unique_ptr<Simulator::TrafficSource> traffic, const SimulationSettings& settings)
    : traffic_(std::move(traffic)), settings_(settings), plane_(tables, scheduler, *traffic_, settings.forwarding) {
  const RowFormat format = rowFormatOf(settings.out);
  if (format != RowFormat::none) {
    checkOpens(settings.out);
    file_.open(settings.out, std::ios::trunc);
    if (!file_) throw std::runtime_error(settings.out + ": " + std::strerror(errno));
  }
  if (settings.yardsticks) {
    const auto destinations = static_cast<std::uint32_t>(traffic_->destinations().size());
    yardsticks_ = std::make_unique<Yardsticks>(plane_.hardware().capacity(), destinations);
  }
  errno = 0;
  report_.emplace(plane_, settings.interval, std::cout, &file_, format);
  checkOutput();
  plane_.afterTickIs([this] { handleTick(); });
}

void Simulation::handleTick() {
  if (yardsticks_) {
    yardsticks_->lru.requests(plane_.time(), plane_.bursts());
    yardsticks_->lfu.requests(plane_.time(), plane_.bursts());
    yardsticks_->optimum.requests(plane_.time(), plane_.bursts());
  }
  errno = 0;
  report_->handleTick();
  checkOutput();
  if (!over()) return;
  plane_.stop();
  if (whenOver_) whenOver_();
}

// Nobody is served by an hour of rows that go nowhere.
void Simulation::checkOutput() {
  if (!std::cout) flushOutput();
  if (file_.is_open() && !file_) throw std::runtime_error(settings_.out + ": " + std::strerror(errno));
}

bool Simulation::over() const {
  if (!settings_.duration) return traffic_->exhausted();
  return plane_.time() + plane_.tick() / 2 >= *settings_.duration;
}

std::vector<Simulator::YardstickRow> Simulation::yardstickRows() const {
  if (!yardsticks_) return {};
  Progress progress("ticks judged");
  const auto optimum = yardsticks_->optimum.judge([&progress](double, const auto&) { progress.step(); });
  return {{"LRU", yardsticks_->lru.figures()}, {"LFU", yardsticks_->lfu.figures()}, {"optimum", optimum}};
}

void Simulation::finish() {
  report_->finish(yardstickRows());
  if (file_.is_open() && !file_.flush()) throw std::runtime_error(settings_.out + ": " + std::strerror(errno));
}

}  // namespace Tools
