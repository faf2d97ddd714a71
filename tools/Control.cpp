// `routecache get|set|del`: the entities of the state database, a running agent's or one that many share, field by
// field; of an agent its state machines, too.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <ctime>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "host/AgentLibrary.h"
#include "host/Output.h"
#include "host/SharedState.h"
#include "host/StatePaths.h"
#include "lib/statedb/EntityFields.h"
#include "linux/control/ControlClient.h"
#include "platform/values/Printable.h"
#include "tools/commandline/Commands.h"
#include "tools/commandline/Common.h"
#include "tools/commandline/StateDbOptions.h"

namespace Tools {

namespace {

using Platform::printable;

struct FieldOptions {
  std::string runDir;
  StateDbOptions stateDb;
  bool watch = false;
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

using TakeLine = std::function<void(const Json& line)>;

std::unique_ptr<SharedState> sharedState(const FieldOptions& options) {
  const auto complain = [](const std::string& line) { std::fprintf(stderr, "%s\n", line.c_str()); };
  return std::make_unique<SharedState>(options.stateDb.settings(complain), defaultAgentLibrary());
}

// What does not fit is misuse, as where an agent is asked.
template <class Action>
auto atField(const FieldOptions& options, Action&& action) {
  try {
    return action();
  } catch (const std::logic_error& error) {
    throw Platform::BadText(*options.path + (options.field ? " " + *options.field : "") + ": " + error.what());
  }
}

// A line for each field: of a shared database, or as an agent tells them.
void fieldsOf(const FieldOptions& options, SharedState* state, const TakeLine& take) {
  if (state == nullptr) return askAgent(options.runDir, options.request("get"), take);
  atField(options, [&] {
    LinuxPlatform::FieldWalk walk(state->stateDb().entity(*options.path), options.field.value_or(""));
    while (const auto item = walk.next()) {
      Json line{{"field", item->field}};
      if (item->value) line["value"] = state->outputOf(*options.path, item->field).value_or(*item->value);
      take(line);
    }
  });
}

// Paths with their types.
void pathsOf(const FieldOptions& options, const TakeLine& take) {
  if (!options.stateDb.isShared()) return askAgent(options.runDir, options.request("get"), take);
  for (const auto& [path, type] : allPathTypes()) {
    if (!derivedPaths().contains(path)) take({{"path", path}, {"type", type}});
  }
}

void printPaths(const FieldOptions& options) {
  Json all = Json::object();
  pathsOf(options, [&](const Json& line) {
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

void printFields(const FieldOptions& options, SharedState* state) {
  Json all = Json::object();
  fieldsOf(options, state, [&](const Json& line) {
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

// --- Following -------------------------------------------------------------------------------------------------------

using Fields = std::map<std::string, std::optional<std::string>>;  // a child entity has no value

Fields fieldsNow(const FieldOptions& options, SharedState* state) {
  Fields fields;
  const auto add = [&fields](const Json& line) {
    auto& value = fields[line.value("field", "")];
    if (line.contains("value")) value = line.value("value", "");
  };
  try {
    fieldsOf(options, state, add);
  } catch (const Platform::BadText&) {
    fields.clear();  // it may come back
  }
  return fields;
}

void printChange(const FieldOptions& options, const std::string& field, const std::optional<std::string>& value,
                 bool isThere) {
  if (options.json) {
    Json line{{"field", field}};
    line["value"] = !isThere ? Json(nullptr) : value ? Json(*value) : Json(Json::object());
    std::printf("%s\n", line.dump(-1, ' ', false, Json::error_handler_t::replace).c_str());
  } else if (!isThere) {
    std::printf("%s is gone\n", printable(field).c_str());
  } else {
    std::printf("%s%s\n", printable(field).c_str(), value ? (" = " + printable(*value)).c_str() : "");
  }
}

void printChanges(const FieldOptions& options, const Fields& before, const Fields& now) {
  for (const auto& [field, value] : before) {
    if (!now.contains(field)) printChange(options, field, std::nullopt, false);
  }
  for (const auto& [field, value] : now) {
    const auto old = before.find(field);
    if (old == before.end() || old->second != value) printChange(options, field, value, true);
  }
  flushOutput();
}

// Until somebody ends this process, or the agent that is asked.
void watchFields(const FieldOptions& options) {
  Fields shown;
  const auto show = [&](SharedState* state) {
    Fields now = fieldsNow(options, state);
    printChanges(options, shown, now);
    shown = std::move(now);
  };
  if (options.stateDb.isShared()) {
    const auto state = sharedState(options);
    state->entity(*options.path);
    state->followWhile([&] {
      show(state.get());
      return true;
    });
  }
  fieldsOf(options, nullptr, [](const Json&) {});  // what is refused is refused at once
  while (true) {
    show(nullptr);
    constexpr timespec pause{1, 0};
    nanosleep(&pause, nullptr);
  }
}

void get(const FieldOptions& options) {
  if (!options.path) return printPaths(options);
  if (options.watch) return watchFields(options);
  if (!options.stateDb.isShared()) return printFields(options, nullptr);
  const auto state = sharedState(options);
  state->entity(*options.path);
  printFields(options, state.get());
}

// Only when the server has it, too.
void change(const FieldOptions& options, const char* op) {
  if (!options.stateDb.isShared()) return askAgent(options.runDir, options.request(op), [](const Json&) {});
  const auto state = sharedState(options);
  state->entity(*options.path);
  atField(options, [&] {
    if (std::string_view(op) == "set") {
      state->stateDb().fieldIs(*options.path, *options.field, options.value);
    } else {
      state->stateDb().fieldDel(*options.path, *options.field);
    }
  });
  state->waitUntilWritten();
}

constexpr const char* fieldHelp = "ATTRIBUTE or COLLECTION[KEY], children after a dot";

}  // namespace

void addControlCommands(CLI::App& app, ToolContext&) {
  auto options = std::make_shared<FieldOptions>();

  CLI::App* get = app.add_subcommand("get", "Show entities of the state database, a running agent's or a shared one");
  get->footer("Example: routecache get interface/status/eth/vxlan 'vtiStatus[Vxlan1].operStatus'");
  get->add_option("PATH", options->path, "Where the entity stands; none: lists the paths");
  get->add_option("FIELD", options->field, std::string(fieldHelp) + "; none: all of the entity");
  get->add_flag("--json", options->json, "Print JSON, in the form of a scenario");
  addRunDirOption(*get, options->runDir);
  addStateDbOptions(*get, options->stateDb);
  get->add_flag("--watch", options->watch, "Go on: a line for each change, with an agent within a second");
  get->callback([options] {
    if (options->watch && !options->path) throw Platform::BadText("--watch wants a PATH");
    Tools::get(*options);
  });

  CLI::App* set = app.add_subcommand("set", "Set an attribute or an entry of an entity");
  set->footer("Example: routecache set vrf/vrfNameStatus 'nameToId[red]' 2");
  set->add_option("PATH", options->path, "Where the entity stands")->required();
  set->add_option("FIELD", options->field, fieldHelp)->required();
  set->add_option("VALUE", options->value, "Its new value; none: makes the child entity");
  addRunDirOption(*set, options->runDir);
  addStateDbOptions(*set, options->stateDb);
  set->callback([options] { change(*options, "set"); });

  CLI::App* del = app.add_subcommand("del", "Delete an entry of an entity");
  del->footer("Example: routecache del vrf/vrfNameStatus 'nameToId[red]'");
  del->add_option("PATH", options->path, "Where the entity stands")->required();
  del->add_option("FIELD", options->field, "COLLECTION[KEY], in children after a dot")->required();
  addRunDirOption(*del, options->runDir);
  addStateDbOptions(*del, options->stateDb);
  del->callback([options] { change(*options, "del"); });
}

}  // namespace Tools
