#include "tools/commandline/Commands.h"

#include "tools/commandline/OptionChecks.h"

namespace Tools {

void addCommands(CLI::App& app, ToolContext& context) {
  addRunCommand(app, context);
  addRibCommand(app, context);
  addFibCommand(app, context);
  addSimulateCommand(app, context);
  addTableCommand(app, context);
  addControlCommands(app, context);
  addStateDbCommand(app, context);
  addFpmCommand(app, context);
  addKernelCommand(app, context);
  addDiscoverCommand(app, context);
  addShowCommand(app, context);
  addTasksCommand(app, context);
  addTraceCommand(app, context);
  addCompletionCommands(app, context);
  refuseEmptyValues(app);
}

}  // namespace Tools
