#include "bench/harness/BenchProgram.h"

#include <exception>
#include <iostream>
#include <utility>

namespace Bench {

BenchProgram::BenchProgram(const char* name, const std::string& what, BenchOptions& options)
    : name_(name), options_(options), app_(what) {
  app_.require_subcommand(0, 1);
  app_.fallthrough();
  app_.add_option("--dir", options.directory, "Where the tables go")->capture_default_str();
  app_.add_option("--runs", options.runs, "How often everything is measured")
      ->check(CLI::PositiveNumber)
      ->capture_default_str();
  app_.add_flag("--json", options.asJson, "Every figure of every run");
}

void BenchProgram::routesAre(std::uint32_t& routes, const char* what, std::uint32_t least, std::uint32_t most) {
  app_.add_option("--routes", routes, what)->check(CLI::Range(least, most))->capture_default_str();
}

CLI::App& BenchProgram::modeIs(const char* name, const char* what, std::function<void()> run) {
  CLI::App* mode = app_.add_subcommand(name, std::string(what) + " alone, on the tables in --dir");
  mode->callback(std::move(run));
  return *mode;
}

void BenchProgram::pingedIs(PingedOptions& pinged) {
  CLI::App& mode = modeIs("pinged", "A process that waits for an eventfd",
                          [this, &pinged] { runPinged(options_.directory, pinged); });
  mode.add_option("--eventfd", pinged.eventFd, "The descriptor, inherited");
  mode.add_option("--next-eventfd", pinged.nextEventFd, "What it writes to then; -1: it notes the time instead");
}

int BenchProgram::run(int argc, char** argv, const std::function<void()>& measure) {
  try {
    app_.callback([this, &measure] {
      if (app_.get_subcommands().empty()) measure();
    });
    CLI11_PARSE(app_, argc, argv);
    return 0;
  } catch (const std::exception& error) {
    std::cerr << name_ << ": " << error.what() << std::endl;
    return 1;
  }
}

// Tells on standard error how far it is.
void BenchProgram::repeat(const std::function<void()>& run) const {
  for (unsigned i = 0; i < options_.runs; ++i) {
    std::cerr << "run " << i + 1 << " of " << options_.runs << std::endl;
    run();
  }
}

void BenchProgram::printJson(const Figures& figures, std::span<const Bar> bars) {
  nlohmann::json all = figures.asJson();
  all["bars"] = judged(figures, bars);
  std::cout << all.dump(2) << std::endl;
}

}  // namespace Bench
