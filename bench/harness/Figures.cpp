#include "bench/harness/Figures.h"

#include <algorithm>

namespace Bench {

double Figures::median(const std::string& phase, const std::string& figure) const {
  auto sorted = values_.at(phase).at(figure);
  std::ranges::sort(sorted);
  return sorted[sorted.size() / 2];
}

nlohmann::json Figures::asJson() const {
  nlohmann::json all;
  for (const auto& [phase, figures] : values_) {
    for (const auto& [figure, values] : figures) {
      all[phase][figure] = {{"median", median(phase, figure)}, {"runs", values}};
    }
  }
  return all;
}

}  // namespace Bench
