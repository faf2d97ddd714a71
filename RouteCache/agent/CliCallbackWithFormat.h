// Where commands reach the agent: the callback that it registers for them.
#pragma once

#include <memory>
#include <string>

#include "platform/services/AgentCommand.h"
#include "platform/trace/Trace.h"

namespace RouteCache {
class SwRouteSm;
}  // namespace RouteCache

namespace RouteCacheAgent {

class Agent;

// Finds the state machine for a command's text (RouteCache/model/CommandTexts.h). Made by the agent, which outlives it.
class CliCallbackWithFormat final : public ::Agent::AsyncCommandCallbackWithFormat {
 public:
  CliCallbackWithFormat(const std::string& name, const std::string& commandType, Agent* agent);

  // Null when the text holds none of the names. Throws std::out_of_range for a "#V" that is missing or stands behind
  // the "#P", RangeError for a VRF name over 100 bytes, BadText for a prefix that is none of the family asked for, and
  // std::runtime_error while the agent has no software route state machine to ask.
  std::shared_ptr<::Agent::AgentAsyncCommandRequestSm> createAgentAsyncCommandRequestSm(
      const std::shared_ptr<const ::Agent::AgentCommandRequest>& request) override;

  // The commands made from now on end each of their calls after one entry.
  bool yieldInTest() const { return yieldInTest_; }
  void yieldInTestIs(bool yield) { yieldInTest_ = yield; }
  const Lattis::EntityType& entityType() const override;

 private:
  using Request = std::shared_ptr<const ::Agent::AgentCommandRequest>;
  using RequestSm = std::shared_ptr<::Agent::AgentAsyncCommandRequestSm>;
  std::shared_ptr<const RouteCache::SwRouteSm> swRouteSm() const;
  RequestSm showThreshold(const Request& request) const;
  RequestSm showSummary(const Request& request) const;
  RequestSm showVrf(const Request& request, bool isIpv6) const;
  template <class ShowSm>
  RequestSm prepared(std::shared_ptr<ShowSm> sm) const;

  Agent* const agent_;
  Platform::TraceHandle trace_;
  bool yieldInTest_ = false;
};

}  // namespace RouteCacheAgent
