// `routecache show`: the show commands of a running agent. They are the texts that the switch's command line sends;
// what the agent answers goes to standard output as it comes, however long it is.
#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "RouteCache/CommandTexts.h"
#include "host/Output.h"
#include "linux/control/ControlClient.h"
#include "tools/commandline/Commands.h"
#include "tools/commandline/Common.h"

namespace Tools {

namespace {

namespace Texts = RouteCache::CommandTexts;
using Platform::BadText;

struct ShowOptions {
  std::string runDir;
  bool json = false;
  std::optional<std::string> vrf;
  std::optional<std::string> prefix;
  bool ipv6 = false;
};

// The agent finds commands and marks anywhere in the text: a name that holds one cannot be asked for.
const std::string& speakableVrf(const std::string& name) {
  optionValue<L3::VrfName>("--vrf", name);
  const std::initializer_list<std::string_view> words{Texts::vrfMark, Texts::prefixMark, Texts::threshold,
                                                      Texts::summary, Texts::routes};
  for (const std::string_view word : words) {
    if (name.find(word) != std::string::npos) {
      throw BadText("--vrf: a show command cannot carry '" + std::string(word) + "' in the name of a VRF");
    }
  }
  return name;
}

// No name: the empty one asks for all VRFs in one row.
std::string summaryText(const ShowOptions& options) {
  return std::string(Texts::summary).append(Texts::vrfMark).append(options.vrf ? speakableVrf(*options.vrf) : "");
}

std::string routesText(const ShowOptions& options) {
  const std::string tail = std::string(Texts::vrfMark).append(speakableVrf(options.vrf.value()));
  if (!options.prefix) return std::string(options.ipv6 ? Texts::routes6 : Texts::routes).append(tail);
  const auto prefix = prefixesOf({*options.prefix}).front();
  if (options.ipv6 && prefix.isV4()) throw BadText("--ipv6: " + *options.prefix + " is an IPv4 prefix");
  return std::string(prefix.isV4() ? Texts::routes : Texts::routes6)
      .append(tail)
      .append(Texts::prefixMark)
      .append(Platform::toText(prefix));
}

void writeOut(std::string_view bytes) {
  std::fwrite(bytes.data(), 1, bytes.size(), stdout);
  flushOutput();
}

void show(const ShowOptions& options, const std::string& command) {
  std::signal(SIGPIPE, SIG_DFL);  // when who reads goes away, so does this, also where a parent has the signal ignored
  const Json request{
      {"op", "command"}, {"type", Texts::type}, {"command", command}, {"format", options.json ? "json" : "text"}};
  try {
    askAgentForBytes(options.runDir, request, writeOut);
  } catch (const BadText& error) {
    throw std::runtime_error(error.what());  // the command line is in order: that there is no such VRF is a result
  }
}

void addCommonOptions(CLI::App& command, ShowOptions& options) {
  command.add_flag("--json", options.json, "Print JSON");
  addRunDirOption(command, options.runDir);
}

}  // namespace

void addShowCommand(CLI::App& app, ToolContext& /*context*/) {
  CLI::App* command = app.add_subcommand("show", "Ask a running agent for its routes, their numbers, its levels");
  command->require_subcommand(1);
  command->footer("Example: routecache show summary --vrf all");
  const auto options = std::make_shared<ShowOptions>();

  CLI::App* threshold = command->add_subcommand("threshold", "The levels of hardware route caching");
  addCommonOptions(*threshold, *options);
  threshold->footer("Example: routecache show threshold --json");
  threshold->callback([options] { show(*options, Texts::threshold); });

  CLI::App* summary = command->add_subcommand("summary", "How many routes are configured, in software, in hardware");
  summary->add_option("--vrf", options->vrf, "This VRF, or each of all (default: all in one row)")
      ->type_name("VRF|all");
  addCommonOptions(*summary, *options);
  summary->footer("Example: routecache show summary --vrf red");
  summary->callback([options] { show(*options, summaryText(*options)); });

  CLI::App* routes = command->add_subcommand("routes", "The routes of a VRF and where they lead, in key order");
  routes->add_option("PREFIX", options->prefix, "Only the route of this prefix, of either family");
  routes->add_option("--vrf", options->vrf, "Name of the VRF")->type_name("VRF")->required();
  routes->add_flag("--ipv6", options->ipv6, "The IPv6 routes");
  addCommonOptions(*routes, *options);
  routes->footer("Example: routecache show routes --vrf red 10.1.0.0/16");
  routes->callback([options] { show(*options, routesText(*options)); });
}

}  // namespace Tools
