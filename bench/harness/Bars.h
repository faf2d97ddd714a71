// What figures are held against: a limit of their own, or one of what they are to a rival's of the same run.
#pragma once

#include <nlohmann/json.hpp>
#include <span>

#include "bench/harness/Figures.h"

namespace Bench {

// Each program has its bars beside its measurements, and tells which are missed. None of them fails it: a figure says
// little about another machine, and the ratio to a rival a little more.
struct Bar {
  enum Sense { atMost, atLeast };
  const char* phase;
  const char* figure;
  const char*
      rival;     // a figure of the same phase, and `limit` is the ratio's; null: `limit` is the figure's, in `unit`
  double limit;  // `told`: none
  const char* unit = "ns";
  double scale = 1;  // from the figure to the unit
  Sense sense = atMost;

  static constexpr double told = 0;
};

// For each bar whose figures were measured, by their medians:
//   {"what": "phase, figure", "figure": 1.5, "unit": "ns", "rival": "LMDB", "rivalFigure": 3.0, "bar": 1.2,
//    "sense": "most", "ratio": 0.5, "met": true}
// "ratio" is to the rival, or else to the bar; the rival's fields and those of a bar are missing where there is none.
nlohmann::json judged(const Figures& figures, std::span<const Bar> bars);
void printBars(const Figures& figures, std::span<const Bar> bars);

}  // namespace Bench
