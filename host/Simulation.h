// One run of the forwarding plane with its report, in whichever time: what `routecache simulate` does once the agent's
// tables are there.
#pragma once

#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "platform/services/TaskScheduler.h"
#include "platform/tables/SharedTable.h"
#include "simulator/forwarding/ForwardingPlane.h"
#include "simulator/input/TrafficPlan.h"
#include "simulator/report/Report.h"
#include "simulator/report/Yardsticks.h"
#include "simulator/traffic/TrafficSource.h"

namespace Tools {

struct SimulationSettings {
  Simulator::ForwardingSettings forwarding;
  std::optional<double> duration;  // seconds
  double interval = 10;            // seconds between two rows
  std::string out;                 // also to this file, .csv or .json
  bool yardsticks = false;
};

// Throws BadText for a file name of another ending.
Simulator::RowFormat rowFormatOf(const std::string& out);

// The VRFs as the agent knows them: asks for the fields of an entity, each as "COLLECTION[KEY]" and value.
class SwitchVrfs {
 public:
  using Field = std::function<void(const std::string& field, const std::string& value)>;
  using Ask = std::function<void(const std::string& path, const Field& field)>;
  // Throws what `ask` throws.
  explicit SwitchVrfs(const Ask& ask);

  // Nothing: the VRF is not complete.
  std::optional<std::uint32_t> hwVrfIdOfPi(std::uint32_t piVrfId) const;
  std::optional<std::uint32_t> hwVrfIdOfName(const L3::VrfName& name) const;

 private:
  std::map<std::uint32_t, std::uint32_t> hwOfPi_;
  std::map<std::string, std::uint32_t> piOfName_;
};

// What traffic needs: the configured IPv4 host routes in key order, with the hardware's VRF ids. Routes of VRFs that
// are not complete are left out.
TrafficInputs trafficInputs(Pondra::TableService& tables, const SwitchVrfs& vrfs);

class Simulation {
 public:
  // The agent's tables must exist. Writes the headings; from now on there is traffic. Throws std::runtime_error when
  // the file cannot be written, TableError when another process plays the forwarding plane here.
  Simulation(Pondra::TableService& tables, Platform::TaskScheduler& scheduler,
             std::unique_ptr<Simulator::TrafficSource> traffic, const SimulationSettings& settings);

  // Called when it is over, from inside a tick: the duration has passed or, without one, the traffic has ended. Nothing
  // is sent any more then.
  void whenOverIs(std::function<void()> hook) { whenOver_ = std::move(hook); }
  // Totals and yardsticks. Once, at the end.
  void finish();

 private:
  void handleTick();
  void checkOutput();
  bool over() const;
  std::vector<Simulator::YardstickRow> yardstickRows() const;

  struct Yardsticks {
    Yardsticks(std::uint32_t capacity, std::uint32_t destinations)
        : lru(capacity, destinations), lfu(capacity, destinations), optimum(capacity, destinations) {}
    Simulator::LruCache lru;
    Simulator::LfuCache lfu;
    Simulator::OptimalCache optimum;
  };

  std::unique_ptr<Simulator::TrafficSource> traffic_;
  SimulationSettings settings_;
  Simulator::ForwardingPlane plane_;
  std::unique_ptr<Yardsticks> yardsticks_;
  std::ofstream file_;
  std::optional<Simulator::Report> report_;
  std::function<void()> whenOver_;
};

}  // namespace Tools
