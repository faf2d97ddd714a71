#include "lib/trace/TraceLevels.h"

#include "platform/values/Text.h"

namespace LinuxPlatform {

void TraceLevels::optionIs(std::string_view option) {
  const auto equals = option.find('=');
  const std::string_view number = equals == std::string_view::npos ? option : option.substr(equals + 1);
  const auto level = Platform::TextForm<int>::from(number);
  if (!level || *level < -1 || *level > 9 || equals == 0) {
    throw Platform::BadText("'" + std::string(option) + "' is not a trace level: LEVEL or HANDLE=LEVEL, -1 to 9");
  }
  if (equals == std::string_view::npos) {
    defaultIs(*level);
  } else {
    levelIs(std::string(option.substr(0, equals)), *level);
  }
}

int TraceLevels::levelOf(std::string_view handle) const {
  const auto found = levels_.find(handle);
  return found == levels_.end() ? default_ : found->second;
}

}  // namespace LinuxPlatform
