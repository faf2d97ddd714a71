// Which trace handles record what: a level for all of them and exceptions by name.
#pragma once

#include <map>
#include <string>
#include <string_view>

namespace LinuxPlatform {

class TraceLevels {
 public:
  // "5" sets the level of every handle without one of its own, "RouteCacheVrfSm=9" that of one; -1 is off. Throws
  // BadText.
  void optionIs(std::string_view option);
  void defaultIs(int level) { default_ = level; }
  void levelIs(const std::string& handle, int level) { levels_[handle] = level; }
  int levelOf(std::string_view handle) const;

 private:
  int default_ = 0;
  std::map<std::string, int, std::less<>> levels_;
};

}  // namespace LinuxPlatform
