#include "platform/values/ValueText.h"

namespace Platform {

namespace {

bool consume(std::string_view& text, std::string_view expected) {
  if (!text.starts_with(expected)) return false;
  text.remove_prefix(expected.size());
  return true;
}

}  // namespace

bool splitValueText(std::string_view text, std::string_view typeName, std::span<const char* const> names,
                    std::span<std::string_view> parts) {
  if (!consume(text, "Value('") || !consume(text, typeName) || !consume(text, "', ** {'")) return false;
  if (!consume(text, names.front()) || !consume(text, "': ") || !text.ends_with("})")) return false;
  text.remove_suffix(2);
  for (std::size_t i = 0; i + 1 < names.size(); ++i) {
    const std::string separator = std::string(", '") + names[i + 1] + "': ";
    const auto end = text.find(separator);
    if (end == std::string_view::npos) return false;
    parts[i] = text.substr(0, end);
    text.remove_prefix(end + separator.size());
  }
  parts.back() = text;
  return true;
}

}  // namespace Platform
