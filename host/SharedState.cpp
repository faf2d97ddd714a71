#include "host/SharedState.h"

#include <csignal>
#include <stdexcept>
#include <utility>

#include "host/AgentLibrary.h"
#include "host/StatePaths.h"
#include "lib/statedb/PlatformTypes.h"

namespace Tools {

namespace {

constexpr double patience = 10;  // seconds without any progress
constexpr double look = 0.1;     // seconds between two looks

}  // namespace

SharedState::SharedState(const LinuxPlatform::RedisStateDbSettings& given, const std::string& agentLibrary)
    : agent_(agentFromLibrary(agentLibrary, "RouteCache")), db_(types_, loop_, settings(given)) {
  std::signal(SIGPIPE, SIG_IGN);  // a server that goes is an error of the write
  Platform::TableTypes tables;
  Platform::TraceVocabulary vocabulary;
  LinuxPlatform::addPlatformTypes(types_, tables);
  agent_->registerTypes(types_, tables, vocabulary);
}

LinuxPlatform::RedisStateDbSettings SharedState::settings(LinuxPlatform::RedisStateDbSettings settings) {
  settings.ownsOutputs = false;
  settings.notice = [this, notice = std::move(settings.notice)](const std::string& line) {
    if (isFollowing_) notice(line);
  };
  return settings;
}

void SharedState::waitUntil(const std::function<bool()>& reached) {
  const LinuxPlatform::RedisMirror& mirror = db_.mirror();
  const LinuxPlatform::MonotonicClock clock;
  double progressAt = clock.now();
  std::size_t unanswered = 0;
  std::uint64_t readings = 0;
  while (!reached()) {
    loop_.runOnce(look);
    if (mirror.session().unanswered() != unanswered || mirror.readings() != readings) {
      unanswered = mirror.session().unanswered();
      readings = mirror.readings();
      progressAt = clock.now();
    }
    if (clock.now() - progressAt < patience && (mirror.session().fault().empty() || mirror.session().isOpen()))
      continue;
    const std::string& fault = mirror.session().fault();
    fail(fault.empty() ? "no answer" : fault);
  }
}

void SharedState::fail(const std::string& why) const {
  throw std::runtime_error("state database at " + db_.mirror().session().settings().address.text + ": " + why);
}

std::shared_ptr<Lattis::Entity> SharedState::entity(const std::string& path) {
  const auto types = allPathTypes();
  const auto type = types.find(path);
  if (type == types.end() || derivedPaths().contains(path)) {
    throw Platform::BadText("nothing is at the path '" + path + "'");
  }
  auto entity = db_.entityOrNew(path, type->second);
  const LinuxPlatform::RedisMirror& mirror = db_.mirror();
  waitUntil([&] { return mirror.isSettled() || mirror.markIsMissing() || !mirror.faultOf(path).empty(); });
  if (mirror.isSettled()) return entity;
  if (!mirror.faultOf(path).empty()) fail(path + ": " + mirror.faultOf(path));
  fail("the content of switch '" + mirror.session().settings().switchName +
       "' is not complete (routecache statedb fill puts one there)");
}

void SharedState::waitUntilWritten() {
  const LinuxPlatform::RedisMirror& mirror = db_.mirror();
  const auto isRefused = [&] { return !mirror.writeFault().empty() && mirror.session().unanswered() == 0; };
  waitUntil([&] { return mirror.isSettled() || isRefused(); });
  if (!mirror.writeFault().empty()) fail(mirror.writeFault());
}

void SharedState::fill(Lattis::Entities entities) {
  for (const auto& [path, type] : allPathTypes()) {
    if (!derivedPaths().contains(path)) entities.try_emplace(path, types_.make(type, path));
  }
  waitUntil([this] { return db_.mirror().session().isOpen(); });
  db_.entitiesAre(entities);
  db_.mirror().completeIs();
  waitUntilWritten();
}

void SharedState::followWhile(const std::function<bool()>& more) {
  isFollowing_ = true;
  while (more()) loop_.runOnce(look);
}

}  // namespace Tools
