#include "RouteCache/agent/CliCallbackWithFormat.h"

#include <stdexcept>

#include "RouteCache/agent/Agent.h"
#include "RouteCache/model/CommandTexts.h"
#include "RouteCache/show/ShowRouteCacheSm.h"

namespace RouteCacheAgent {

namespace CommandTexts = RouteCache::CommandTexts;

namespace {

constexpr double maxRunTime = 0.1;  // seconds of one call

bool holds(const std::string& command, const char* name) {
  return command.find(name) != std::string::npos;
}

// The text between the last "#V" and the last "#P", or the end when there is no "#P".
std::string vrfNameIn(const std::string& command, const char* name) {
  const std::size_t marker = command.rfind(CommandTexts::vrfMark);
  const std::size_t end = command.rfind(CommandTexts::prefixMark);
  const std::string where = std::string("basic_string::substr: ") + name;
  if (marker == std::string::npos) throw std::out_of_range(where + " without a VRF (\"#V\")");
  if (end < marker) throw std::out_of_range(where + " with its prefix (\"#P\") before its VRF (\"#V\")");
  const std::size_t begin = marker + CommandTexts::vrfMark.size();
  return L3::VrfName(command.substr(begin, end == std::string::npos ? end : end - begin)).text();
}

// The prefix behind the last "#P"; the empty prefix when there is none.
IpGenPrefix prefixIn(const std::string& command, bool isIpv6) {
  const std::size_t marker = command.rfind(CommandTexts::prefixMark);
  if (marker == std::string::npos) return {};
  const std::string text = command.substr(marker + CommandTexts::prefixMark.size());
  if (text.empty()) return {};
  if (isIpv6) return Platform::fromText<Ip6Prefix>(text);
  return Platform::fromText<Prefix>(text);
}

}  // namespace

CliCallbackWithFormat::CliCallbackWithFormat(const std::string& name, const std::string& commandType, Agent* agent)
    : AsyncCommandCallbackWithFormat(name, commandType), agent_(agent), trace_(agent->traceFacility(), name) {}

const Lattis::EntityType& CliCallbackWithFormat::entityType() const {
  using This = CliCallbackWithFormat;
  static const Lattis::EntityType type{
      "RouteCacheAgent::CliCallbackWithFormat",
      {Lattis::attributeField<This, &This::yieldInTest, &This::yieldInTestIs>("yieldInTest"),
       Lattis::readOnlyField<This, &This::commandType>("commandType")},
      {}};
  return type;
}

// A text may hold several of the names: the order decides.
std::shared_ptr<::Agent::AgentAsyncCommandRequestSm> CliCallbackWithFormat::createAgentAsyncCommandRequestSm(
    const std::shared_ptr<const ::Agent::AgentCommandRequest>& request) {
  const std::string& command = request->command();
  trace_(5, name(), " command: ", command);
  if (holds(command, CommandTexts::threshold)) return showThreshold(request);
  if (holds(command, CommandTexts::summary)) return showSummary(request);
  if (holds(command, CommandTexts::routes)) return showVrf(request, holds(command, CommandTexts::routes6));
  return nullptr;
}

std::shared_ptr<const RouteCache::SwRouteSm> CliCallbackWithFormat::swRouteSm() const {
  if (!agent_->swRouteSm()) throw std::runtime_error("the agent is not processing routes");
  return agent_->swRouteSm();
}

CliCallbackWithFormat::RequestSm CliCallbackWithFormat::showThreshold(const Request& request) const {
  const auto sm = RouteCache::showRouteCacheThresholdSmFactory(
      {CommandTexts::threshold, request, maxRunTime, agent_->clock(), agent_->traceFacility()}, agent_->hwRouteSm());
  sm->cliConfigIs(agent_->routeCacheCliConfig());
  return prepared(sm);
}

CliCallbackWithFormat::RequestSm CliCallbackWithFormat::showSummary(const Request& request) const {
  const std::string& command = request->command();
  const std::size_t marker = command.rfind(CommandTexts::vrfMark);
  const L3::VrfName vrfName =
      marker == std::string::npos ? L3::VrfName() : command.substr(marker + CommandTexts::vrfMark.size());
  return prepared(RouteCache::showRouteCacheSummarySmFactory(
      {CommandTexts::summary, request, maxRunTime, agent_->clock(), agent_->traceFacility()}, swRouteSm(),
      agent_->piVrfIdMap(), vrfName.text(), agent_->hwRouteSm()));
}

CliCallbackWithFormat::RequestSm CliCallbackWithFormat::showVrf(const Request& request, bool isIpv6) const {
  const char* const name = isIpv6 ? CommandTexts::routes6 : CommandTexts::routes;
  const std::string vrfName = vrfNameIn(request->command(), name);
  const IpGenPrefix prefix = prefixIn(request->command(), isIpv6);
  return prepared(RouteCache::showRouteCacheVrfPrefixSmFactory(
      {name, request, maxRunTime, agent_->clock(), agent_->traceFacility()}, swRouteSm(), vrfName, prefix,
      agent_->piVrfIdMap(), isIpv6));
}

template <class ShowSm>
CliCallbackWithFormat::RequestSm CliCallbackWithFormat::prepared(std::shared_ptr<ShowSm> sm) const {
  sm->yieldInTestIs(yieldInTest_);
  return sm;
}

}  // namespace RouteCacheAgent
