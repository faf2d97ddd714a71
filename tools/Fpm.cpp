// `routecache fpm`: what a routing suite says of its routes goes into the RIB tables, until SIGTERM. What it has put
// there stays.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <iterator>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <span>
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
#include "netlink/fpm/RouteFeedback.h"
#include "platform/values/Printable.h"
#include "tools/FpmVrfs.h"
#include "tools/KernelAnswers.h"
#include "tools/commandline/Commands.h"
#include "tools/commandline/Common.h"
#include "tools/commandline/OptionChecks.h"
#include "tools/commandline/ProcessStatus.h"
#include "tools/commandline/StateDbOptions.h"

namespace Tools {

namespace {

using LinuxPlatform::ControlSocket;
using Netlink::FpmRib;
using Netlink::FpmServer;
using Netlink::FpmSettings;
using Netlink::RouteFeedback;
using Platform::BadText;

constexpr const char* statusOp = "fpmStatus";
constexpr std::uint32_t mainTable = 254;  // of a kernel
constexpr std::uint32_t defaultVrfId = 1;

struct FpmOptions {
  std::string runDir;
  std::string listen = "127.0.0.1:2620";
  std::string vti = "Vxlan1";
  StateDbOptions stateDb;
  std::vector<std::string> vrfs;
  std::vector<std::string> vrfIds;
  std::vector<std::string> vrfVnis;
  std::vector<std::string> vnis;
  FpmSettings settings;
  bool feedback = false;
  RouteFeedback::Settings answers;
  bool status = false;
  bool json = false;
};

std::string controlPath(const std::string& runDir) {
  return runDir + "/fpm.control";
}

// Each VRF has one table or VNI, and each table or VNI one VRF.
void addVrf(std::map<std::uint32_t, std::uint32_t>& vrfs, const char* option, std::uint32_t said, std::uint32_t vrfId) {
  for (const auto& [otherSaid, otherVrfId] : vrfs) {
    if (otherVrfId == vrfId && otherSaid != said) {
      throw BadText(std::string(option) + ": VRF " + std::to_string(vrfId) + " twice");
    }
  }
  if (!vrfs.emplace(said, vrfId).second) {
    throw BadText(std::string(option) + ": " + std::to_string(said) + " is of two VRFs");
  }
}

// Without a word of it the tables are VRFs by their numbers, as `routecache discover` has them.
Netlink::RouteVrfs vrfsOf(const FpmOptions& options) {
  Netlink::RouteVrfs vrfs;
  for (const auto& text : options.vrfIds) {
    const auto [vrfId, table] = numberPair("--vrf-id", text, Routing::Rib::noVrfId - 1, UINT32_MAX);
    addVrf(vrfs.byTable, "--vrf-id", table, vrfId);
  }
  for (const auto& text : options.vrfVnis) {
    const auto [vrfId, vni] = numberPair("--vrf-vni", text, Routing::Rib::noVrfId - 1, Vxlan::Vni::max);
    addVrf(vrfs.byVni, "--vrf-vni", vni, vrfId);
  }
  vrfs.isTablesNumber = options.vrfIds.empty() && options.vrfVnis.empty() && options.vrfs.empty();
  const auto isDefault = [](const auto& vrf) { return vrf.second == defaultVrfId; };
  if (std::ranges::none_of(vrfs.byTable, isDefault)) vrfs.byTable.emplace(mainTable, defaultVrfId);
  return vrfs;
}

FpmSettings settingsOf(const FpmOptions& options) {
  FpmSettings settings = options.settings;
  settings.vti = optionValue<IntfId>("--vti", options.vti);
  if (settings.vti.isEmpty()) throw BadText("--vti: no interface");
  settings.vrfs = vrfsOf(options);
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

void serve(const FpmOptions& options) {
  const FpmSettings settings = settingsOf(options);
  const auto listen = listenAddress(options.listen);
  LinuxPlatform::raiseDescriptorLimit();
  LinuxPlatform::EventLoop loop;
  const Platform::TableTypes types = allTableTypes();
  std::optional<TableDelivery> delivery;
  LinuxPlatform::SharedTableService tables(options.runDir, types, [&] {
    if (delivery) delivery->wanted();
  });
  delivery.emplace(loop, tables);
  FpmRib rib(tables, loop, settings);
  std::optional<FpmServer> server;  // as soon as the VRFs are known: what is said before would be left out
  std::optional<RouteFeedback> feedback;
  ControlSocket control(loop, controlPath(options.runDir));
  control.opIs(statusOp, ControlSocket::Access::ask, [&](const auto&) {
    Figures figures = rib.figures();
    figures.emplace_back("faults", server ? server->faults() : 0);
    if (feedback) std::ranges::copy(feedback->figures(), std::back_inserter(figures));
    return std::make_unique<StatusReply>(figures);
  });
  LinuxPlatform::addTaskOperation(control, loop);
  const auto inKernel = [&](std::span<const Netlink::ForwardedRoute> routes) {
    return KernelAnswers::forwarded(options.runDir, routes);
  };
  const FpmVrfs vrfs(
      loop, options.vrfs, settings.vrfs, options.feedback, options.runDir, options.stateDb,
      [&](const auto& now, const auto& hardwareIds) {
        rib.vrfsAre(now);
        if (feedback) feedback->hwVrfIdsAre(hardwareIds);
        if (server) return server->lookForReplay();
        server.emplace(loop, rib, listen.first, listen.second);
        if (options.feedback) {
          feedback.emplace(tables, loop, rib, *server, inKernel, options.answers);
          feedback->hwVrfIdsAre(hardwareIds);
          server->sendableIs([&] { feedback->wake(); });
        }
        tell(false, {},
             "ready: port " + std::to_string(server->port()) + " goes to the RIB tables of " + options.runDir);
        flushOutput();
      });
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
  addStateDbOptions(*command, options->stateDb);
  command->add_option("--listen", options->listen, "Where the routing suite connects")
      ->type_name("ADDR:PORT")
      ->capture_default_str();
  command
      ->add_option("--vrf", options->vrfs,
                   "The VRF, by name, of the routes of a kernel's table. Without any of these three options tables are "
                   "VRFs by number, and table 254 is VRF 1")
      ->type_name("NAME=TABLE")
      ->take_all();
  command->add_option("--vrf-id", options->vrfIds, "The VRF, by id, of the routes of a kernel's table")
      ->type_name("ID=TABLE")
      ->take_all();
  command
      ->add_option("--vrf-vni", options->vrfVnis,
                   "The VRF, by id, of the routes with this VNI, for a suite that says one table for all VRFs")
      ->type_name("ID=VNI")
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
  CLI::Option* feedback = command->add_flag(
      "--feedback", options->feedback, "Tell the suite which of its routes are forwarded (FRR from 8.5 on listens)");
  command
      ->add_option("--fail-after", options->answers.failAfter,
                   "It is told of a route that nobody has forwarded for so long")
      ->type_name("SECONDS")
      ->check(realNumber(leastSeconds, mostSeconds))
      ->needs(feedback)
      ->capture_default_str();
  command->add_flag("--status", options->status, "Show what a running one has learned");
  command->add_flag("--json", options->json, "Print JSON, with --status");
  command->callback([options] {
    if (options->json && !options->status) throw BadText("--json goes with --status");
    if (options->status) return showStatus(*options);
    serve(*options);
  });
}

}  // namespace Tools
