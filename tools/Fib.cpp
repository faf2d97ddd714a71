// routecache fib: the FIB process's side. It writes the routes of a VRF's FIB, each with its type, and leaves.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>

#include "host/Progress.h"
#include "host/TableTypes.h"
#include "linux/tables/SharedTableService.h"
#include "simulator/routing/FibWriter.h"
#include "tools/commandline/Commands.h"
#include "tools/commandline/Common.h"
#include "tools/commandline/OptionChecks.h"
#include "tools/commandline/PrefixSource.h"

namespace Tools {

namespace {

using Platform::BadText;

// As they are written; they become values when the command runs, so that all bad ones are told alike.
struct FibOptions {
  std::string runDir;
  bool json = false;
  std::optional<std::string> vrf;
  std::optional<unsigned> type;
  std::uint32_t capacity = 0;
  PrefixSource source;                // load
  std::vector<std::string> prefixes;  // add, del
  bool all = false;                   // del
};

L3::VrfName vrfOf(const FibOptions& options) {
  return optionValue<L3::VrfName>("--vrf", options.vrf.value());
}

// The VRFs that have a FIB table in the run directory.
std::vector<L3::VrfName> allVrfs(const std::string& runDir) {
  std::set<L3::VrfName> vrfs;
  for (const auto& file : LinuxPlatform::tableFiles(runDir)) {
    if (file.typeName != Pondra::Fib::RouteStatus::typeName && file.typeName != Pondra::Fib6::RouteStatus::typeName) {
      continue;
    }
    if (const auto vrf = vrfOfFibTable(file.path)) vrfs.insert(*vrf);
  }
  return {vrfs.begin(), vrfs.end()};
}

// Opens the tables of the run directory and does the work on those of these VRFs.
template <class Work>
void withFib(const FibOptions& options, const std::vector<L3::VrfName>& vrfs, Work&& work) {
  const Platform::TableTypes types = allTableTypes();
  LinuxPlatform::SharedTableService tables(options.runDir, types);
  Progress progress("entries written");
  FibWriter fib(tables, vrfs, [&progress] { progress.step(); });
  work(fib);
}

// Prefixes, none of them twice, become routes of the VRF.
void write(const FibOptions& options, const char* done, const PrefixList& list) {
  const L3::VrfName vrf = vrfOf(options);
  std::optional<std::uint8_t> type;
  if (options.type) type = static_cast<std::uint8_t>(*options.type);
  withFib(options, {vrf}, [&](FibWriter& fib) { fib.apply(list.prefixes, type, options.capacity); });

  const auto ipv4 = static_cast<std::size_t>(std::ranges::count_if(list.prefixes, &IpGenPrefix::isV4));
  const std::size_t ipv6 = list.prefixes.size() - ipv4;
  std::string text = std::string(done) + " " + counted(list.prefixes.size(), "route") + " (" + std::to_string(ipv4) +
                     " IPv4, " + std::to_string(ipv6) + " IPv6) in the FIB of VRF " + vrf.text();
  if (list.duplicates != 0) text += "; " + counted(list.duplicates, "duplicate") + " left out";
  tell(options.json,
       {{"routes", list.prefixes.size()}, {"ipv4Routes", ipv4}, {"ipv6Routes", ipv6}, {"duplicates", list.duplicates}},
       text);
}

void load(const FibOptions& options) {
  checkPrefixSource(options.source);
  write(options, "loaded", prefixesFrom(options.source));
}

void add(const FibOptions& options) {
  PrefixList list{prefixesOf(options.prefixes), 0};
  std::ranges::sort(list.prefixes);
  const auto repeated = std::unique(list.prefixes.begin(), list.prefixes.end());
  list.duplicates = static_cast<std::size_t>(list.prefixes.end() - repeated);
  list.prefixes.erase(repeated, list.prefixes.end());
  write(options, "added", list);
}

void del(const FibOptions& options) {
  if (options.all && (options.vrf || !options.prefixes.empty())) throw BadText("--all leaves nothing to choose");
  if (!options.all && !options.vrf) throw BadText("fib del takes --vrf or --all");
  const auto prefixes = prefixesOf(options.prefixes);
  const std::set<IpGenPrefix> named(prefixes.begin(), prefixes.end());
  const auto vrfs = options.all ? allVrfs(options.runDir) : std::vector<L3::VrfName>{vrfOf(options)};

  std::set<IpGenPrefix> missing = named;
  std::size_t removed = 0;
  withFib(options, vrfs, [&](FibWriter& fib) {
    removed = fib.remove([&](const IpGenPrefix& prefix) {
      missing.erase(prefix);
      return named.empty() || named.contains(prefix);
    });
  });
  tell(options.json, {{"routesRemoved", removed}}, "removed " + counted(removed, "route"));
  checkNoneMissing(missing);
}

// --- The command line ------------------------------------------------------------------------------------------------

void addCommonOptions(CLI::App& command, FibOptions& options) {
  addRunDirOption(command, options.runDir);
  command.add_flag("--json", options.json, "Print the summary as JSON");
}

void addWriteOptions(CLI::App& command, FibOptions& options) {
  command.add_option("--vrf", options.vrf, "VRF name; the default VRF's is default")->required();
  command
      .add_option("--type", options.type,
                  "Number of the routes' type (default: the route-cache type, 40 or for IPv6 27)")
      ->check(wholeNumber(0, 255))
      ->type_name("NUMBER");
  command
      .add_option("--capacity", options.capacity,
                  "Entries of the tables (default: what they have, or more where the routes need it)")
      ->check(wholeNumber(1, Pondra::maxCapacity));
}

void addLoad(CLI::App& fib, const std::shared_ptr<FibOptions>& shared) {
  FibOptions& options = *shared;
  CLI::App* command = fib.add_subcommand("load", "Write a list of prefixes as routes of one VRF");
  addPrefixSource(*command, options.source);
  addWriteOptions(*command, options);
  addCommonOptions(*command, options);
  command->footer("Example: routecache fib load prefixes.txt.gz --vrf red");
  command->callback([shared] { load(*shared); });
}

void addAdd(CLI::App& fib, const std::shared_ptr<FibOptions>& shared) {
  FibOptions& options = *shared;
  CLI::App* command = fib.add_subcommand("add", "Write routes of one VRF");
  command->add_option("PREFIX", options.prefixes, "Prefixes of either family")->required();
  addWriteOptions(*command, options);
  addCommonOptions(*command, options);
  command->footer("Example: routecache fib add 10.1.0.0/16 2001:db8:1::/48 --vrf red");
  command->callback([shared] { add(*shared); });
}

void addDel(CLI::App& fib, const std::shared_ptr<FibOptions>& shared) {
  FibOptions& options = *shared;
  CLI::App* command = fib.add_subcommand("del", "Remove routes");
  command->add_option("PREFIX", options.prefixes, "Prefixes; none: all of the VRF");
  command->add_option("--vrf", options.vrf, "VRF name");
  command->add_flag("--all", options.all, "All routes of all VRFs");
  addCommonOptions(*command, options);
  command->footer("Example: routecache fib del 10.1.0.0/16 --vrf red");
  command->callback([shared] { del(*shared); });
}

}  // namespace

void addFibCommand(CLI::App& app, ToolContext& /*context*/) {
  CLI::App* fib = app.add_subcommand("fib", "Write the FIB tables: the routes of each VRF, with their types");
  fib->require_subcommand(1);
  fib->footer("Example: routecache fib add 10.1.0.0/16 --vrf red --type 40");
  const auto options = std::make_shared<FibOptions>();
  addLoad(*fib, options);
  addAdd(*fib, options);
  addDel(*fib, options);
}

}  // namespace Tools
