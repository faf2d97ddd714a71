#include "lib/control/AgentCommands.h"

#include <algorithm>
#include <optional>
#include <stdexcept>
#include <utility>

#include "lib/control/CommandRenderer.h"
#include "platform/values/Assert.h"

namespace LinuxPlatform {

using Agent::AgentAsyncCommandRequestSm;
using Agent::AsyncCommandCallbackWithFormat;
using Agent::OutputFormat;

namespace {

// A command is asked to pause after this much output of one call.
constexpr std::size_t outputMark = 32 * 1024;

}  // namespace

// --- One command under way -------------------------------------------------------------------------------------------

class AgentCommands::Reply final : public ControlReply, public Agent::CommandSocket {
 public:
  Reply(AgentCommands& commands, std::string commandType, OutputFormat format,
        std::shared_ptr<AgentAsyncCommandRequestSm> sm)
      : commands_(commands),
        number_(commands.nextNumber_++),
        commandType_(std::move(commandType)),
        format_(format),
        renderer_(rendererOf(format, output_)),
        sm_(std::move(sm)) {
    commands_.replies_.insert(this);
    commands_.commandTask_->workPendingIs(commands_.replies_.size());
  }
  ~Reply() override {
    commands_.replies_.erase(this);
    commands_.commandTask_->workCountIs(1);
    commands_.commandTask_->workPendingIs(commands_.replies_.size());
  }

  const std::string& commandType() const { return commandType_; }
  // Ends the command for good; what it has written still goes to its reader.
  void withdraw();

  bool produce(std::string& content) override;

  int number() const override { return number_; }
  Platform::Renderer& renderer(OutputFormat format) override {
    PLATFORM_ASSERT_TEXT(format == format_, "a command writes another format than was asked for");
    return *renderer_;
  }
  bool shouldYield() override { return output_.size() >= outputMark || commands_.commandTask_->shouldYield(); }

 private:
  void runCommand();
  void finish(std::optional<std::string> error);

  AgentCommands& commands_;
  int number_;
  std::string commandType_;
  OutputFormat format_;
  std::string output_;  // that has not been handed over
  std::unique_ptr<CommandRenderer> renderer_;
  std::shared_ptr<AgentAsyncCommandRequestSm> sm_;  // null once the command has ended
  bool inCall_ = false;
  std::optional<std::string> error_;  // that the reply ends with
};

bool AgentCommands::Reply::produce(std::string& content) {
  if (sm_) runCommand();
  appendControlBytes(content, output_);
  output_.clear();
  if (sm_) return true;
  if (error_) throw std::runtime_error(*error_);
  return false;
}

void AgentCommands::Reply::runCommand() {
  inCall_ = true;
  try {
    sm_->handleAsyncCommand(*this, format_);
    if (sm_->executionCompleted()) finish(renderer_->commandError());
  } catch (const std::exception& error) {
    finish(error.what());
  }
  inCall_ = false;
}

void AgentCommands::Reply::finish(std::optional<std::string> error) {
  sm_.reset();
  renderer_->close();
  error_ = std::move(error);
  if (error_) std::ranges::replace(*error_, '\0', '?');  // it is thrown, and an exception's text ends at a zero byte
}

void AgentCommands::Reply::withdraw() {
  PLATFORM_ASSERT_TEXT(!inCall_, "a command withdraws itself while it runs");
  if (sm_) finish("the agent has withdrawn its commands");
}

// --- The directory ---------------------------------------------------------------------------------------------------

AgentCommands::AgentCommands(Platform::TaskScheduler& scheduler)
    : commandTask_(scheduler.taskIs("commandTask", Platform::TaskPriority::processing, [] {})) {}

AgentCommands::~AgentCommands() {
  PLATFORM_ASSERT_TEXT(replies_.empty(), "a command outlives its directory");
}

void AgentCommands::commandCallbackWithFormatIs(std::shared_ptr<AsyncCommandCallbackWithFormat> callback) {
  const std::string& commandType = callback->commandType();
  callbacks_[commandType] = std::move(callback);
}

void AgentCommands::commandCallbackWithFormatDel(const std::string& commandType) {
  callbacks_.erase(commandType);
  for (Reply* reply : replies_) {
    if (reply->commandType() == commandType) reply->withdraw();
  }
}

std::shared_ptr<AsyncCommandCallbackWithFormat> AgentCommands::commandCallbackWithFormat(
    const std::string& commandType) const {
  const auto found = callbacks_.find(commandType);
  return found == callbacks_.end() ? nullptr : found->second;
}

std::unique_ptr<ControlReply> AgentCommands::commandReply(const std::string& commandType, const std::string& command,
                                                          OutputFormat format) {
  const auto callback = commandCallbackWithFormat(commandType);
  if (!callback) throw std::invalid_argument("nobody answers commands of the type '" + commandType + "'");
  auto sm =
      callback->createAgentAsyncCommandRequestSm(std::make_shared<const Agent::AgentCommandRequest>(command, format));
  if (!sm) throw std::invalid_argument("nothing is known of the command '" + command + "'");
  return std::make_unique<Reply>(*this, commandType, format, std::move(sm));
}

}  // namespace LinuxPlatform
