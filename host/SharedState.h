// The content of a switch in a state database that many processes share, for a command that looks at it or changes it.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "linux/loop/EventLoop.h"
#include "linux/redis/RedisStateDb.h"
#include "platform/services/AgentBase.h"

namespace Tools {

// Everything here waits for the server, at most some seconds without an answer; std::runtime_error with one line says
// what it waited for in vain.
class SharedState {
 public:
  // The agent's library brings types along.
  SharedState(const LinuxPlatform::RedisStateDbSettings& settings, const std::string& agentLibrary);

  // The entity of a known path, with its content. Throws BadText for another path.
  std::shared_ptr<Lattis::Entity> entity(const std::string& path);
  Lattis::StateDb& stateDb() { return db_; }
  const Lattis::EntityTypes& types() const { return types_; }
  // A field that only the agent sets, as it has put it there; nothing: another field, or no agent has.
  std::optional<std::string> outputOf(const std::string& path, const std::string& field) const {
    return db_.mirror().outputOf(path, field);
  }
  // Until the server has answered to everything that was written, and has taken it.
  void waitUntilWritten();
  // Puts a whole content there, marked as complete when all of it is there; a path that it does not name has nothing
  // set.
  void fill(Lattis::Entities entities);
  // Runs for as long as `more` says, which is asked after each change, and now and then. Here alone the settings'
  // notice is called: whoever waits for one thing is told by what is thrown.
  void followWhile(const std::function<bool()>& more);

 private:
  LinuxPlatform::RedisStateDbSettings settings(LinuxPlatform::RedisStateDbSettings settings);
  void waitUntil(const std::function<bool()>& reached);
  [[noreturn]] void fail(const std::string& why) const;

  bool isFollowing_ = false;  // what happens on the way is told
  Lattis::EntityTypes types_;
  std::unique_ptr<Platform::AgentBase> agent_;  // never started
  LinuxPlatform::EventLoop loop_;
  LinuxPlatform::RedisStateDb db_;
};

}  // namespace Tools
