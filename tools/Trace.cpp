// `routecache trace`: puts a trace file into words, also one that is being written or whose writer was killed.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <ctime>
#include <memory>
#include <string>

#include "host/AgentLibrary.h"
#include "linux/files/TraceFile.h"
#include "platform/services/AgentBase.h"
#include "platform/values/Printable.h"
#include "tools/commandline/Commands.h"
#include "tools/commandline/OptionChecks.h"

namespace Tools {

namespace {

struct TraceOptions {
  std::string file;
  std::string agentLibrary;
  std::string handle;
  unsigned level = 9;
};

// The agent's library knows the words for the agent's own values; without it they are "?".
Platform::TraceVocabulary vocabularyOf(const std::string& agentLibrary) {
  Platform::TraceVocabulary vocabulary;
  Lattis::EntityTypes entities;
  Platform::TableTypes tables;
  try {
    agentFromLibrary(agentLibrary, "trace")->registerTypes(entities, tables, vocabulary);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "routecache: the agent's values stay without words: %s\n", error.what());
  }
  return vocabulary;
}

void printLine(const LinuxPlatform::TraceLine& line) {
  constexpr std::uint64_t second = 1'000'000'000;
  const auto seconds = static_cast<time_t>(line.time / second);
  tm utc{};
  gmtime_r(&seconds, &utc);
  std::printf("%04d-%02d-%02dT%02d:%02d:%02d.%06uZ %u %s: %s\n", utc.tm_year + 1900, utc.tm_mon + 1, utc.tm_mday,
              utc.tm_hour, utc.tm_min, utc.tm_sec, static_cast<unsigned>(line.time % second / 1000), line.level,
              Platform::printable(line.handle).c_str(), Platform::printable(line.text).c_str());
}

void printTrace(const TraceOptions& options) {
  const auto vocabulary = vocabularyOf(options.agentLibrary);
  for (const auto& line : LinuxPlatform::readTrace(options.file, vocabulary, options.level)) {
    if (options.handle.empty() || options.handle == line.handle) printLine(line);
  }
}

}  // namespace

void addTraceCommand(CLI::App& app, ToolContext&) {
  auto options = std::make_shared<TraceOptions>();
  options->agentLibrary = defaultAgentLibrary();
  CLI::App* command = app.add_subcommand("trace", "Print a trace file, oldest line first: time, level, handle, text");
  command->footer("Example: routecache trace /tmp/leaf/RouteCache-4711.zph --level 5");
  command->add_option("FILE", options->file, "The trace file")->required();
  command->add_option("--level", options->level, "The highest level to print")
      ->type_name("N")
      ->check(wholeNumber(0, 9))
      ->capture_default_str();
  command->add_option("--handle", options->handle, "The one handle to print");
  command->add_option("--agent", options->agentLibrary, "The library of the agent that traced")
      ->type_name("LIB")
      ->capture_default_str();
  command->callback([options] { printTrace(*options); });
}

}  // namespace Tools
