// What every benchmark program does that measures in runs and starts itself again as other processes.
#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <functional>
#include <span>
#include <string>

#include "bench/harness/Bars.h"
#include "bench/harness/BenchDirectory.h"
#include "bench/harness/Figures.h"
#include "bench/harness/Pings.h"

namespace Bench {

struct BenchOptions {
  unsigned runs = 3;
  std::string directory = defaultParentDirectory();
  bool asJson = false;
};

class BenchProgram {
 public:
  // With --dir, --runs and --json, before or behind a mode, of which at most one is taken. The options outlive it.
  BenchProgram(const char* name, const std::string& what, BenchOptions& options);

  // For further options.
  CLI::App& app() { return app_; }
  void routesAre(std::uint32_t& routes, const char* what, std::uint32_t least, std::uint32_t most);
  // Another of the benchmark's processes alone, which this program starts itself as, on the tables in --dir.
  CLI::App& modeIs(const char* name, const char* what, std::function<void()> run);
  // For `Pings`.
  void pingedIs(PingedOptions& pinged);

  // The whole of main(), which returns what this does: a mode, or as many runs of a Measurement, made of the options,
  // as is asked, and then its figures and how they stand to the bars on standard output, as JSON or as `print` has it.
  // An exception is one line on standard error.
  template <class Measurement, class Options>
  int run(int argc, char** argv, const Options& options, void (*print)(const Options&, const Figures&),
          std::span<const Bar> bars = {}) {
    return run(argc, argv, [&] {
      Measurement measurement(options);
      repeat([&measurement] { measurement.run(); });
      if (options.asJson) return printJson(measurement.figures(), bars);
      print(options, measurement.figures());
      if (!bars.empty()) printBars(measurement.figures(), bars);
    });
  }

 private:
  int run(int argc, char** argv, const std::function<void()>& measure);
  void repeat(const std::function<void()>& run) const;
  static void printJson(const Figures& figures, std::span<const Bar> bars);

  const char* name_;
  const BenchOptions& options_;
  CLI::App app_;
};

}  // namespace Bench
