// The directory of agents' commands, and the commands under way: each is the reply to one request on the control
// socket.
#pragma once

#include <map>
#include <memory>
#include <set>
#include <string>

#include "lib/control/ControlReply.h"
#include "platform/services/AgentCommand.h"
#include "platform/services/TaskScheduler.h"

namespace LinuxPlatform {

// Owns the registrations. Outlives the agents that register and the replies that it makes; the scheduler outlives it.
class AgentCommands final : public Agent::AgentCommandRequestDir {
 public:
  explicit AgentCommands(Platform::TaskScheduler& scheduler);
  ~AgentCommands() override;
  AgentCommands(const AgentCommands&) = delete;
  AgentCommands& operator=(const AgentCommands&) = delete;

  void commandCallbackWithFormatIs(std::shared_ptr<Agent::AsyncCommandCallbackWithFormat> callback) override;
  void commandCallbackWithFormatDel(const std::string& commandType) override;
  // Null when nobody has registered for the type.
  std::shared_ptr<Agent::AsyncCommandCallbackWithFormat> commandCallbackWithFormat(
      const std::string& commandType) const;

  // Begins a command. The reply's content is the command's output in frames of bytes; each piece of it is one call of
  // the command's state machine, which is destroyed as soon as it has completed or the reply is destroyed. A command
  // that throws, fails or is withdrawn ends the reply with its error, behind output that is closed. Throws with one
  // line when nobody knows the command.
  std::unique_ptr<ControlReply> commandReply(const std::string& commandType, const std::string& command,
                                             Agent::OutputFormat format);

 private:
  class Reply;

  std::map<std::string, std::shared_ptr<Agent::AsyncCommandCallbackWithFormat>> callbacks_;  // by command type
  std::set<Reply*> replies_;
  int nextNumber_ = 1;
  // Never runs: says whether the time slice of whoever calls is spent, and tells operators of the commands.
  std::unique_ptr<Platform::Task> commandTask_;
};

}  // namespace LinuxPlatform
