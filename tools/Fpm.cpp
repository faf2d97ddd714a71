// `routecache fpm`: what a routing suite says of its routes goes into the RIB tables, until SIGTERM. What it has put
// there stays.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
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
#include "netlink/fpm/FpmRib.h"
#include "netlink/fpm/FpmServer.h"
#include "platform/values/Printable.h"
#include "tools/commandline/Commands.h"
#include "tools/commandline/Common.h"
#include "tools/commandline/OptionChecks.h"
#include "tools/commandline/ProcessStatus.h"

namespace Tools {

namespace {

using LinuxPlatform::ControlSocket;
using Netlink::FpmRib;
using Netlink::FpmServer;
using Netlink::FpmSettings;
using Platform::BadText;

constexpr const char* statusOp = "fpmStatus";
constexpr std::uint32_t mainTable = 254;  // of a kernel
constexpr std::uint32_t defaultVrfId = 1;

struct FpmOptions {
  std::string runDir;
  std::string listen = "127.0.0.1:2620";
  std::string vti = "Vxlan1";
  std::vector<std::string> vrfIds;
  std::vector<std::string> vnis;
  FpmSettings settings;
  bool status = false;
  bool json = false;
};

std::string controlPath(const std::string& runDir) {
  return runDir + "/fpm.control";
}

FpmSettings settingsOf(const FpmOptions& options) {
  FpmSettings settings = options.settings;
  settings.vti = optionValue<IntfId>("--vti", options.vti);
  if (settings.vti.isEmpty()) throw BadText("--vti: no interface");
  for (const auto& text : options.vrfIds) {
    const auto [vrfId, table] = numberPair("--vrf-id", text, Routing::Rib::noVrfId - 1, UINT32_MAX);
    if (!settings.vrfs.emplace(table, vrfId).second) {
      throw BadText("--vrf-id: table " + std::to_string(table) + " twice");
    }
    for (const auto& [otherTable, otherVrfId] : settings.vrfs) {
      if (otherVrfId == vrfId && otherTable != table) throw BadText("--vrf-id: two tables in one VRF");
    }
  }
  const auto isDefault = [](const auto& vrf) { return vrf.second == defaultVrfId; };
  if (std::ranges::none_of(settings.vrfs, isDefault)) settings.vrfs.emplace(mainTable, defaultVrfId);
  for (const auto& text : options.vnis) {
    const auto [table, vni] = numberPair("--vni", text, UINT32_MAX, Vxlan::Vni::max);
    if (!settings.vnis.emplace(table, vni).second) throw BadText("--vni: table " + std::to_string(table) + " twice");
  }
  return settings;
}

// "127.0.0.1:2620", "[::1]:2620".
std::pair<IpGenAddr, std::uint16_t> listenAddress(const std::string& text) {
  const auto colon = text.rfind(':');
  if (colon == std::string::npos) throw BadText("--listen: '" + Platform::printable(text) + "' has no port");
  std::string address = text.substr(0, colon);
  if (address.size() > 2 && address.front() == '[' && address.back() == ']') {
    address = address.substr(1, address.size() - 2);
  }
  return {optionValue<IpGenAddr>("--listen", address),
          optionValue<std::uint16_t>("--listen", std::string_view(text).substr(colon + 1))};
}

Figures figuresOf(const FpmRib& rib, const FpmServer& server) {
  Figures figures = rib.figures();
  figures.emplace_back("faults", server.faults());
  return figures;
}

void serve(const FpmOptions& options) {
  const FpmSettings settings = settingsOf(options);
  const auto [address, port] = listenAddress(options.listen);
  LinuxPlatform::raiseDescriptorLimit();
  LinuxPlatform::EventLoop loop;
  const Platform::TableTypes types = allTableTypes();
  std::optional<TableDelivery> delivery;
  LinuxPlatform::SharedTableService tables(options.runDir, types, [&] {
    if (delivery) delivery->wanted();
  });
  delivery.emplace(loop, tables);
  FpmRib rib(tables, loop, settings);
  FpmServer server(loop, rib, address, port);
  ControlSocket control(loop, controlPath(options.runDir));
  control.opIs(statusOp, ControlSocket::Access::ask,
               [&](const auto&) { return std::make_unique<StatusReply>(figuresOf(rib, server)); });
  LinuxPlatform::addTaskOperation(control, loop);
  tell(false, {}, "ready: port " + std::to_string(server.port()) + " goes to the RIB tables of " + options.runDir);
  flushOutput();
  loop.stopOnSignals();
  loop.run();
}

void showStatus(const FpmOptions& options) {
  const Json status = askStatus(controlPath(options.runDir), "the fpm of " + options.runDir, statusOp);
  options.json ? printJson(status) : printFigures(status);
}

}  // namespace

void addFpmCommand(CLI::App& app, ToolContext&) {
  auto options = std::make_shared<FpmOptions>();
  CLI::App* command = app.add_subcommand("fpm", "Take a routing suite's routes into the RIB tables until SIGTERM");
  command->footer("Example: routecache fpm --vrf-id 2=1001 --vti Vxlan1 --run-dir /run/routecache");
  addRunDirOption(*command, options->runDir);
  command->add_option("--listen", options->listen, "Where the routing suite connects")
      ->type_name("ADDR:PORT")
      ->capture_default_str();
  command
      ->add_option("--vrf-id", options->vrfIds,
                   "The VRF of the routes of a kernel's table (default for table 254: 1); others are left out")
      ->type_name("ID=TABLE")
      ->take_all();
  command->add_option("--vni", options->vnis, "The VNI of a kernel's table, where the routing suite does not say it")
      ->type_name("TABLE=VNI")
      ->take_all();
  command->add_option("--vti", options->vti, "Tunnel interface of all next hops")
      ->type_name("NAME")
      ->capture_default_str();
  command
      ->add_option("--stale-time", options->settings.staleTime,
                   "A routing suite that came back has said everything when it was quiet for so long")
      ->type_name("SECONDS")
      ->check(realNumber(leastSeconds, mostSeconds))
      ->capture_default_str();
  command
      ->add_option("--capacity", options->settings.capacity,
                   "Routes of each family (default: as the tables have it, or 131072)")
      ->type_name("ROUTES")
      ->check(wholeNumber(1, Pondra::maxCapacity));
  command->add_flag("--status", options->status, "Show what a running one has learned");
  command->add_flag("--json", options->json, "Print JSON, with --status");
  command->callback([options] {
    if (options->json && !options->status) throw BadText("--json goes with --status");
    if (options->status) return showStatus(*options);
    serve(*options);
  });
}

}  // namespace Tools
