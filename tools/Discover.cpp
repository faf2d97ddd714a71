// `routecache discover`: this machine's VRFs, tunnel interfaces and underlay routes go into the state database and stay
// as they are, until SIGTERM.
#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "host/Output.h"
#include "linux/control/ControlClient.h"
#include "linux/control/ControlOperations.h"
#include "linux/control/ControlSocket.h"
#include "linux/files/OwnFiles.h"
#include "linux/files/RunDirectory.h"
#include "linux/loop/EventLoop.h"
#include "netlink/discover/Discoverer.h"
#include "platform/values/Printable.h"
#include "tools/commandline/Commands.h"
#include "tools/commandline/Common.h"
#include "tools/commandline/OptionChecks.h"
#include "tools/commandline/ProcessStatus.h"
#include "tools/commandline/StateAccess.h"

namespace Tools {

namespace {

using LinuxPlatform::ControlSocket;
using LinuxPlatform::RunDirectory;
using Netlink::Discoverer;
using Netlink::DiscoverSettings;
using Platform::BadText;

constexpr const char* statusOp = "discoverStatus";

struct DiscoverOptions {
  std::string runDir;
  StateDbOptions stateDb;
  std::vector<std::string> vrfs;
  std::vector<std::string> vnis;
  std::vector<std::string> sources;
  Discoverer::Intervals intervals;
  bool status = false;
  bool json = false;
};

std::string controlPath(const std::string& runDir) {
  return runDir + "/discover.control";
}

void addVrf(DiscoverSettings& settings, const std::string& text) {
  const auto [name, table] = namedNumber("--vrf", text);
  if (!Netlink::isVrfTable(table)) {
    throw BadText("--vrf: the kernel's table " + std::to_string(table) + " is no VRF's");
  }
  for (const auto& [otherName, otherTable] : settings.vrfTables) {
    if (otherTable == table && otherName != name) throw BadText("--vrf: two VRFs in table " + std::to_string(table));
  }
  if (!settings.vrfTables.emplace(name, table).second) {
    throw BadText("--vrf: " + Platform::printable(name) + " twice");
  }
}

DiscoverSettings settingsOf(const DiscoverOptions& options) {
  DiscoverSettings settings;
  for (const auto& text : options.vrfs) addVrf(settings, text);
  for (const auto& text : options.vnis) {
    const auto [vlan, vni] = numberPair("--vni", text, UINT16_MAX, Vxlan::Vni::max);
    if (vlan == 0) throw BadText("--vni: VLAN 0 is none");
    if (!settings.vnis.emplace(static_cast<Bridging::ExtendedVlanId>(vlan), Vxlan::Vni(vni)).second) {
      throw BadText("--vni: VLAN " + std::to_string(vlan) + " twice");
    }
  }
  for (const auto& text : options.sources) {
    const auto source = optionValue<IpGenAddr>("--source", text);
    const bool isTwice = source.isV4() ? !settings.source4.isZero() : !settings.source6.isZero();
    if (isTwice) throw BadText("--source: two addresses of one family");
    if (source.isV4()) settings.source4 = source.v4();
    if (source.isV6()) settings.source6 = source.v6();
  }
  return settings;
}

// Each time by a connection of its own: whoever is at the other end may have gone meanwhile.
class DatabaseKeeper final : public Netlink::StateKeeper {
 public:
  DatabaseKeeper(std::string runDir, const StateDbOptions& stateDb) : runDir_(std::move(runDir)), stateDb_(stateDb) {}

  Outcome keep(const Netlink::StateEntities& state) override {
    keptIn_ = agent();
    Outcome outcome;
    const auto access = stateAccess(runDir_, stateDb_, longPatience);
    for (const auto& [path, wanted] : state) {
      std::vector<Netlink::StateField> held;
      access->fieldsOf(path, [&](const auto& field, const auto& value) { held.push_back({field, value}); });
      for (const auto& change : Netlink::differences(wanted, held)) {
        try {
          if (change.isDeleted) {
            access->fieldDel(path, change.field);
          } else {
            access->fieldIs(path, change.field, change.value);
          }
          ++outcome.changes;
        } catch (const BadText& refusal) {
          outcome.refusals.emplace_back(refusal.what());
        }
      }
    }
    access->waitUntilTaken();
    return outcome;
  }

  bool isAnother() override { return !stateDb_.isShared() && agent() != keptIn_; }

 private:
  // Its control socket: another agent has another. Nothing: there is no agent.
  using Agent = std::optional<std::pair<ino_t, std::int64_t>>;
  Agent agent() const {
    struct stat status {};
    if (lstat(RunDirectory::controlPath(runDir_).c_str(), &status) != 0) return std::nullopt;
    return std::pair(status.st_ino, status.st_ctim.tv_sec * std::int64_t{1'000'000'000} + status.st_ctim.tv_nsec);
  }

  const std::string runDir_;
  const StateDbOptions stateDb_;
  Agent keptIn_;
};

void discover(const DiscoverOptions& options) {
  const DiscoverSettings settings = settingsOf(options);
  LinuxPlatform::EventLoop loop;
  LinuxPlatform::makeDirectory(options.runDir);
  const auto lock =
      onlyOne(options.runDir + "/discover.lock", options.runDir + ": another process discovers the machine for it");
  DatabaseKeeper keeper(options.runDir, options.stateDb);
  Discoverer discoverer(loop, settings, options.intervals, keeper,
                        [](const std::string& line) { std::fprintf(stderr, "%s\n", line.c_str()); });
  ControlSocket control(loop, controlPath(options.runDir));
  control.opIs(statusOp, ControlSocket::Access::ask,
               [&](const auto&) { return std::make_unique<StatusReply>(discoverer.figures()); });
  LinuxPlatform::addTaskOperation(control, loop);
  tell(false, {},
       "ready: this machine goes to the state database of " +
           (options.stateDb.isShared() ? options.stateDb.address : options.runDir));
  flushOutput();
  loop.stopOnSignals();
  loop.run();
}

void showStatus(const DiscoverOptions& options) {
  const auto status = askStatus(controlPath(options.runDir), "the discovery of " + options.runDir, statusOp);
  options.json ? printJson(status) : printFigures(status);
}

}  // namespace

void addDiscoverCommand(CLI::App& app, ToolContext&) {
  auto options = std::make_shared<DiscoverOptions>();
  CLI::App* command = app.add_subcommand(
      "discover", "Take this machine's VRFs, tunnels and underlay routes into the state database until SIGTERM");
  command->footer("Example: routecache discover --vrf red=1001 --vni 10=10010 --run-dir /run/routecache");
  addRunDirOption(*command, options->runDir);
  addStateDbOptions(*command, options->stateDb);
  command->add_option("--vrf", options->vrfs, "A VRF that the kernel has a table for and no device")
      ->type_name("NAME=TABLE")
      ->take_all();
  command->add_option("--vni", options->vnis, "The VNI of a VLAN on external VXLAN devices, where no bridge says it")
      ->type_name("VLAN=VNI")
      ->take_all();
  command
      ->add_option("--source", options->sources,
                   "Tunnels' own address where the device has none, one of a family (default: the loopback's)")
      ->type_name("ADDR")
      ->take_all();
  command
      ->add_option("--compare-interval", options->intervals.compare,
                   "The state database is compared with the machine so often, also without a cause")
      ->type_name("SECONDS")
      ->check(realNumber(leastSeconds, mostSeconds))
      ->capture_default_str();
  command->add_flag("--status", options->status, "Show what a running one has found");
  command->add_flag("--json", options->json, "Print JSON, with --status");
  command->callback([options] {
    if (options->json && !options->status) throw BadText("--json goes with --status");
    if (options->status) return showStatus(*options);
    discover(*options);
  });
}

}  // namespace Tools
