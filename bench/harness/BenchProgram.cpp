#include "bench/harness/BenchProgram.h"

#include <exception>
#include <iostream>

namespace Bench {

void addBenchOptions(CLI::App& app, BenchOptions& options) {
  app.require_subcommand(0, 1);
  app.fallthrough();
  app.add_option("--dir", options.directory, "Where the tables go")->capture_default_str();
  app.add_option("--runs", options.runs, "How often everything is measured")
      ->check(CLI::PositiveNumber)
      ->capture_default_str();
  app.add_flag("--json", options.asJson, "Every figure of every run");
}

void repeat(const BenchOptions& options, const std::function<void()>& run) {
  for (unsigned i = 0; i < options.runs; ++i) {
    std::cerr << "run " << i + 1 << " of " << options.runs << std::endl;
    run();
  }
}

void printJson(const Figures& figures) {
  std::cout << figures.asJson().dump(2) << std::endl;
}

int benchMain(const char* program, const std::function<int()>& run) {
  try {
    return run();
  } catch (const std::exception& error) {
    std::cerr << program << ": " << error.what() << std::endl;
    return 1;
  }
}

}  // namespace Bench
