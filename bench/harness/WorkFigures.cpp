#include "bench/harness/WorkFigures.h"

#include <cstdio>
#include <stdexcept>

namespace Bench {

using nlohmann::json;

void require(bool holds, const char* what) {
  if (!holds) throw std::runtime_error(std::string("not as it must be: ") + what);
}

void addWork(Figures& figures, const std::string& phase, const json& report, double entries) {
  for (const char* figure : {"seconds", "cpuSeconds", "heldSeconds", "heldCpuSeconds"}) {
    figures.add(phase, figure, report[figure]);
  }
  figures.add(phase, "nanosecondsPerEntry", report["seconds"].get<double>() / entries * 1e9);
}

void addMemory(Figures& figures, const std::string& phase, const json& report, double routes) {
  for (const auto& [name, bytes] : report["memory"].items()) {
    figures.add(phase, name + "PerRoute", bytes.get<double>() / routes);
  }
  figures.add(phase, "grownPerRoute", report["grownBytes"].get<double>() / routes);
}

void printWork(const Figures& figures, std::initializer_list<const char*> phases) {
  std::printf("%-20s %9s %9s %9s %9s %13s %12s\n", "", "seconds", "CPU s", "ns each", "held, ms", "held, CPU ms",
              "rival CPU s");
  for (const char* phase : phases) {
    const auto median = [&](const char* figure) { return figures.median(phase, figure); };
    const double cpu = median("cpuSeconds");
    std::printf("%-20s %9.3f %9.3f %9.0f %9.1f %13.1f", phase, median("seconds"), cpu, median("nanosecondsPerEntry"),
                1e3 * median("heldSeconds"), 1e3 * median("heldCpuSeconds"));
    if (figures.has(phase, "rivalCpuSeconds")) {
      const double rival = median("rivalCpuSeconds");
      std::printf(" %12.3f (x %.2f)", rival, cpu / rival);
    }
    std::printf("\n");
  }
}

void printMemory(const Figures& figures, const char* grown, std::initializer_list<const char*> phases) {
  std::printf("\n%-20s %9s %9s %9s\n", "bytes per route", "private", grown, "shared");
  for (const char* phase : phases) {
    std::printf("%-20s %9.0f %9.0f %9.0f\n", phase, figures.median(phase, "RssAnonPerRoute"),
                figures.median(phase, "grownPerRoute"), figures.median(phase, "RssShmemPerRoute"));
  }
}

}  // namespace Bench
