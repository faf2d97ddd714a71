#include "bench/harness/Figures.h"

#include <algorithm>
#include <functional>
#include <iterator>
#include <utility>

namespace Bench {

namespace {

double medianOf(std::vector<double> values) {
  std::ranges::sort(values);
  return values[values.size() / 2];
}

std::vector<std::string> keysOf(const auto& map) {
  std::vector<std::string> keys;
  keys.reserve(map.size());
  for (const auto& [key, value] : map) keys.push_back(key);
  return keys;
}

}  // namespace

std::vector<std::string> Figures::phases() const {
  return keysOf(values_);
}

std::vector<std::string> Figures::figuresOf(const std::string& phase) const {
  return keysOf(values_.at(phase));
}

double Figures::median(const std::string& phase, const std::string& figure) const {
  return medianOf(values_.at(phase).at(figure));
}

double Figures::medianRatio(const std::string& phase, const std::string& figure, const std::string& to) const {
  std::vector<double> ratios;
  std::ranges::transform(values_.at(phase).at(figure), values_.at(phase).at(to), std::back_inserter(ratios),
                         std::divides<>());
  return medianOf(std::move(ratios));
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
