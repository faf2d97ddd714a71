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

namespace Tools {

namespace {

using LinuxPlatform::controlLine;
using LinuxPlatform::ControlReply;
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

// NUMBER=NUMBER of an option, the first up to `mostFirst`.
std::pair<std::uint32_t, std::uint32_t> numbersOf(const char* option, const std::string& text, std::uint32_t mostFirst,
                                                  std::uint32_t mostSecond) {
  const auto sign = std::min(text.find('='), text.size());
  const auto first = Platform::TextForm<std::uint32_t>::from(std::string_view(text).substr(0, sign));
  const auto second =
      Platform::TextForm<std::uint32_t>::from(std::string_view(text).substr(std::min(sign + 1, text.size())));
  if (first && second && *first <= mostFirst && *second <= mostSecond) return {*first, *second};
  throw BadText(std::string(option) + ": '" + Platform::printable(text) + "' is not 0 to " + std::to_string(mostFirst) +
                ", =, 0 to " + std::to_string(mostSecond));
}

FpmSettings settingsOf(const FpmOptions& options) {
  FpmSettings settings = options.settings;
  settings.vti = optionValue<IntfId>("--vti", options.vti);
  if (settings.vti.isEmpty()) throw BadText("--vti: no interface");
  for (const auto& text : options.vrfIds) {
    const auto [vrfId, table] = numbersOf("--vrf-id", text, Routing::Rib::noVrfId - 1, UINT32_MAX);
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
    const auto [table, vni] = numbersOf("--vni", text, UINT32_MAX, Vxlan::Vni::max);
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

class StatusReply final : public ControlReply {
 public:
  StatusReply(const FpmRib& rib, const FpmServer& server) {
    const auto add = [&](const std::string& name, std::uint64_t value) {
      lines_ += controlLine({{"name", name}, {"value", std::to_string(value)}});
    };
    for (const auto& [name, value] : rib.figures()) add(name, value);
    add("faults", server.faults());
  }
  bool produce(std::string& lines) override {
    lines += lines_;
    return false;
  }

 private:
  std::string lines_;
};

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
               [&](const auto&) { return std::make_unique<StatusReply>(rib, server); });
  LinuxPlatform::addTaskOperation(control, loop);
  tell(false, {}, "ready: port " + std::to_string(server.port()) + " goes to the RIB tables of " + options.runDir);
  flushOutput();
  loop.stopOnSignals();
  loop.run();
}

void showStatus(const FpmOptions& options) {
  Json status = Json::object();
  askProcess(controlPath(options.runDir), "the fpm of " + options.runDir, {{"op", statusOp}}, [&](const Json& line) {
    status[line.value("name", "")] = Platform::fromText<std::uint64_t>(line.value("value", "0"));
  });
  if (options.json) {
    std::printf("%s\n", status.dump(2, ' ', false, Json::error_handler_t::replace).c_str());
    return;
  }
  for (const auto& [name, value] : status.items()) {
    std::printf("%-16s %12llu\n", Platform::printable(name).c_str(),
                static_cast<unsigned long long>(value.get<std::uint64_t>()));
  }
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
    if (options->status) return showStatus(*options);
    serve(*options);
  });
}

}  // namespace Tools
