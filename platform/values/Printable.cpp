#include "platform/values/Printable.h"

#include <cstdint>

namespace Platform {

namespace {

std::uint8_t byteAt(std::string_view text, std::size_t i) {
  return static_cast<std::uint8_t>(text[i]);
}

// The bytes of the printable character that the text begins with; 0 when there is none.
std::size_t printableLength(std::string_view text) {
  const std::uint8_t first = byteAt(text, 0);
  if (first < 0x80) return first >= 0x20 && first != 0x7F ? 1 : 0;
  const std::size_t length = utf8Length(text);
  const bool isControl = first == 0xC2 && length == 2 && byteAt(text, 1) < 0xA0;
  return isControl ? 0 : length;
}

}  // namespace

std::size_t utf8Length(std::string_view text) {
  if (text.empty()) return 0;
  const std::uint8_t first = byteAt(text, 0);
  if (first < 0x80) return 1;
  const std::size_t length = first < 0xC2 ? 0 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : first < 0xF5 ? 4 : 0;
  if (length == 0 || length > text.size()) return 0;
  const std::uint8_t lowest = first == 0xE0 ? 0xA0 : first == 0xF0 ? 0x90 : 0x80;
  const std::uint8_t highest = first == 0xED ? 0x9F : first == 0xF4 ? 0x8F : 0xBF;
  if (byteAt(text, 1) < lowest || byteAt(text, 1) > highest) return 0;
  for (std::size_t i = 2; i < length; ++i) {
    if ((byteAt(text, i) & 0xC0U) != 0x80) return 0;
  }
  return length;
}

bool isUtf8(std::string_view text) {
  while (!text.empty()) {
    const std::size_t length = utf8Length(text);
    if (length == 0) return false;
    text.remove_prefix(length);
  }
  return true;
}

bool isPrintable(std::string_view text) {
  while (!text.empty()) {
    const std::size_t length = printableLength(text);
    if (length == 0) return false;
    text.remove_prefix(length);
  }
  return true;
}

std::string printable(std::string_view text) {
  std::string shown;
  shown.reserve(text.size());
  while (!text.empty()) {
    const std::size_t length = printableLength(text);
    if (length != 0) {
      shown += text.substr(0, length);
      text.remove_prefix(length);
    } else {
      shown += '?';
      text.remove_prefix(utf8Length(text) == 2 ? 2 : 1);  // of those that are not printable, only U+0080 to U+009F
    }
  }
  return shown;
}

}  // namespace Platform
