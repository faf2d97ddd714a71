#include "platform/values/Text.h"

#include <array>
#include <cmath>

namespace Platform {

std::string TextForm<double>::to(double value) {
  std::array<char, 32> buffer{};
  const auto result = std::to_chars(buffer.data(), buffer.data() + buffer.size(), value);
  return {buffer.data(), result.ptr};
}

std::optional<double> TextForm<double>::from(std::string_view text) {
  double value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || std::isnan(value)) return std::nullopt;
  return value;
}

}  // namespace Platform
