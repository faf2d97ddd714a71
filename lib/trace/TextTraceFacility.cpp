#include "lib/trace/TextTraceFacility.h"

#include <algorithm>

namespace LinuxPlatform {

std::size_t TextTraceFacility::count(std::string_view text) const {
  return static_cast<std::size_t>(std::count_if(
      lines_.begin(), lines_.end(), [&](const Line& line) { return line.text.find(text) != std::string::npos; }));
}

void TextTraceFacility::record(std::string_view handle, unsigned level, std::span<const std::uint8_t> items) {
  lines_.push_back({std::string(handle), level, vocabulary_.text(items)});
}

}  // namespace LinuxPlatform
