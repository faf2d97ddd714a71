// `routecache kernel`: mirrors published routes into this machine's kernel, until SIGTERM. What it has put there stays.
#include <net/if.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "host/Output.h"
#include "host/TableDelivery.h"
#include "host/TableTypes.h"
#include "linux/control/ControlClient.h"
#include "linux/control/ControlOperations.h"
#include "linux/control/ControlSocket.h"
#include "linux/files/ProcessLimits.h"
#include "linux/loop/EventLoop.h"
#include "linux/tables/SharedTableService.h"
#include "netlink/kernel/KernelFlush.h"
#include "netlink/kernel/KernelMirror.h"
#include "platform/values/Paths.h"
#include "platform/values/Printable.h"
#include "tools/KernelAnswers.h"
#include "tools/KernelVnis.h"
#include "tools/commandline/Commands.h"
#include "tools/commandline/Common.h"
#include "tools/commandline/OptionChecks.h"
#include "tools/commandline/ProcessStatus.h"
#include "tools/commandline/StateDbOptions.h"

namespace Tools {

namespace {

using LinuxPlatform::controlLine;
using LinuxPlatform::ControlSocket;
using Netlink::KernelMirror;
using Netlink::MirrorSettings;
using Platform::BadText;

constexpr const char* statusOp = "kernelStatus";
constexpr std::size_t refusedShown = 20;

struct KernelOptions {
  std::string runDir;
  std::string published = "sfe";
  std::optional<std::uint32_t> tableBase;
  std::vector<std::string> vrfIds;
  std::vector<std::string> vnis;
  StateDbOptions stateDb;
  MirrorSettings mirror;
  bool status = false;
  bool flush = false;
  bool json = false;
};

// What a link can be called.
std::string isDeviceName(const std::string& name) {
  const bool fits = !name.empty() && name.size() < IFNAMSIZ && name.find_first_of("/ \t\n") == std::string::npos;
  return fits ? "" : "'" + Platform::printable(name) + "' is no name of a device";
}

std::uint32_t checkedTable(const char* option, std::uint32_t table) {
  if (!MirrorSettings::isUsable(table)) {
    throw BadText(std::string(option) + ": the kernel's table " + std::to_string(table) + " is not for routes");
  }
  return table;
}

MirrorSettings settingsOf(const KernelOptions& options) {
  MirrorSettings settings = options.mirror;
  settings.tableBase = options.tableBase;
  for (const auto& text : options.vrfIds) {
    const auto [hwVrfId, table] = numberPair("--vrf-id", text, UINT32_MAX, UINT32_MAX);
    for (const auto& other : settings.tables) {
      if (other.second == table && other.first != hwVrfId) throw BadText("--vrf-id: two VRFs in one table");
    }
    if (!settings.tables.emplace(hwVrfId, checkedTable("--vrf-id", table)).second) {
      throw BadText("--vrf-id: VRF " + std::to_string(hwVrfId) + " twice");
    }
  }
  if (!settings.tableBase && settings.tables.empty()) throw BadText("--table-base or --vrf-id is wanted");
  for (const auto& text : options.vnis) {
    const auto [vlan, vni] = numberPair("--vni", text, UINT16_MAX, Vxlan::Vni::max);
    if (!settings.vnis.emplace(std::pair(IntfId(), static_cast<Bridging::ExtendedVlanId>(vlan)), vni).second) {
      throw BadText("--vni: VLAN " + std::to_string(vlan) + " twice");
    }
  }
  settings.routePath = options.published == "hw" ? Paths::hwRoutes : Paths::sfeRoutes;
  settings.route6Path = Paths::hw6Routes;  // the only one of this family
  return settings;
}

// --- The mirror ------------------------------------------------------------------------------------------------------

std::string refusedRoutes(const KernelMirror& mirror) {
  std::string lines;
  for (const auto& refused : mirror.refused(refusedShown)) {
    lines += controlLine({{"route", refused.route}, {"error", std::generic_category().message(refused.error)}});
  }
  return lines;
}

// Two would undo each other's work.
LinuxPlatform::FileDescriptor lockIn(const std::string& runDir) {
  return onlyOne(KernelAnswers::lockPath(runDir), runDir + ": another process mirrors these tables into the kernel");
}

// "PREFIX@ID PREFIX@ID ...", with hardware ids of VRFs: a digit for each, 1 for one that the kernel forwards.
std::string forwardedRoutes(const KernelMirror& mirror, std::string_view routes) {
  std::string forwarded;
  while (!routes.empty()) {
    const auto blank = std::min(routes.find(' '), routes.size());
    const auto route = routes.substr(0, blank);
    routes.remove_prefix(std::min(blank + 1, routes.size()));
    const auto at = std::min(route.find('@'), route.size() - 1);
    const auto prefix = Platform::TextForm<IpGenPrefix>::from(route.substr(0, at));
    const auto hwVrfId = Platform::TextForm<std::uint32_t>::from(route.substr(at + 1));
    if (!prefix || !hwVrfId) throw std::invalid_argument("'" + std::string(route) + "' is not PREFIX@ID");
    forwarded += mirror.forwards(*hwVrfId, *prefix) ? '1' : '0';
  }
  return controlLine({{"forwarded", forwarded}});
}

void mirror(const KernelOptions& options) {
  const MirrorSettings settings = settingsOf(options);
  LinuxPlatform::raiseDescriptorLimit();
  LinuxPlatform::EventLoop loop;
  const Platform::TableTypes types = allTableTypes();
  std::optional<TableDelivery> delivery;
  LinuxPlatform::SharedTableService tables(options.runDir, types, [&] {
    if (delivery) delivery->wanted();
  });
  delivery.emplace(loop, tables);
  const auto lock = lockIn(options.runDir);
  KernelMirror kernelMirror(tables, loop, settings);
  std::optional<KernelVnis> vnis;
  if (options.vnis.empty()) {
    vnis.emplace(loop, options.runDir, options.stateDb, [&](const auto& now) { kernelMirror.vnisAre(now); });
  }
  ControlSocket control(loop, KernelAnswers::controlPath(options.runDir));
  control.opIs(statusOp, ControlSocket::Access::ask, [&](const auto&) {
    return std::make_unique<StatusReply>(kernelMirror.figures(), refusedRoutes(kernelMirror));
  });
  control.opIs(KernelAnswers::forwardedOp, ControlSocket::Access::ask, [&](const auto& request) {
    const auto routes = request.find("routes");
    return std::make_unique<StatusReply>(
        Figures{}, forwardedRoutes(kernelMirror, routes == request.end() ? std::string_view() : routes->second));
  });
  LinuxPlatform::addTaskOperation(control, loop);
  tell(false, {}, "ready: " + settings.routePath + " of " + options.runDir + " goes to the kernel");
  flushOutput();
  loop.stopOnSignals();
  loop.run();
}

void showStatus(const KernelOptions& options) {
  Json refused = Json::array();
  Json status = askStatus(KernelAnswers::controlPath(options.runDir), "the mirror of " + options.runDir, statusOp,
                          [&](const Json& line) { refused.push_back(line); });
  if (options.json) {
    status["refusedRoutes"] = refused;
    return printJson(status);
  }
  printFigures(status);
  for (const Json& route : refused) {
    std::printf("refused          %s: %s\n", Platform::printable(route.value("route", "")).c_str(),
                Platform::printable(route.value("error", "")).c_str());
  }
}

void flush(const KernelOptions& options) {
  const auto lock = lockIn(options.runDir);
  const auto flushed = Netlink::flushKernel();
  tell(options.json, {{"routes", flushed.routes}, {"nexthops", flushed.nexthops}, {"neighbours", flushed.neighbours}},
       "removed " + counted(flushed.routes, "route") + ", " + counted(flushed.nexthops, "next hop") + ", " +
           counted(flushed.neighbours, "neighbour"));
}

}  // namespace

void addKernelCommand(CLI::App& app, ToolContext&) {
  auto options = std::make_shared<KernelOptions>();
  CLI::App* command = app.add_subcommand("kernel", "Mirror published routes into this machine's kernel until SIGTERM");
  command->footer("Example: routecache kernel --table-base 1000 --device vxlan0 --run-dir /run/routecache");
  addRunDirOption(*command, options->runDir);
  addStateDbOptions(*command, options->stateDb);
  command->add_option("--table", options->published, "Which IPv4 routes: what software forwards, or what hardware does")
      ->check(CLI::IsMember({"sfe", "hw"}))
      ->capture_default_str();
  command
      ->add_option("--table-base", options->tableBase,
                   "The kernel's table of a VRF is this number and its hardware id added up")
      ->check(wholeNumber(0, UINT32_MAX))
      ->type_name("NUMBER");
  command->add_option("--vrf-id", options->vrfIds, "The kernel's table of the VRF with this hardware id")
      ->type_name("ID=TABLE")
      ->take_all();
  command
      ->add_option("--vni", options->vnis,
                   "The VNI that routes over this VLAN are sent with (default: the tunnel interfaces', "
                   "in the state database)")
      ->type_name("VLAN=VNI")
      ->take_all();
  command
      ->add_option("--device", options->mirror.device,
                   "VXLAN device (external mode) of all routes (default: the one called as the tunnel interface)")
      ->check(isDeviceName)
      ->type_name("NAME");
  command->add_option("--metric", options->mirror.metric, "Metric of the routes")
      ->check(wholeNumber(1, UINT32_MAX))
      ->capture_default_str();
  command
      ->add_option("--compare-interval", options->mirror.compareInterval,
                   "The kernel is compared with the tables so often, also without a cause")
      ->type_name("SECONDS")
      ->check(realNumber(leastSeconds, mostSeconds))
      ->capture_default_str();
  CLI::Option* status = command->add_flag("--status", options->status, "Show how far a running mirror is");
  CLI::Option* flushing =
      command->add_flag("--flush", options->flush, "Remove what a mirror has put into the kernel, and end");
  flushing->excludes(status);
  command->add_flag("--json", options->json, "Print JSON, with --status or --flush");
  command->callback([options] {
    if (options->json && !options->status && !options->flush) throw BadText("--json goes with --status or --flush");
    if (options->status) return showStatus(*options);
    if (options->flush) return flush(*options);
    mirror(*options);
  });
}

}  // namespace Tools
