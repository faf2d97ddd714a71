// Commands that the switch's command line sends to an agent: a text, answered through a renderer by a state machine
// that the platform calls until it is done.
//
//   directory: request arrives -> callback of its command type: createAgentAsyncCommandRequestSm(request)
//              -> handleAsyncCommand(socket, format), again and again -> executionCompleted()
//
// Everything happens on the agent's event thread; any number of commands may be under way.
#pragma once

#include <memory>
#include <string>
#include <utility>

#include "platform/services/Renderer.h"
#include "platform/state/Entity.h"

namespace Platform {

// Monotonic seconds from any fixed point; runs on during a callback. For the budgets of commands.
class Clock {
 public:
  virtual ~Clock() = default;
  virtual double now() const = 0;
};

}  // namespace Platform

namespace Agent {

using Platform::OutputFormat;

// What was asked for.
class AgentCommandRequest {
 public:
  AgentCommandRequest(std::string command, OutputFormat format) : command_(std::move(command)), format_(format) {}
  const std::string& command() const { return command_; }
  OutputFormat outputFormat() const { return format_; }

 private:
  std::string command_;
  OutputFormat format_;
};

// Where the reply to one request goes. Outlives the request's state machine.
class CommandSocket {
 public:
  virtual ~CommandSocket() = default;
  // Tells the readers apart in traces.
  virtual int number() const = 0;
  // The same object in every call for the request's format.
  virtual Platform::Renderer& renderer(OutputFormat format) = 0;
  // True when the reader must take some of the output first, or others want the thread. Ask after each entry, never
  // before the first: that way every call makes progress. Cheap enough to ask after every entry.
  virtual bool shouldYield() = 0;
};

// One command under way. Owned by the platform: destroyed when it is completed, when its reader goes away, or when it
// throws, which the reader is told in one line.
class AgentAsyncCommandRequestSm {
 public:
  AgentAsyncCommandRequestSm() = default;
  AgentAsyncCommandRequestSm(const AgentAsyncCommandRequestSm&) = delete;
  AgentAsyncCommandRequestSm& operator=(const AgentAsyncCommandRequestSm&) = delete;
  virtual ~AgentAsyncCommandRequestSm() = default;

  // Works for a while. Returns with executionCompleted() or to be called again.
  virtual void handleAsyncCommand(CommandSocket& socket, OutputFormat format) = 0;
  bool executionCompleted() const { return executionCompleted_; }

 protected:
  void executionCompletedIs(bool completed) { executionCompleted_ = completed; }

 private:
  bool executionCompleted_ = false;
};

// What an agent registers for one family of commands. An entity, so that operators can reach its settings.
class AsyncCommandCallbackWithFormat : public Lattis::Entity {
 public:
  AsyncCommandCallbackWithFormat(std::string name, std::string commandType)
      : Entity(std::move(name)), commandType_(std::move(commandType)) {}
  // The family of commands: requests name it.
  const std::string& commandType() const { return commandType_; }
  // A new state machine, or null when the command is not known. Throws with one line for a command that makes no sense.
  virtual std::shared_ptr<AgentAsyncCommandRequestSm> createAgentAsyncCommandRequestSm(
      const std::shared_ptr<const AgentCommandRequest>& request) = 0;

 private:
  std::string commandType_;
};

// The platform's directory of agents' command callbacks.
class AgentCommandRequestDir {
 public:
  virtual ~AgentCommandRequestDir() = default;
  // Registers the callback for its command type, in place of any other.
  virtual void commandCallbackWithFormatIs(std::shared_ptr<AsyncCommandCallbackWithFormat> callback) = 0;
  // Withdraws it and ends its commands that are under way: their state machines are destroyed before this returns, and
  // their readers are told if they are served at all from then on.
  virtual void commandCallbackWithFormatDel(const std::string& commandType) = 0;
};

}  // namespace Agent
