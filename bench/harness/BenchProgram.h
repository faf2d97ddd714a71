// What every benchmark program does that measures in runs and starts itself again as other processes.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <string>

#include "bench/harness/BenchDirectory.h"
#include "bench/harness/Figures.h"

namespace Bench {

struct BenchOptions {
  unsigned runs = 3;
  std::string directory = defaultParentDirectory();
  bool asJson = false;
};

// --dir, --runs and --json, before or behind a subcommand, of which at most one is taken.
void addBenchOptions(CLI::App& app, BenchOptions& options);

// Does this as often as is asked, telling on standard error how far it is.
void repeat(const BenchOptions& options, const std::function<void()>& run);
void printJson(const Figures& figures);

// The whole of a benchmark: as many runs of a Measurement, made of the options, as is asked; then its figures on
// standard output, as JSON or as `print` has it.
template <class Measurement, class Options>
void measureRuns(const Options& options, void (*print)(const Options&, const Figures&)) {
  Measurement measurement(options);
  repeat(options, [&measurement] { measurement.run(); });
  options.asJson ? printJson(measurement.figures()) : print(options, measurement.figures());
}

// The whole of main(): what `run` returns is the exit code; an exception is one line on standard error, and 1.
int benchMain(const char* program, const std::function<int()>& run);

}  // namespace Bench
