#include "bench/harness/Bars.h"

#include <cstdio>
#include <string>

namespace Bench {

namespace {

using nlohmann::json;

bool wasMeasured(const Figures& figures, const Bar& bar) {
  return figures.has(bar.phase, bar.figure) && (bar.rival == nullptr || figures.has(bar.phase, bar.rival));
}

json judged(const Figures& figures, const Bar& bar) {
  const double figure = bar.scale * figures.median(bar.phase, bar.figure);
  json told = {{"what", std::string(bar.phase) + ", " + bar.figure}, {"figure", figure}, {"unit", bar.unit}};
  double measured = figure;
  if (bar.rival != nullptr) {
    measured = figures.medianRatio(bar.phase, bar.figure, bar.rival);
    told.update(
        {{"rival", bar.rival}, {"rivalFigure", bar.scale * figures.median(bar.phase, bar.rival)}, {"ratio", measured}});
  }
  if (bar.limit == Bar::told) return told;
  if (bar.rival == nullptr) told["ratio"] = figure / bar.limit;
  const bool isAtMost = bar.sense == Bar::atMost;
  told.update({{"bar", bar.limit},
               {"sense", isAtMost ? "most" : "least"},
               {"met", isAtMost ? measured <= bar.limit : measured >= bar.limit}});
  return told;
}

}  // namespace

json judged(const Figures& figures, std::span<const Bar> bars) {
  json all = json::array();
  for (const Bar& bar : bars) {
    if (wasMeasured(figures, bar)) all.push_back(judged(figures, bar));
  }
  return all;
}

void printBars(const Figures& figures, std::span<const Bar> bars) {
  std::printf("\n%-42s %12s %-8s %24s %7s %10s\n", "", "", "", "rival", "ratio", "bar");
  for (const json& line : judged(figures, bars)) {
    std::printf("%-42s %12.4g %-8s", line["what"].get<std::string>().c_str(), line["figure"].get<double>(),
                line["unit"].get<std::string>().c_str());
    if (line.contains("rival")) {
      std::printf(" %11.4g %-12s", line["rivalFigure"].get<double>(), line["rival"].get<std::string>().c_str());
    } else {
      std::printf(" %24s", "");
    }
    line.contains("ratio") ? std::printf(" %7.2f", line["ratio"].get<double>()) : std::printf(" %7s", "");
    if (line.contains("bar")) {
      std::printf(" %2s %7g%s", line["sense"] == "most" ? "<=" : ">=", line["bar"].get<double>(),
                  line["met"] ? "" : "  missed");
    }
    std::printf("\n");
  }
}

}  // namespace Bench
