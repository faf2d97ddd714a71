// `routecache get|set|del`: the entities of a running agent's state database, and its state machines, field by field.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>

#include "lib/statedb/EntityFields.h"
#include "linux/control/ControlClient.h"
#include "platform/values/Printable.h"
#include "tools/commandline/Commands.h"
#include "tools/commandline/Common.h"

namespace Tools {

namespace {

using Platform::printable;

struct FieldOptions {
  std::string runDir;
  std::optional<std::string> path;
  std::optional<std::string> field;
  std::optional<std::string> value;
  bool json = false;

  Json request(const char* op) const {
    Json request{{"op", op}};
    if (path) request["path"] = *path;
    if (field) request["field"] = *field;
    if (value) request["value"] = *value;
    return request;
  }
};

void print(const Json& json) {
  std::printf("%s\n", json.dump(2, ' ', false, Json::error_handler_t::replace).c_str());
}

// Paths with their types.
void printPaths(const FieldOptions& options) {
  Json all = Json::object();
  askAgent(options.runDir, options.request("get"), [&](const Json& line) {
    const std::string path = line.value("path", "");
    const std::string type = line.value("type", "");
    if (options.json) {
      all[path] = type;
    } else {
      std::printf("%s  %s\n", printable(path).c_str(), type.c_str());
    }
  });
  if (options.json) print(all);
}

// Puts one item in its place: {"COLLECTION": {"KEY": ...}}, the form that a scenario has.
void place(Json& root, const std::string& field, const Json& line) {
  Json* at = &root;
  for (const auto& step : LinuxPlatform::parseField(field)) {
    at = &(*at)[step.name];
    if (step.key) at = &(*at)[*step.key];
  }
  if (line.contains("value")) {
    *at = line["value"];
  } else if (at->is_null()) {
    *at = Json::object();
  }
}

void printFields(const FieldOptions& options) {
  Json all = Json::object();
  askAgent(options.runDir, options.request("get"), [&](const Json& line) {
    const std::string field = line.value("field", "");
    const std::string value = line.value("value", "");
    if (options.json) {
      place(all, field, line);
    } else if (!line.contains("value")) {
      std::printf("%s\n", printable(field).c_str());
    } else if (field == options.field) {
      std::printf("%s\n", printable(value).c_str());  // just what was asked for
    } else {
      std::printf("%s = %s\n", printable(field).c_str(), printable(value).c_str());
    }
  });
  if (options.json) print(all);
}

constexpr const char* fieldHelp = "ATTRIBUTE or COLLECTION[KEY], children after a dot";

}  // namespace

void addControlCommands(CLI::App& app, ToolContext&) {
  const auto ignore = [](const Json&) {};
  auto options = std::make_shared<FieldOptions>();

  CLI::App* get = app.add_subcommand("get", "Show entities of a running agent");
  get->footer("Example: routecache get interface/status/eth/vxlan 'vtiStatus[Vxlan1].operStatus'");
  get->add_option("PATH", options->path, "Where the entity stands; none: lists the paths");
  get->add_option("FIELD", options->field, std::string(fieldHelp) + "; none: all of the entity");
  get->add_flag("--json", options->json, "Print JSON, in the form of a scenario");
  addRunDirOption(*get, options->runDir);
  get->callback([options] { options->path ? printFields(*options) : printPaths(*options); });

  CLI::App* set = app.add_subcommand("set", "Set an attribute or an entry of a running agent's entity");
  set->footer("Example: routecache set vrf/vrfNameStatus 'nameToId[red]' 2");
  set->add_option("PATH", options->path, "Where the entity stands")->required();
  set->add_option("FIELD", options->field, fieldHelp)->required();
  set->add_option("VALUE", options->value, "Its new value; none: makes the child entity");
  addRunDirOption(*set, options->runDir);
  set->callback([options, ignore] { askAgent(options->runDir, options->request("set"), ignore); });

  CLI::App* del = app.add_subcommand("del", "Delete an entry of a running agent's entity");
  del->footer("Example: routecache del vrf/vrfNameStatus 'nameToId[red]'");
  del->add_option("PATH", options->path, "Where the entity stands")->required();
  del->add_option("FIELD", options->field, "COLLECTION[KEY], in children after a dot")->required();
  addRunDirOption(*del, options->runDir);
  del->callback([options, ignore] { askAgent(options->runDir, options->request("del"), ignore); });
}

}  // namespace Tools
