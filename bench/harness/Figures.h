// What measurements came to: one value of each figure for each run.
#pragma once

#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace Bench {

class Figures {
 public:
  void add(const std::string& phase, const std::string& figure, double value) {
    values_[phase][figure].push_back(value);
  }
  bool has(const std::string& phase) const { return values_.contains(phase); }
  bool has(const std::string& phase, const std::string& figure) const {
    return has(phase) && values_.at(phase).contains(figure);
  }
  std::vector<std::string> phases() const;
  std::vector<std::string> figuresOf(const std::string& phase) const;
  // The last of the figure's values, which must be there; and the median of all.
  double latest(const std::string& phase, const std::string& figure) const {
    return values_.at(phase).at(figure).back();
  }
  double median(const std::string& phase, const std::string& figure) const;
  // The median of what one figure is to another of the same run, of which both have the same number.
  double medianRatio(const std::string& phase, const std::string& figure, const std::string& to) const;
  // {phase: {figure: {"median": x, "runs": [...]}}}
  nlohmann::json asJson() const;

 private:
  std::map<std::string, std::map<std::string, std::vector<double>>> values_;
};

}  // namespace Bench
