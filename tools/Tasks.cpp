// `routecache tasks`: what the scheduler of a running agent remembers of each task.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <memory>
#include <string>

#include "linux/control/ControlClient.h"
#include "platform/values/Printable.h"
#include "platform/values/Text.h"
#include "tools/commandline/Commands.h"
#include "tools/commandline/Common.h"

namespace Tools {

namespace {

struct TasksOptions {
  std::string runDir;
  bool json = false;
};

double milliseconds(const Json& task, const char* name) {
  return Platform::fromText<double>(task.value(name, "0")) * 1000;
}

void printTask(const Json& task) {
  const auto text = [&](const char* name) { return Platform::printable(task.value(name, "")); };
  std::printf("%-34s %8s %10s %12s %12s %12.3f %12.1f %12.3f\n", text("name").c_str(), text("priority").c_str(),
              text("runs").c_str(), text("workDone").c_str(), text("workPending").c_str(),
              milliseconds(task, "longestRun"), milliseconds(task, "totalRun"), milliseconds(task, "longestWait"));
}

void printTasks(const TasksOptions& options) {
  Json all = Json::array();
  askAgent(options.runDir, {{"op", "tasks"}}, [&all](const Json& task) { all.push_back(task); });
  if (options.json) {
    std::printf("%s\n", all.dump(2, ' ', false, Json::error_handler_t::replace).c_str());
    return;
  }
  std::printf("%-34s %8s %10s %12s %12s %12s %12s %12s\n", "task", "priority", "runs", "work done", "pending",
              "longest ms", "total ms", "waited ms");
  for (const Json& task : all) printTask(task);
}

}  // namespace

void addTasksCommand(CLI::App& app, ToolContext&) {
  auto options = std::make_shared<TasksOptions>();
  CLI::App* command = app.add_subcommand("tasks", "Show the tasks of a running agent");
  command->footer("Example: routecache tasks --run-dir /tmp/leaf");
  command->add_flag("--json", options->json, "Print JSON");
  addRunDirOption(*command, options->runDir);
  command->callback([options] { printTasks(*options); });
}

}  // namespace Tools
