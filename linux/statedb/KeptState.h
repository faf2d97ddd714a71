// What an embedded state database outlives its process by: its content as a scenario file in the run directory.
//
//   <run directory>/state.json       the content
//   <run directory>/state.json.old   the content before that, should the other be damaged
//   <run directory>/state.json.new   being written
#pragma once

#include <future>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "lib/statedb/EmbeddedStateDb.h"
#include "lib/statedb/Scenario.h"
#include "lib/statedb/ScenarioText.h"
#include "platform/services/TaskScheduler.h"

namespace LinuxPlatform {

// The content that a predecessor kept in the run directory, and the file that it stood in; nothing: none did. What is
// wrong with a file is added to `faults`, a line each, and the one before is read.
struct KeptState {
  Lattis::Entities entities;
  std::string file;
};
std::optional<KeptState> readKeptState(const std::string& runDirectory, const Lattis::EntityTypes& types,
                                       const PathTypes& pathTypes, std::vector<std::string>& faults);
// Takes it away.
void forgetKeptState(const std::string& runDirectory);

// Keeps the content of a database while it exists: a second after a change at the latest it begins to write, and an
// unwritten change is written when it ends. The text is made in time slices, and another thread writes it and waits for
// the disk; so a killed process has lost what was changed in the last second or two. A file is complete and on the disk
// before it takes the place of the one before.
//
// Invariant: while a change is not in a complete text, or that is not written, the task is scheduled.
class StateKeeper {
 public:
  // Seconds between two files.
  static constexpr double interval = 1;

  // Database and scheduler outlive it; it takes the database's changedIs(). The entities of `derived` paths are not
  // kept: somebody makes them anew at each start.
  StateKeeper(EmbeddedStateDb& db, Platform::TaskScheduler& scheduler, const std::string& runDirectory,
              std::set<std::string, std::less<>> derived);
  StateKeeper(const StateKeeper&) = delete;
  StateKeeper& operator=(const StateKeeper&) = delete;
  ~StateKeeper();

 private:
  void handleChange();
  void keep();
  bool isWriting() const;
  void takeOutcome();
  void begin();

  EmbeddedStateDb& db_;
  const std::string file_;
  const std::set<std::string, std::less<>> derived_;
  bool changed_ = false;  // since the text was begun
  std::optional<ScenarioText> making_;
  std::string text_;
  std::future<std::string> written_;  // of what the thread writes: why it could not, or nothing
  std::string fault_;                 // that was told last
  std::unique_ptr<Platform::Task> task_;
};

}  // namespace LinuxPlatform
